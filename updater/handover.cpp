#include "handover.h"

#include "installlocation.h"
#include "localisation.h"
#include "phase.h"
#include "statuswatch.h"
#include "swapscriptbody.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>
#include <QSaveFile>
#include <QStringList>
#include <QSysInfo>

static const QLatin1String canonicalApp("/Applications/Velmora.app");

QString shellQuote(const QString &value)
{
    QString quoted = value;
    quoted.replace(QLatin1Char('\''), QLatin1String("'\\''"));
    return QLatin1Char('\'') + quoted + QLatin1Char('\'');
}

static bool isBundleName(const QString &name)
{
    return name.endsWith(QLatin1String(".app"), Qt::CaseInsensitive);
}

// QDir::Unsorted, not the default: the listing order decides which bundle
// wins, and it has to be the order the archive left on disk.
static QFileInfoList subdirectories(const QString &path)
{
    return QDir(path).entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Unsorted);
}

QString findNewBundle(const QString &sourceRoot)
{
    const QFileInfo root(sourceRoot);
    if (isBundleName(root.fileName()) && root.isDir())
        return root.absoluteFilePath();

    for (const QFileInfo &entry : subdirectories(sourceRoot)) {
        if (isBundleName(entry.fileName()))
            return entry.absoluteFilePath();
        for (const QFileInfo &inner : subdirectories(entry.absoluteFilePath())) {
            if (isBundleName(inner.fileName()))
                return inner.absoluteFilePath();
        }
    }
    return {};
}

QByteArray swapScriptBody()
{
    return QByteArray::fromRawData(reinterpret_cast<const char *>(velmoraSwapScriptBody),
                                   qsizetype(sizeof velmoraSwapScriptBody));
}

QByteArray buildSwapScript(const SwapScriptValues &values)
{
    const QStringList header = {
        QLatin1String("UPDATER_NAME=") + shellQuote(QStringLiteral("VelmoraUpdater")),
        QLatin1String("SRC_APP=") + shellQuote(values.srcApp),
        QLatin1String("DST_APP=") + shellQuote(values.dstApp),
        QLatin1String("LEGACY_APP=") + shellQuote(values.legacyApp),
        QLatin1String("SRC_ROOT=") + shellQuote(values.srcRoot),
        QLatin1String("EXPECT_VER=") + shellQuote(values.expectVersion),
        QLatin1String("EXPECT_ARCH=") + shellQuote(values.expectArch),
        QLatin1String(values.autoMode ? "AUTO=1" : "AUTO=0"),
        QStringLiteral("MIN_IDLE=300"),
        QStringLiteral("MAX_WAIT=21600"),
        QLatin1String("STATUS=") + shellQuote(values.statusPath),
        QLatin1String("CANONICAL_APP=") + shellQuote(canonicalApp),
    };
    // The body goes in as Latin-1 on purpose, so each of its em dashes
    // (E2 80 94) reaches the file, and through the script's messages the swap
    // log, as C3 A2 C2 80 C2 94. Every updater writes exactly these bytes, so
    // the log reads the same whichever release wrote the script; bash meets
    // the dashes only in comments and log text, so the swap is unaffected.
    // The values are real text and are encoded once.
    const QString text = QStringLiteral("#!/bin/bash\nset +e\n") + header.join(QLatin1Char('\n')) + QLatin1Char('\n')
        + QString::fromLatin1(swapScriptBody());
    return text.toUtf8();
}

// Writes the whole script or nothing, as a new file moved into place. bash
// reads a script as it runs it: rewriting the file in place would make a
// script still running from an earlier run go on in this run's text at its
// old offset, and a copy cut short by a full disk could stop right after
// moving the installed bundle aside, with nothing put in its place.
static bool writeScript(const QString &scriptPath, const QByteArray &text)
{
    // A link planted at the script's name would have the rename below land on
    // whatever it points to: the script always becomes a file of its own.
    if (QFileInfo(scriptPath).isSymLink())
        QFile::remove(scriptPath);
    QSaveFile script(scriptPath);
    // Unbuffered, so that a full disk fails the write itself: a failed flush
    // at commit time would still leave the short copy in place.
    if (!script.open(QIODevice::WriteOnly | QIODevice::Text | QIODevice::Unbuffered))
        return false;
    if (script.write(text) != text.size() || !script.commit())
        return false;
    QFile::setPermissions(scriptPath,
                          QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner
                              | QFileDevice::ReadGroup | QFileDevice::ExeGroup | QFileDevice::ReadOther
                              | QFileDevice::ExeOther);
    return true;
}

