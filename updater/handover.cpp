#include "handover.h"

#include "downloader.h"
#include "installlocation.h"
#include "localisation.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMetaObject>
#include <QProcess>
#include <QStringList>
#include <QSysInfo>
#include <QThread>

#include <cstddef>

// Generated at build time from scripts/apply_update.sh.
extern const unsigned char velmoraSwapScriptBody[];
extern const std::size_t velmoraSwapScriptBodySize;

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
    return QByteArray(reinterpret_cast<const char *>(velmoraSwapScriptBody), qsizetype(velmoraSwapScriptBodySize));
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
    const QString text = QStringLiteral("#!/bin/bash\nset +e\n") + header.join(QLatin1Char('\n'))
        + QLatin1Char('\n') + QString::fromLatin1(swapScriptBody());
    return text.toUtf8();
}

const char *statusVerdictKey(const QByteArray &content)
{
    const QByteArray word = content.trimmed();
    // A script started in interactive mode never defers; should it do so
    // anyway, the installed bundle is intact, which is all the user needs.
    if (word == "ok" || word == "defer")
        return "upd_install_done";
    if (word.startsWith("fail"))
        return "upd_apply_failed_kept";
    return nullptr;
}

void Downloader::installHandOver(const QString &sourceRoot, const QString &tempLocation)
{
    const QString newApp = findNewBundle(sourceRoot);
    if (newApp.isEmpty()) {
        postState(translate("upd_app_not_found"), -1, true);
        return;
    }

    const InstallLocation location = findInstallLocation(m_arguments, m_applicationDir);
    const QString scriptPath = tempLocation + QStringLiteral("/velmora_apply_update.sh");
    const QString statusPath = tempLocation + QStringLiteral("/velmora_update.status");
    // A word left by an earlier run must never be taken for this run's outcome.
    QFile::remove(statusPath);

    SwapScriptValues values;
    values.srcApp = newApp;
    values.dstApp = location.dstApp;
    values.legacyApp = location.legacyApp;
    values.srcRoot = sourceRoot;
    values.expectVersion = m_version;
    values.expectArch = QSysInfo::currentCpuArchitecture();
    values.autoMode = autoMode;
    values.statusPath = statusPath;

    QFile script(scriptPath);
    if (!script.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text)) {
        postState(translate("upd_script_create_failed"), -1, true);
        return;
    }
    // bash runs a script as far as it can read it: a copy cut short by a full
    // disk could stop right after moving the installed bundle aside and never
    // put anything in its place, so only a complete script is started.
    const QByteArray text = buildSwapScript(values);
    const bool written = script.write(text) == text.size() && script.flush();
    script.close();
    if (!written) {
        script.remove();
        postState(translate("upd_script_create_failed"), -1, true);
        return;
    }
    script.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner
                          | QFileDevice::ReadGroup | QFileDevice::ExeGroup | QFileDevice::ReadOther
                          | QFileDevice::ExeOther);

    // Detached, so that the script outlives the updater: in automatic mode it
    // replaces the very bundle this executable runs from.
    if (!QProcess::startDetached(QStringLiteral("/bin/bash"), {scriptPath})) {
        postState(translate("upd_script_start_failed"), -1, true);
        return;
    }
    postState(translate("upd_applying_restart"), -1000, false);

    if (autoMode) {
        // The script waits for this process to go before it touches the
        // bundle, so the updater quits as soon as possible and never looks
        // at the outcome.
        QMetaObject::invokeMethod(this, [this] { emit done(); }, Qt::QueuedConnection);
        return;
    }

    for (int remaining = statusPolls;;) {
        QThread::msleep(static_cast<unsigned long>(qMax(0, statusPollIntervalMs)));
        QFile status(statusPath);
        if (status.open(QIODevice::ReadOnly | QIODevice::Text)) {
            if (const char *key = statusVerdictKey(status.readAll())) {
                const bool failed = qstrcmp(key, "upd_apply_failed_kept") == 0;
                postState(translate(key), failed ? -1 : -1000, failed);
                return;
            }
        }
        if (--remaining <= 0) {
            postState(translate("upd_install_timeout_kept"), -1, true);
            return;
        }
    }
}
