#include "downloader.h"

#include "handover.h"
#include "installjob.h"
#include "installlocation.h"
#include "localisation.h"
#include "phase.h"
#include "releaseinfo.h"
#include "updatepublickeys.h"
#include "verification.h"

#include <QCoreApplication>
#include <QDesktopServices>
#include <QFile>
#include <QFileInfo>
#include <QFutureWatcher>
#include <QNetworkAccessManager>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QThreadPool>
#include <QUrl>
#include <QtConcurrent/QtConcurrentRun>

static constexpr int progressThrottleMs = 100;
static constexpr double bytesPerMegabyte = 1048576.0;
static constexpr qint64 maxSignatureBytes = 64 * 1024;

TransferPolicy Downloader::defaultTransferPolicy()
{
    TransferPolicy policy;
    policy.maxBytes = qint64(VELMORA_MAX_PACKAGE_MIB) * 1024 * 1024;
    return policy;
}

Downloader::Downloader(const QString &version, const QString &url, const QString &sha256, bool packageFlag,
                       QObject *parent, const TransferPolicy &policy)
    : QObject(parent)
    , m_downloadUrl(url)
    , m_version(version)
    , m_expectedSha256(sha256.trimmed().toLower())
    , m_policy(policy)
{
    // The flag belongs to the other platform's installer package; this
    // updater always fetches the zip.
    Q_UNUSED(packageFlag);
    m_manager = new QNetworkAccessManager(this);

    // Keys built in mean signatures are required; keys that will not parse
    // (the configure step checks them, so only a damaged build) leave none
    // that could verify, and every package is refused.
    const QByteArray keys = updatePublicKeysText();
    requireSignature = !keys.isEmpty();
    if (requireSignature)
        parseSigningKeys(keys, &signingKeys, nullptr);

    const QString tempLocation = QStandardPaths::writableLocation(QStandardPaths::TempLocation);
    m_packageFilePath = tempLocation
        + (m_installerPackage ? QStringLiteral("/VelmoraLabs-Setup.exe") : QStringLiteral("/VelmoraUpdate.zip"));
    m_arguments = QCoreApplication::arguments();
    m_applicationDir = QCoreApplication::applicationDirPath();
    const InstallLocation location = findInstallLocation(m_arguments, m_applicationDir);
    m_installDir = QFileInfo(location.dstApp).absolutePath();

    // Refused before anything touches the disk or the network, so a bad
    // release record cannot leave a file behind or leak a request.
    if (!m_downloadUrl.startsWith(QLatin1String("https://"))) {
        fail(translate("upd_insecure_url_keep"));
        return;
    }
    if (m_expectedSha256.size() != 64) {
        fail(translate("upd_sha_missing_keep"));
        return;
    }
    // A package that could never be installed is not worth downloading: a
    // standard user cannot change /Applications, and the next automatic
    // check would fetch the whole package again to fail the same way.
    const QString readOnly = unchangeableInstallPlace(location.dstApp);
    if (!readOnly.isEmpty()) {
        fail(translate("upd_install_place_read_only").arg(readOnly));
        return;
    }
    // One installation at a time: the earlier script may still be moving
    // bundles, and this run would pull its staged source away.
    if (earlierSwapScriptRunning(tempLocation)) {
        fail(translate("upd_install_busy"));
        return;
    }
    m_installedBundle = location.dstApp;
    m_deltaFrom = deltaBaseVersion(m_installedBundle);
    if (!startDownload())
        fail(translate("upd_file_create_failed").arg(m_packageFilePath));
}

// Only a signed delta can be trusted (the record's digest names the
// package), it can only be built on the bundle it was made from, and a
// forced run is asked to repair whatever is there: the whole package then.
QString Downloader::deltaBaseVersion(const QString &installedBundle) const
{
    if (!requireSignature || hasArgument(QStringLiteral("--force"), m_arguments)
        || hasArgument(QStringLiteral("--repair"), m_arguments))
        return {};
    const QString installed = readInstalledVersion(installedBundle);
    static const QRegularExpression urlSafe(QStringLiteral("^[0-9A-Za-z.+-]{1,64}$"));
    if (!parseVersion(installed).valid || !urlSafe.match(installed).hasMatch())
        return {};
    return installed;
}

