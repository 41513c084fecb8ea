#include "commandline.h"

#include "installlocation.h"

#include <cstring>

QByteArray usageText()
{
    return QByteArrayLiteral("VelmoraUpdater [--force|--repair] [--auto] [--current X.Y.Z] [--install-dir DIR]\n"
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
                             "  VelmoraUpdateCheck.exe --force\n");
}

bool rawArgumentsRequestAutoMode(int argc, const char *const argv[])
{
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--auto") == 0)
            return true;
    }
    return false;
}

RunFlags readRunFlags(const QStringList &arguments, const std::function<bool()> &trayProbe)
{
    RunFlags flags;
    flags.autoMode = hasArgument(QStringLiteral("--auto"), arguments);
    flags.forceMode
        = hasArgument(QStringLiteral("--force"), arguments) || hasArgument(QStringLiteral("--repair"), arguments);
    flags.trayAvailable = !flags.autoMode && trayProbe();
    return flags;
}
