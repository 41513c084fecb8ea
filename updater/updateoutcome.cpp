#include "updateoutcome.h"

#include "downloaddialog.h"
#include "downloader.h"
#include "localisation.h"

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QMessageBox>
#include <QStyle>
#include <QTimer>

static constexpr int automaticRunLimitMs = 3600000;
static constexpr int foundBalloonMs = 20000;
static constexpr int outcomeBalloonMs = 10000;
static constexpr int quitAfterInstallMs = 4000;

static bool isLoadableIcon(const QString &path)
{
    // A QIcon made from a file name is not null even when the file holds no
    // picture; only drawing it shows whether it can be read.
    const QIcon icon(path);
    return !icon.isNull() && !icon.pixmap(QSize(32, 32)).isNull();
}

QString trayIconCandidate(const QString &applicationDir)
{
    // Inside a bundle the executable sits in Contents/MacOS; the loose
    // layouts cover a build tree and a copied-out executable.
    static const char *const suffixes[] = {
        "/../Resources/logo.png",
        "/../Resources/Velmora.icns",
        "/../Resources/AppIcon.icns",
        "/Velmora.app/Contents/Resources/logo.png",
        "/Velmora.app/Contents/Resources/Velmora.icns",
        "/logo.png",
        "/../logo.png",
    };
    for (const char *suffix : suffixes) {
        const QString path = QDir::cleanPath(applicationDir + QLatin1String(suffix));
        if (QFile::exists(path) && isLoadableIcon(path))
            return path;
    }
    return {};
}

QIcon trayIconFor(const QString &applicationDir)
{
    const QString path = trayIconCandidate(applicationDir);
    if (!path.isEmpty())
        return QIcon(path);
    // An arrow says "update" well enough when the bundle lost its artwork.
    return QApplication::style()->standardIcon(QStyle::SP_ArrowUp);
}

void UpdateTrayIcon::notify(const QString &title, const QString &body, QSystemTrayIcon::MessageIcon icon, int msecs)
{
    showMessage(title, body, icon, msecs);
    m_notices.append({title, body, icon, msecs});
}

static void installSilently(QApplication *app, const UpdateInfo &info)
{
    // Nothing watches a background run; this bounds it whatever happens.
    auto *runLimit = new QTimer(app);
    runLimit->setSingleShot(true);
    QObject::connect(runLimit, &QTimer::timeout, app, &QCoreApplication::quit);
    runLimit->start(automaticRunLimitMs);

    auto *downloader = new Downloader(info.version, info.downloadUrl, info.sha256, info.packageFlag, app);
    // The hand-over reads this to decide whether to wait for the swap script;
    // it must be set before any event can reach the download.
    downloader->autoMode = true;

    QObject::connect(downloader, &Downloader::done, app, &QCoreApplication::quit);
    // A successful finish is followed by done once the swap script runs.
    QObject::connect(downloader, &Downloader::isFinishedChanged, app, [downloader] {
        if (downloader->isFinished() && downloader->hasError())
            QCoreApplication::quit();
    });
    // A refused package fails inside the constructor, before the connections
    // above exist, so nothing else would ever end the run.
    if (downloader->isFinished() && downloader->hasError())
        QCoreApplication::quit();
}

static UpdateTrayIcon *createTrayIcon(QApplication *app, const UpdateInfo &info)
{
    auto *tray = new UpdateTrayIcon(trayIconFor(QCoreApplication::applicationDirPath()), app);
    tray->setToolTip(translate("upd_tray_version_available").arg(info.version));
    tray->show();
    const QString title = translate(info.mandatory ? "upd_tray_title_mandatory" : "upd_tray_title_available");
    const QString body = translate(info.mandatory ? "upd_tray_body_mandatory" : "upd_tray_body_ready");
    tray->notify(title, body.arg(info.version), QSystemTrayIcon::Information, foundBalloonMs);
    return tray;
}

static void relayToTray(UpdateTrayIcon *tray, DownloadDialog *dialog, const UpdateInfo &info)
{
    QObject::connect(dialog, &DownloadDialog::progressChanged, tray, [tray](int percent, const QString &status) {
        tray->setToolTip(translate("upd_tray_downloading").arg(QString::number(percent), status));
    });
    QObject::connect(dialog, &DownloadDialog::downloadComplete, tray, [tray, info] {
        tray->setToolTip(translate("upd_tray_install_done"));
        tray->notify(translate("upd_tray_updated_title"), translate("upd_tray_updated_body").arg(info.version),
                     QSystemTrayIcon::Information, outcomeBalloonMs);
    });
    QObject::connect(dialog, &DownloadDialog::downloadFailed, tray, [tray](const QString &error) {
        tray->setToolTip(translate("upd_tray_download_failed"));
        tray->notify(translate("upd_tray_error_title"), error, QSystemTrayIcon::Critical, outcomeBalloonMs);
    });
}

static void installWithWindow(QApplication *app, const RunFlags &flags, const UpdateInfo &info)
{
    UpdateTrayIcon *tray = flags.trayAvailable ? createTrayIcon(app, info) : nullptr;

    auto *dialog = new DownloadDialog(info.version, info.downloadUrl, info.sha256, info.packageFlag, app);
    // Connected before the quit timer below, so the completion balloon is
    // posted before the countdown to the end of the run starts.
    if (tray)
        relayToTray(tray, dialog, info);

    QObject::connect(dialog, &DownloadDialog::finished, app, &QCoreApplication::quit);
    // Leave the user a moment to read the result before the window goes.
    QObject::connect(dialog, &DownloadDialog::downloadComplete, app,
                     [app] { QTimer::singleShot(quitAfterInstallMs, app, &QCoreApplication::quit); });

    dialog->show();
    dialog->raise();
    dialog->requestActivate();
}

void handleUpdateOutcome(QApplication *app, QTimer *checkWatchdog, const RunFlags &flags, bool ok,
                         const UpdateInfo &info)
{
    if (!ok) {
        // Only someone who asked for a reinstall by hand is told why nothing
        // happens; an ordinary or background run that finds nothing ends
        // quietly. The check watchdog stays armed behind the box.
        if (flags.forceMode && !flags.autoMode) {
            const QString text = info.message.isEmpty() ? translate("upd_no_update_or_pkg") : info.message;
            QMessageBox::information(nullptr, QStringLiteral("Velmora"), text, QMessageBox::Ok, QMessageBox::NoButton);
        }
        QCoreApplication::quit();
        return;
    }

    // From here on the download has its own limits; a slow download must not
    // be cut short by the check's time limit.
    if (checkWatchdog)
        checkWatchdog->stop();

    if (flags.autoMode)
        installSilently(app, info);
    else
        installWithWindow(app, flags, info);
}