// Beside the package: its path with a suffix, any query kept.
QString Downloader::deltaUrl(const char *suffix) const
{
    QUrl url(m_downloadUrl);
    url.setPath(url.path() + QStringLiteral(".from-%1.delta").arg(m_deltaFrom) + QLatin1String(suffix));
    return url.toString();
}

QString Downloader::transferPath() const
{
    return m_deltaFrom.isEmpty() ? m_packageFilePath : m_packageFilePath.chopped(4) + QStringLiteral(".delta");
}

Downloader::~Downloader()
{
    // Before the network manager, whose going takes the reply with it.
    delete m_transfer;
}

// The package, continuing a part an earlier run left of this very release;
// or first the delta from the installed version, which is never kept across
// runs (it is small, and one partial is all a run leaves behind).
bool Downloader::startDownload()
{
    if (!m_deltaFrom.isEmpty()) {
        m_transfer = new Transfer(m_manager, deltaUrl(), transferPath(), m_policy, this);
        if (!m_transfer->open()) {
            fallBackToPackage(QStringLiteral("its file could not be made"));
            return true;
        }
    } else {
        m_transfer = new Transfer(m_manager, m_downloadUrl, m_packageFilePath, m_policy, this);
        if (!m_transfer->open(m_packageFilePath + QStringLiteral(".partial"),
                              {m_downloadUrl, m_expectedSha256, m_version}))
            return false;
    }
    setPhase(Phase::Connecting);
    setStatus(translate("upd_connecting"));
    connect(m_transfer, &Transfer::progress, this, &Downloader::onDownloadProgress);
    connect(m_transfer, &Transfer::finished, this, &Downloader::onDownloadFinished);
    m_throttle.start();
    m_transfer->start();
    return true;
}

void Downloader::fail(const QString &message)
{
    setStatus(message);
    setHasError(true);
    setPhase(Phase::Failed);
    setIsFinished(true);
}

void Downloader::failDownload(const QString &message)
{
    setHasError(true);
    setPhase(Phase::Failed);
    setStatus(message);
    setIsFinished(true);
}

void Downloader::onDownloadProgress(qint64 received, qint64 total)
{
    if (m_phase <= Phase::Connecting)
        setPhase(Phase::Downloading);

    if (received != total && m_throttle.isValid() && m_throttle.elapsed() < progressThrottleMs)
        return;
    m_throttle.restart();

    const QString receivedMb = formatDecimal(received / bytesPerMegabyte, 1);
    if (total < 1) {
        setStatus(translate("upd_downloading_mb").arg(receivedMb));
        return;
    }
    setProgress(int(received * 100 / total));
    setStatus(QStringLiteral("%1 MB / %2 MB").arg(receivedMb, formatDecimal(total / bytesPerMegabyte, 1)));
}

void Downloader::onDownloadFinished(TransferEnd end)
{
    Transfer *transfer = m_transfer;
    m_transfer = nullptr;
    transfer->deleteLater();
    if (!m_deltaFrom.isEmpty() && (end == TransferEnd::Failed || end == TransferEnd::Interrupted)) {
        fallBackToPackage(transfer->failure());
        return;
    }
    switch (end) {
    case TransferEnd::Complete:
        m_packageDownloaded = m_deltaFrom.isEmpty();
        m_packageResumed = m_packageDownloaded && transfer->resumed();
        setProgress(100);
        if (requireSignature)
            fetchSignature();
        else
            startInstall();
        return;
    case TransferEnd::Cancelled:
        emit done();
        return;
    case TransferEnd::Failed:
        // A stop of the updater's own (the size limit) is a failure, never the user's cancel.
        failDownload(translate("upd_download_error").arg(transfer->failure()));
        return;
    case TransferEnd::Interrupted:
        // What arrived stays for the next run, which continues from there.
        failDownload(translate("upd_download_interrupted").arg(transfer->failure()));
        return;
    }
}

