#include "downloader.h"

#include "localisation.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFutureWatcher>
#include <QProcess>
#include <QStandardPaths>
#include <QThreadPool>
#include <QtConcurrent/QtConcurrentRun>

static constexpr int extractorTimeoutMs = 120000;

// True when the tool ran to completion with exit code 0. Otherwise its
// standard error is left in errorText; a tool still running is killed when
// the process object goes.
static bool runExtractor(const QString &program, const QStringList &arguments, QString *errorText)
{
    QProcess tool;
    tool.start(program, arguments, QIODevice::ReadWrite);
    // A program that cannot be started makes the wait fail at once.
    if (tool.waitForFinished(extractorTimeoutMs) && tool.exitCode() == 0)
        return true;
    *errorText = QString::fromLocal8Bit(tool.readAllStandardError());
    return false;
}

QString chooseSourceRoot(const QString &extractionDir)
{
    const QDir dir(extractionDir);
    QStringList folders = dir.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Unsorted);
    // Archives made with the Finder carry resource forks in "__MACOSX".
    folders.removeAll(QStringLiteral("__MACOSX"));
    if (folders.size() == 1 && dir.entryList(QDir::Files | QDir::NoDotAndDotDot, QDir::Unsorted).isEmpty())
        return extractionDir + QLatin1Char('/') + folders.first();
    return extractionDir;
}

void Downloader::startInstall()
{
    setPhase(2);
    setStatus(translate("upd_extracting"));
    setProgress(0);

    auto *watcher = new QFutureWatcher<void>(this);
    m_installWatcher = watcher;
    connect(watcher, &QFutureWatcherBase::finished, this, &Downloader::onInstallWorkerFinished);
    // The hash, the extractors and the hand-over's watch all block, so they
    // run on a pool thread and keep the progress view responsive.
    watcher->setFuture(QtConcurrent::run(QThreadPool::globalInstance(), [this] { verifyAndExtract(); }));
}

bool Downloader::verifyChecksum()
{
    if (m_expectedSha256.size() != 64)
        return false;
    QFile package(m_packageFilePath);
    if (!package.open(QIODevice::ReadOnly))
        return false;
    // Read in chunks: the package never has to fit in memory.
    QCryptographicHash hash(QCryptographicHash::Sha256);
    if (!hash.addData(&package))
        return false;
    return QString::fromLatin1(hash.result().toHex()).toLower() == m_expectedSha256;
}

void Downloader::verifyAndExtract()
{
    const QString tempLocation = QStandardPaths::writableLocation(QStandardPaths::TempLocation);

    postState(translate("upd_verifying"), -1000, false);
    if (!verifyChecksum()) {
        postState(translate("upd_verify_failed"), -1, true);
        QFile::remove(m_packageFilePath);
        return;
    }

    // Files left by an earlier run must never reach the hand-over.
    const QString extractionDir = tempLocation + QStringLiteral("/VelmoraExtract");
    QDir(extractionDir).removeRecursively();
    QDir().mkpath(extractionDir);

    QString errorText;
    // ditto keeps the bundle's extended attributes and symbolic links; unzip
    // is the fallback for a system where ditto fails.
    bool extracted = runExtractor(QStringLiteral("ditto"),
                                  {QStringLiteral("-x"), QStringLiteral("-k"), m_packageFilePath, extractionDir},
                                  &errorText);
    if (!extracted) {
        QString unzipError;
        extracted = runExtractor(QStringLiteral("unzip"),
                                 {QStringLiteral("-o"), m_packageFilePath, QStringLiteral("-d"), extractionDir},
                                 &unzipError);
        if (!extracted && !unzipError.isEmpty()) {
            if (!errorText.isEmpty())
                errorText += QLatin1Char('\n');
            errorText += unzipError;
        }
    }

    if (!extracted) {
        // Neither tool said anything: most likely neither could be started.
        if (errorText.trimmed().isEmpty())
            errorText = translate("upd_unzip_missing");
        const QString message = errorText.isEmpty() ? translate("upd_zip_failed")
                                                    : translate("upd_zip_failed_detail").arg(errorText.trimmed());
        postState(message, -1, true);
        QFile::remove(m_packageFilePath);
        return;
    }

    QFile::remove(m_packageFilePath);
    const QString sourceRoot = chooseSourceRoot(extractionDir);
    postState(translate("upd_preparing"), 3, false);
    installHandOver(sourceRoot, tempLocation);
}

void Downloader::onInstallWorkerFinished()
{
    if (m_installWatcher) {
        m_installWatcher->deleteLater();
        m_installWatcher = nullptr;
    }
    if (!m_hasError) {
        setPhase(4);
        setStatus(translate("upd_install_done"));
        setProgress(100);
    }
    setIsFinished(true);
}
