#include "backgroundprocess.h"
#include "commandline.h"
#include "downloaddialog.h"
#include "downloader.h"
#include "installlocation.h"
#include "updatechecker.h"
#include "updateoutcome.h"

#include <QApplication>
#include <QLockFile>
#include <QNetworkProxyFactory>
#include <QStandardPaths>
#include <QSystemTrayIcon>
#include <QThreadPool>
#include <QTimer>

#include <cstdio>

// The run's objects go while the application still stands. Qt takes its
// event dispatcher and its TLS backend down with the application object: a
// window destroyed after that starts a timer on a thread without events, and
// a network thread that only then closes its kept-alive TLS connections loads
// the backend again without an application. Both warn on standard error.
static void deleteRunObjects(QApplication *app)
{
    // An install worker still at its job (the window closed mid-install)
    // reports to the Downloader: it ends first, as it would have inside the
    // application's destructor.
    QThreadPool::globalInstance()->waitForDone();
    const QObjectList children = app->children();
    for (QObject *child : children) {
        if (qobject_cast<UpdateChecker *>(child) || qobject_cast<Downloader *>(child)
            || qobject_cast<DownloadDialog *>(child) || qobject_cast<QSystemTrayIcon *>(child))
            delete child;
    }
}

int main(int argc, char *argv[])
{
    // Qt reads this while constructing the application: a background run must
    // never become a foreground process with a Dock icon.
    const bool autoRequested = rawArgumentsRequestAutoMode(argc, argv);
    if (autoRequested)
        qputenv("QT_MAC_DISABLE_FOREGROUND_APPLICATION_TRANSFORM", "1");

    auto *app = new QApplication(argc, argv);
    // The variable alone is not enough inside the application's bundle (see
    // backgroundprocess_mac.mm); nothing has been shown yet.
    if (autoRequested)
        makeProcessBackgroundOnly();
    QGuiApplication::setQuitOnLastWindowClosed(false);
    QCoreApplication::setApplicationName(QStringLiteral("VelmoraUpdater"));
    QCoreApplication::setOrganizationName(QStringLiteral("VelmoraLabs"));

    if (hasArgument(QStringLiteral("--help")) || hasArgument(QStringLiteral("-h"))) {
        const QByteArray usage = usageText();
        // One write, so that a reader of the pipe never sees half the text.
        std::fwrite(usage.constData(), 1, size_t(usage.size()), stdout);
        std::fflush(stdout);
        delete app;
        return 0;
    }

    // One updater per user at a time: a second one, started by hand or by
    // the next automatic check, leaves the first alone and ends at once.
    QLockFile runLock(QStandardPaths::writableLocation(QStandardPaths::TempLocation)
                      + QStringLiteral("/velmora_updater.lock"));
    runLock.setStaleLockTime(0);
    if (!runLock.tryLock(0)) {
        delete app;
        return 0;
    }

    // Managed Macs reach the internet only through the proxy set in System
    // Settings; whatever a Qt build's default, the query and the package
    // both go the way the system says.
    QNetworkProxyFactory::setUseSystemConfiguration(true);

    const RunFlags flags
        = readRunFlags(QCoreApplication::arguments(), [] { return QSystemTrayIcon::isSystemTrayAvailable(); });

    auto *checkWatchdog = new QTimer(app);
    checkWatchdog->setSingleShot(true);
    QObject::connect(checkWatchdog, &QTimer::timeout, app, &QCoreApplication::quit);
    checkWatchdog->start(60000);

    auto *checker = new UpdateChecker(app);
    checker->checkForUpdate([app, checkWatchdog, flags](bool ok, const UpdateInfo &info) {
        handleUpdateOutcome(app, checkWatchdog, flags, ok, info);
    });

    const int status = QApplication::exec();
    deleteRunObjects(app);
    delete app;
    return status;
}
