#include "installlocation.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QSettings>
#include <QTemporaryFile>

static const QString canonicalApp = QStringLiteral("/Applications/Velmora.app");

bool hasArgument(const QString &name, const QStringList &arguments)
{
    return arguments.contains(name);
}

QString argumentValue(const QString &name, const QStringList &arguments)
{
    const int index = arguments.indexOf(name);
    if (index < 0 || index + 1 >= arguments.size())
        return {};
    const QString value = arguments.at(index + 1).trimmed();
    // "--current --auto" means no value, not the version "--auto".
    if (value.isEmpty() || value.startsWith(QLatin1Char('-')))
        return {};
    return value;
}

QString readInstalledVersion(const QString &bundlePath)
{
    if (bundlePath.isEmpty())
        return {};
    QProcess tool;
    tool.start(QStringLiteral("/usr/libexec/PlistBuddy"),
               {QStringLiteral("-c"), QStringLiteral("Print :CFBundleShortVersionString"),
                bundlePath + QStringLiteral("/Contents/Info.plist")},
               QIODevice::ReadWrite);
    // A hung tool must not hold up the check; the process object ends it.
    if (!tool.waitForFinished(4000))
        return {};
    if (tool.exitStatus() != QProcess::NormalExit || tool.exitCode() != 0)
        return {};
    return QString::fromUtf8(tool.readAllStandardOutput()).trimmed();
}

static QString runningBundle(const QString &applicationDir)
{
    // Two levels up, worked out on the text so that it also holds for a
    // bundle that is only being described (the tests' case).
    if (applicationDir.endsWith(QLatin1String("/Contents/MacOS")))
        return QDir(QDir::cleanPath(applicationDir + QStringLiteral("/../.."))).absolutePath();
    const QString beside = applicationDir + QStringLiteral("/Velmora.app");
    if (QFileInfo(beside).isDir())
        return beside;
    return {};
}

InstallLocation findInstallLocation(const QStringList &arguments, const QString &applicationDir)
{
    const QString installDir = argumentValue(QStringLiteral("--install-dir"), arguments);
    if (!installDir.isEmpty()) {
        const QString dir = QDir(installDir).absolutePath();
        if (dir.endsWith(QLatin1String(".app"), Qt::CaseInsensitive))
            return {dir, {}};
        return {dir + QStringLiteral("/Velmora.app"), {}};
    }

    const QString bundle = runningBundle(applicationDir);
    if (bundle.isEmpty())
        return {canonicalApp, {}};

    // A copy Gatekeeper moved, a mounted disk image or a temporary folder is
    // left where it is; the real installation goes to /Applications.
    static const char *const foreign[]
        = {"/AppTranslocation/", "/private/var/folders/", "/var/folders/", "/TemporaryItems/"};
    for (const char *marker : foreign) {
        if (bundle.contains(QLatin1String(marker)))
            return {canonicalApp, {}};
    }
    if (bundle.startsWith(QLatin1String("/Volumes/")))
        return {canonicalApp, {}};

    const QFileInfo info(bundle);
    const QString bundlePath = info.absoluteFilePath();
    // A copy run from a user folder moves to /Applications and the copy goes.
    static const char *const userFolders[] = {"/Downloads/", "/Desktop/", "/Documents/"};
    for (const char *marker : userFolders) {
        if (bundle.contains(QLatin1String(marker)))
            return {canonicalApp, bundlePath};
    }

    const QString name = info.fileName();
    if (name.compare(QLatin1String("Velmora.app"), Qt::CaseInsensitive) == 0)
        return {bundlePath, {}};
    if (name.startsWith(QLatin1String("Velmora"), Qt::CaseInsensitive)
        && name.endsWith(QLatin1String(".app"), Qt::CaseInsensitive))
        return {canonicalApp, bundlePath};
    return {bundlePath, {}};
}

// Creating and renaming an entry is what the swap does in that folder; trying
// it is the one test that also answers for access lists, read-only volumes
// and the sticky bit.
static bool canCreateAndRename(const QString &folder)
{
    QTemporaryFile probe(folder + QStringLiteral("/.VelmoraUpdater-XXXXXX"));
    if (!probe.open())
        return false;
    const QString moved = probe.fileName() + QStringLiteral("-moved");
    const bool renamed = QFile::rename(probe.fileName(), moved);
    QFile::remove(moved);
    return renamed;
}

QString unchangeableInstallPlace(const QString &dstApp)
{
    const QString bundle = dstApp.contains(QLatin1String("/AppTranslocation/")) ? canonicalApp : dstApp;
    QString folder = QFileInfo(bundle).absolutePath();
    while (!QFileInfo(folder).isDir() && QFileInfo(folder).absolutePath() != folder)
        folder = QFileInfo(folder).absolutePath();
    if (!canCreateAndRename(folder))
        return folder;
    // The old bundle is moved aside and then removed.
    const QFileInfo installed(bundle);
    if (installed.exists() && !installed.isWritable())
        return bundle;
    return {};
}

QString installedVersion(const QStringList &arguments, const QString &applicationDir)
{
    if (hasArgument(QStringLiteral("--force"), arguments) || hasArgument(QStringLiteral("--repair"), arguments))
        return QStringLiteral("0.0.0");

    const QString given = argumentValue(QStringLiteral("--current"), arguments);
    if (!given.isEmpty())
        return given;

    const QString fromBundle = readInstalledVersion(findInstallLocation(arguments, applicationDir).dstApp);
    if (!fromBundle.isEmpty())
        return fromBundle;

    const QSettings settings(QStringLiteral("Velmora"), QStringLiteral("VelmoraApp"));
    const QString fromSettings = settings.value(QStringLiteral("Version"), QString()).toString().trimmed();
    if (!fromSettings.isEmpty())
        return fromSettings;

    return QStringLiteral("0.0.0");
}
