#pragma once

#include <QObject>
#include <QString>
#include <QUrl>

class QQuickView;
class Downloader;

class DownloadDialog : public QObject
{
    Q_OBJECT
public:
    // `source` lets tests load a broken view; the updater always shows the
    // one in the resources.
    DownloadDialog(const QString &version, const QString &downloadUrl, const QString &sha256, bool packageFlag,
                   QObject *parent = nullptr,
                   const QUrl &source = QUrl(QStringLiteral("qrc:/qml/download.qml")));
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
