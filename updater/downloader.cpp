#include "downloader.h"

#include "handover.h"
#include "installjob.h"
#include "installlocation.h"
#include "localisation.h"
#include "phase.h"
#include "updatepublickeys.h"
#include "verification.h"

#include <QCoreApplication>
#include <QDesktopServices>
#include <QFile>
#include <QFileInfo>
#include <QFutureWatcher>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QProcess>
#include <QStandardPaths>
#include <QThreadPool>
#include <QUrl>
#include <QtConcurrent/QtConcurrentRun>

static constexpr int progressThrottleMs = 100;
static constexpr int transferTimeoutMs = 120000;
static constexpr double bytesPerMegabyte = 1048576.0;
static constexpr int maxSignatureBytes = 64 * 1024;

// The package and its signature travel under the same rules: never from
// HTTPS to HTTP, no key of the release service, a bound on silence.
static QNetworkRequest packageRequest(const QString &url)
{
    QNetworkRequest request{QUrl(url)};
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setHeader(QNetworkRequest::UserAgentHeader, QStringLiteral("Mozilla/5.0 VelmoraUpdater/1.0"));
    request.setTransferTimeout(transferTimeoutMs);
    // Over HTTP/2, Qt's network thread keeps reading whatever the server
    // sends, whatever the read buffer bound says: memory would grow with the
    // package. HTTP/1.1 honours the bound, and every server speaks it.
    request.setAttribute(QNetworkRequest::Http2AllowedAttribute, false);
    return request;
}

Downloader::Downloader(const QString &version, const QString &url, const QString &sha256, bool packageFlag,
                       QObject *parent)
    : QObject(parent)
    , maxPackageBytes(qint64(VELMORA_MAX_PACKAGE_MIB) * 1024 * 1024)
    , m_downloadUrl(url)
    , m_version(version)
    , m_expectedSha256(sha256.trimmed().toLower())
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

    m_packageFilePath = QStandardPaths::writableLocation(QStandardPaths::TempLocation)
        + (m_installerPackage ? QStringLiteral("/VelmoraLabs-Setup.exe") : QStringLiteral("/VelmoraUpdate.zip"));
    m_arguments = QCoreApplication::arguments();
    m_applicationDir = QCoreApplication::applicationDirPath();
    m_installDir = QFileInfo(findInstallLocation(m_arguments, m_applicationDir).dstApp).absolutePath();

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

    m_file = new QFile(m_packageFilePath, this);
    if (!m_file->open(QIODevice::WriteOnly)) {
        fail(translate("upd_file_create_failed").arg(m_packageFilePath));
        return;
    }

    setPhase(Phase::Connecting);
    setStatus(translate("upd_connecting"));

    m_throttle.start();
    m_reply = m_manager->get(packageRequest(m_downloadUrl));
    // Without a bound, the network thread reads ahead of the GUI thread and
    // hands over hundreds of megabytes at once: memory then grows with the
    // package and the window stalls while one huge block is written.
    m_reply->setReadBufferSize(1024 * 1024);
    connect(m_reply, &QIODevice::readyRead, this, &Downloader::onReadyRead);
    connect(m_reply, &QNetworkReply::downloadProgress, this, &Downloader::onDownloadProgress);
    connect(m_reply, &QNetworkReply::finished, this, &Downloader::onDownloadFinished);
}

Downloader::~Downloader()
{
    if (m_reply) {
        // No handler may run on a half-destroyed object while the abort unwinds.
        disconnect(m_reply, nullptr, nullptr, nullptr);
        m_reply->abort();
    }
    if (m_file)
        m_file->close();
}

void Downloader::fail(const QString &message)
{
    setStatus(message);
    setHasError(true);
    setPhase(Phase::Failed);
    setIsFinished(true);
}

void Downloader::onReadyRead()
{
    if (!m_reply || !m_file || !m_file->isOpen())
        return;
    const QByteArray data = m_reply->readAll();
    m_received += data.size();
    // A server that sends without end must not fill the disk: the download
    // stops at the announced length or the size limit, whichever is smaller.
    const qint64 announced = m_reply->header(QNetworkRequest::ContentLengthHeader).toLongLong();
    if (announced > maxPackageBytes || m_received > maxPackageBytes)
        m_stopReason = translate("upd_package_too_large").arg(maxPackageBytes / qint64(bytesPerMegabyte));
    else if (announced > 0 && m_received > announced)
        m_stopReason
            = translate("upd_package_longer_than_announced").arg(formatDecimal(announced / bytesPerMegabyte, 1));
    if (!m_stopReason.isEmpty()) {
        m_reply->abort();
        return;
    }
    m_file->write(data);
}

void Downloader::onDownloadProgress(qint64 received, qint64 total)
{
    // Once the updater has stopped the download, Qt's closing report would
    // show a full bar beside the error.
    if (!m_stopReason.isEmpty())
        return;
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

void Downloader::onDownloadFinished()
{
    if (!m_reply)
        return;
    if (m_file && m_file->isOpen())
        m_file->close();

    QNetworkReply *reply = m_reply;
    m_reply = nullptr;
    reply->deleteLater();

    if (reply->error() == QNetworkReply::NoError) {
        setProgress(100);
        if (requireSignature)
            fetchSignature();
        else
            startInstall();
        return;
    }
    if (m_file)
        m_file->remove();
    // A stop of the updater's own is a failure, never the user's cancel.
    if (reply->error() == QNetworkReply::OperationCanceledError && m_stopReason.isEmpty()) {
        emit done();
        return;
    }
    setHasError(true);
    setPhase(Phase::Failed);
    setStatus(translate("upd_download_error").arg(m_stopReason.isEmpty() ? reply->errorString() : m_stopReason));
    setIsFinished(true);
}

void Downloader::fetchSignature()
{
    m_reply = m_manager->get(packageRequest(m_downloadUrl + QStringLiteral(".minisig")));
    m_reply->setReadBufferSize(maxSignatureBytes + 1);
    connect(m_reply, &QIODevice::readyRead, this, &Downloader::onSignatureReadyRead);
    connect(m_reply, &QNetworkReply::finished, this, &Downloader::onSignatureFinished);
}

void Downloader::onSignatureReadyRead()
{
    if (!m_reply)
        return;
    m_signature += m_reply->readAll();
    // A signature is a few hundred bytes; anything larger is not one, and is
    // not worth the disk or the memory.
    if (m_signature.size() > maxSignatureBytes) {
        m_signatureRefused = true;
        m_reply->abort();
    }
}

void Downloader::onSignatureFinished()
{
    if (!m_reply)
        return;
    QNetworkReply *reply = m_reply;
    m_reply = nullptr;
    reply->deleteLater();

    if (reply->error() == QNetworkReply::OperationCanceledError && !m_signatureRefused) {
        if (m_file)
            m_file->remove();
        emit done();
        return;
    }
    // Any failure to fetch it leaves no signature, which the worker refuses
    // once it has read the package: never a silent skip.
    if (reply->error() != QNetworkReply::NoError || m_signatureRefused)
        m_signature.clear();
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
    if (!m_hasError) {
        setPhase(Phase::Done);
        setStatus(translate("upd_install_done"));
        setProgress(100);
    }
    setIsFinished(true);
}

void Downloader::cancel()
{
    if (m_reply) {
        // The finished handler takes the cancelled path and emits done.
        m_reply->abort();
        return;
    }
    if (m_file) {
        m_file->close();
        m_file->remove();
    }
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
