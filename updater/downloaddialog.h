#pragma once

#include <QObject>
#include <QString>
#include <QUrl>

class QQuickView;
class Downloader;

// Makes the run's phases known to QML as "import Velmora 1.0" … Phase.Done.
// The dialog does it before loading its view; safe to call more than once.
void registerPhaseType();

class DownloadDialog : public QObject
{
    Q_OBJECT
public:
    // `source` lets tests load a broken view; the updater always shows the
    // one in the resources.
    DownloadDialog(const QString &version, const QString &downloadUrl, const QString &sha256, bool packageFlag,
                   QObject *parent = nullptr, const QUrl &source = QUrl(QStringLiteral("qrc:/qml/download.qml")));
    ~DownloadDialog() override;

    void show();
    void raise();
    void requestActivate();

    // For the outcome handling's tests and the screenshot tool.
    QQuickView *window() const { return view; }
    Downloader *downloaderObject() const { return downloader; }

signals:
    void finished();
    void progressChanged(int percent, const QString &status);
    void downloadComplete();
    void downloadFailed(const QString &error);

private:
    QQuickView *view;
    Downloader *downloader;
};
