#include "installlocation.h"
#include "updatechecker.h"
#include "updateoutcome.h"

#include <QApplication>
#include <QSystemTrayIcon>
#include <QTimer>

#include <cstdio>
#include <cstring>

static const char usageText[] =
    "VelmoraUpdater [--force|--repair] [--auto] [--current X.Y.Z] [--install-dir DIR]\n"
    "\n"
    "  Ana uygulama acilmasa bile bu ikiliyi calistirabilirsiniz.\n"
    "  --force / --repair  En son yayinlanan paketi indirip kurar (kirik kurulum).\n"
    "  --auto              Arka plan; uygulama aciksa kurulumu erteler.\n"
    "  --current VER       Kurulu surum (yoksa Info.plist / registry).\n"
    "  --install-dir DIR   Kurulum yeri (Mac: Velmora.app, Windows: exe klasoru).\n"
    "\n"
    "Mac:\n"
    "  /Applications/Velmora.app/Contents/MacOS/VelmoraUpdater --force\n"
    "Windows:\n"
    "  VelmoraUpdateCheck.exe --force\n";

int main(int argc, char *argv[])
{
    // Qt reads this while constructing the application: a background run must
    // never become a foreground process with a Dock icon.
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--auto") == 0) {
            qputenv("QT_MAC_DISABLE_FOREGROUND_APPLICATION_TRANSFORM", "1");
            break;
        }
    }

    auto *app = new QApplication(argc, argv);
    Q_INIT_RESOURCE(updater);
    QGuiApplication::setQuitOnLastWindowClosed(false);
    QCoreApplication::setApplicationName(QStringLiteral("VelmoraUpdater"));
    QCoreApplication::setOrganizationName(QStringLiteral("VelmoraLabs"));

    if (hasArgument(QStringLiteral("--help")) || hasArgument(QStringLiteral("-h"))) {
        std::fwrite(usageText, 1, sizeof usageText - 1, stdout);
        std::fflush(stdout);
        delete app;
        return 0;
    }

    RunFlags flags;
    flags.autoMode = hasArgument(QStringLiteral("--auto"));
    flags.forceMode = hasArgument(QStringLiteral("--force")) || hasArgument(QStringLiteral("--repair"));
    // The tray is never probed in automatic mode: nothing may appear there.
    flags.trayAvailable = !flags.autoMode && QSystemTrayIcon::isSystemTrayAvailable();

    auto *checkWatchdog = new QTimer(app);
    checkWatchdog->setSingleShot(true);
    QObject::connect(checkWatchdog, &QTimer::timeout, app, &QCoreApplication::quit);
    checkWatchdog->start(60000);

    auto *checker = new UpdateChecker(app);
    checker->checkForUpdate([app, checkWatchdog, flags](bool ok, const UpdateInfo &info) {
        handleUpdateOutcome(app, checkWatchdog, flags, ok, info);
    });

    const int status = QApplication::exec();
    delete app;
    return status;
}