void Downloader::fetchSignature()
{
    // A signature is a few hundred bytes; anything larger is not one, and is
    // not worth the disk or the memory.
    TransferPolicy policy = m_policy;
    policy.maxBytes = maxSignatureBytes;
    const QString url = m_deltaFrom.isEmpty() ? m_downloadUrl + QStringLiteral(".minisig") : deltaUrl(".minisig");
    m_transfer = new Transfer(m_manager, url, transferPath() + QStringLiteral(".minisig"), policy, this);
    connect(m_transfer, &Transfer::finished, this, &Downloader::onSignatureFinished);
    if (m_transfer->open())
        m_transfer->start();
    else
        onSignatureFinished(TransferEnd::Failed);
}

void Downloader::onSignatureFinished(TransferEnd end)
{
    Transfer *transfer = m_transfer;
    m_transfer = nullptr;
    transfer->deleteLater();
    const QString path = transferPath() + QStringLiteral(".minisig");
    if (end == TransferEnd::Cancelled) {
        QFile::remove(transferPath());
        emit done();
        return;
    }
    // Any failure to fetch it leaves no signature, which the worker refuses
    // once it has read the package: never a silent skip.
    QFile signature(path);
    m_signature
        = end == TransferEnd::Complete && signature.open(QIODevice::ReadOnly) ? signature.readAll() : QByteArray();
    signature.close();
    QFile::remove(path);
    startInstall();
}

void Downloader::postState(const QString &message, int phase, bool error)
{
    QMetaObject::invokeMethod(
        this, [this, message, phase, error] { applyState(message, phase, error); }, Qt::QueuedConnection);
}

void Downloader::applyState(const QString &message, int phase, bool error)
{
    if (error)
        setHasError(true);
    if (phase != Phase::Unchanged)
        setPhase(phase);
    if (!message.isEmpty())
        setStatus(message);
}

void Downloader::startInstall()
{
    setPhase(Phase::Extracting);
    setStatus(translate("upd_extracting"));
    setProgress(0);

    auto *watcher = new QFutureWatcher<void>(this);
    m_installWatcher = watcher;
    connect(watcher, &QFutureWatcherBase::finished, this, &Downloader::onInstallWorkerFinished);
    // The hash, the extractors and the hand-over's watch all block, so they
    // run on a pool thread and keep the progress view responsive.
    watcher->setFuture(QtConcurrent::run(QThreadPool::globalInstance(), [this] { verifyAndExtract(); }));
}

InstallJobInputs Downloader::jobInputs() const
{
    InstallJobInputs inputs;
    inputs.packagePath = m_packageFilePath;
    inputs.expectedSha256 = m_expectedSha256;
    inputs.version = m_version;
    inputs.arguments = m_arguments;
    inputs.applicationDir = m_applicationDir;
    inputs.autoMode = autoMode;
    inputs.statusPolls = statusPolls;
    inputs.statusPollIntervalMs = statusPollIntervalMs;
    inputs.requireSignature = requireSignature;
    inputs.signingKeys = signingKeys;
    inputs.signature = m_signature;
    inputs.packageResumed = m_packageResumed;
    if (!m_deltaFrom.isEmpty()) {
        inputs.deltaPath = transferPath();
        inputs.deltaSignature = m_signature;
        inputs.deltaFrom = m_deltaFrom;
        inputs.installedBundle = m_installedBundle;
        inputs.signature.clear();
    }
    return inputs;
}

InstallReport Downloader::reporter()
{
    return [this](const QString &message, int phase, bool error) { postState(message, phase, error); };
}

