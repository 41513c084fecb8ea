#pragma once

#include "commandline.h"
#include "releaseinfo.h"

#include <QIcon>
#include <QList>
#include <QString>
#include <QSystemTrayIcon>

class QApplication;
class QTimer;

// The tray icon file, tried beside the executable in this order.
QString trayIconCandidate(const QString &applicationDir);

// The first loadable candidate's icon, else the style's up arrow.
QIcon trayIconFor(const QString &applicationDir);

struct TrayNotice
{
    QString title;
    QString body;
    QSystemTrayIcon::MessageIcon icon = QSystemTrayIcon::NoIcon;
    int msecs = 0;
};

// A balloon leaves nothing the process can read back (the platform draws it,
// or drops it when there is no tray), so the icon keeps what it posted: a
// few entries per run at most.
class UpdateTrayIcon : public QSystemTrayIcon
{
    Q_OBJECT
public:
    using QSystemTrayIcon::QSystemTrayIcon;

    void notify(const QString &title, const QString &body, QSystemTrayIcon::MessageIcon icon, int msecs);
    const QList<TrayNotice> &notices() const { return m_notices; }

private:
    QList<TrayNotice> m_notices;
};

void handleUpdateOutcome(QApplication *app, QTimer *checkWatchdog, const RunFlags &flags, bool ok,
                         const UpdateInfo &info);