// The script's bash starts clean of the shell start-up code an environment
// can carry: a function named mv, or a BASH_ENV file, would run inside the
// swap. Everything else (TMPDIR, PATH, HOME, the locale) is inherited.
static QProcessEnvironment scriptEnvironment()
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    const QStringList names = environment.keys();
    for (const QString &name : names) {
        if (name.startsWith(QLatin1String("BASH_FUNC_")))
            environment.remove(name);
    }
    for (const char *name : {"BASH_ENV", "ENV", "SHELLOPTS", "BASHOPTS", "CDPATH", "GLOBIGNORE"})
        environment.remove(QString::fromLatin1(name));
    return environment;
}

static QString scriptPathIn(const QString &tempLocation)
{
    return tempLocation + QStringLiteral("/velmora_apply_update.sh");
}

bool earlierSwapScriptRunning(const QString &tempLocation)
{
    // The script is started as "/bin/bash <path>" and removes itself when it
    // ends, so a process with exactly that command line is one still at work
    // (perhaps waiting hours for an idle user), whichever run started it.
    QProcess ps;
    ps.start(QStringLiteral("/bin/ps"), {QStringLiteral("-A"), QStringLiteral("-o"), QStringLiteral("command=")},
             QIODevice::ReadOnly);
    // If the process table cannot be read, assume the worst: a refused
    // update is offered again later, two swaps of one bundle are not undone.
    if (!ps.waitForFinished(10000) || ps.exitStatus() != QProcess::NormalExit || ps.exitCode() != 0)
        return true;
    const QByteArray command = QByteArrayLiteral("/bin/bash ") + scriptPathIn(tempLocation).toLocal8Bit();
    const QList<QByteArray> lines = ps.readAllStandardOutput().split('\n');
    for (const QByteArray &line : lines) {
        if (line.trimmed() == command)
            return true;
    }
    return false;
}

JobEnd handOver(const InstallJobInputs &inputs, const QString &sourceRoot, const QString &tempLocation,
                const InstallReport &report)
{
    const QString newApp = findNewBundle(sourceRoot);
    if (newApp.isEmpty()) {
        report(translate("upd_app_not_found"), Phase::Failed, true);
        return JobEnd::Reported;
    }

    const InstallLocation location = findInstallLocation(inputs.arguments, inputs.applicationDir);
    const QString scriptPath = scriptPathIn(tempLocation);
    const QString statusPath = tempLocation + QStringLiteral("/velmora_update.status");
    // A word left by an earlier run must never be taken for this run's outcome.
    QFile::remove(statusPath);

    SwapScriptValues values;
    values.srcApp = newApp;
    values.dstApp = location.dstApp;
    values.legacyApp = location.legacyApp;
    values.srcRoot = sourceRoot;
    values.expectVersion = inputs.version;
    values.expectArch = QSysInfo::currentCpuArchitecture();
    values.autoMode = inputs.autoMode;
    values.statusPath = statusPath;

    if (!writeScript(scriptPath, buildSwapScript(values))) {
        report(translate("upd_script_create_failed"), Phase::Failed, true);
        return JobEnd::Reported;
    }
    // Detached, so that the script outlives the updater: in automatic mode it
    // replaces the very bundle this executable runs from.
    QProcess bash;
    bash.setProgram(QStringLiteral("/bin/bash"));
    bash.setArguments({scriptPath});
    bash.setProcessEnvironment(scriptEnvironment());
    if (!bash.startDetached()) {
        report(translate("upd_script_start_failed"), Phase::Failed, true);
        return JobEnd::Reported;
    }
    report(translate("upd_applying_restart"), Phase::Unchanged, false);

    // The script waits for this process to go before it touches the bundle,
    // so an automatic run quits as soon as possible and never looks at the
    // outcome.
    if (inputs.autoMode)
        return JobEnd::QuitForSwap;

    switch (watchSwapStatus(statusPath, inputs.statusPolls, inputs.statusPollIntervalMs)) {
    case SwapVerdict::Installed:
        report(translate("upd_install_done"), Phase::Unchanged, false);
        break;
    case SwapVerdict::Failed:
        report(translate("upd_apply_failed_kept"), Phase::Failed, true);
        break;
    case SwapVerdict::Undecided:
        report(translate("upd_install_timeout_kept"), Phase::Failed, true);
        break;
    }
    return JobEnd::Reported;
}