void Downloader::endJob(JobEnd end)
{
    if (end == JobEnd::QuitForSwap)
        QMetaObject::invokeMethod(
            this, [this] { emit done(); }, Qt::QueuedConnection);
    else if (end == JobEnd::DownloadAgain)
        QMetaObject::invokeMethod(
            this, [this] { downloadAgain(); }, Qt::QueuedConnection);
    else if (end == JobEnd::FullPackage)
        QMetaObject::invokeMethod(
            this, [this] { fallBackToPackage({}); }, Qt::QueuedConnection);
}

// Whatever kept the delta from use is the publisher's affair or a changed
// bundle, never the user's: it goes to standard error, and the download
// goes on with the package as if no delta had been offered.
void Downloader::fallBackToPackage(const QString &reason)
{
    if (!reason.isEmpty())
        qWarning().noquote() << "[Downloader] Delta not used, downloading the whole package:" << reason;
    QFile::remove(transferPath());
    QFile::remove(transferPath() + QStringLiteral(".minisig"));
    m_deltaFrom.clear();
    m_signature.clear();
    if (!startDownload())
        failDownload(translate("upd_file_create_failed").arg(m_packageFilePath));
}

// A package continued from a kept part did not match its digest: the part
// may have come from a file since replaced. It is fetched once more, whole;
// a second mismatch is the plain verification failure.
void Downloader::downloadAgain()
{
    m_packageDownloaded = false;
    m_packageResumed = false;
    QFile::remove(m_packageFilePath + QStringLiteral(".partial"));
    if (!startDownload())
        failDownload(translate("upd_file_create_failed").arg(m_packageFilePath));
}

bool Downloader::verifyChecksum()
{
    return packageMatchesDigest(m_packageFilePath, m_expectedSha256);
}

void Downloader::verifyAndExtract()
{
    endJob(runInstallJob(jobInputs(), reporter()));
}

void Downloader::installHandOver(const QString &sourceRoot, const QString &tempLocation)
{
    endJob(handOver(jobInputs(), sourceRoot, tempLocation, reporter()));
}

void Downloader::onInstallWorkerFinished()
{
    if (m_installWatcher) {
        m_installWatcher->deleteLater();
        m_installWatcher = nullptr;
    }
    // The job handed the run back to a new download.
    if (m_transfer)
        return;
    if (!m_hasError) {
        setPhase(Phase::Done);
        setStatus(translate("upd_install_done"));
        setProgress(100);
    }
    setIsFinished(true);
}

void Downloader::cancel()
{
    if (m_transfer) {
        // The finished handler takes the cancelled path and emits done.
        m_transfer->cancel();
        return;
    }
    if (m_packageDownloaded)
        QFile::remove(m_packageFilePath);
    emit done();
}

void Downloader::openInstallDir()
{
    QDesktopServices::openUrl(QUrl::fromLocalFile(m_installDir));
}

void Downloader::openInstalledApp()
{
    // Asked anew: the bundle may have moved since the download started.
    const QString dstApp = findInstallLocation().dstApp;
    if (!dstApp.isEmpty())
        QProcess::startDetached(QStringLiteral("open"), {dstApp});
}

void Downloader::close()
{
    emit done();
}

void Downloader::setProgress(int progress)
{
    if (m_progress == progress)
        return;
    m_progress = progress;
    emit progressChanged();
}

void Downloader::setStatus(const QString &status)
{
    if (m_status == status)
        return;
    m_status = status;
    emit statusChanged();
}

void Downloader::setIsFinished(bool finished)
{
    if (m_isFinished == finished)
        return;
    m_isFinished = finished;
    emit isFinishedChanged();
}

void Downloader::setHasError(bool error)
{
    // Every failure report is announced, even a second one, so that a listener
    // reacting to errors hears each of them.
    if (m_hasError == error && !error)
        return;
    m_hasError = error;
    emit hasErrorChanged();
}

void Downloader::setPhase(int phase)
{
    if (m_phase == phase)
        return;
    m_phase = phase;
    emit phaseChanged();
}
