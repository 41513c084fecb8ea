#include "downloader.h"

#include "handover.h"
#include "installlocation.h"
#include "localisation.h"
#include "phase.h"
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

Downloader::Downloader(const QString &version, const QString &url, const QString &sha256, bool packageFlag,
                       QObject *parent)
    : QObject(parent)
    , m_downloadUrl(url)
    , m_version(version)
    , m_expectedSha256(sha256.trimmed().toLower())
{
    // The flag belongs to the other platform's installer package; this
    // updater always fetches the zip.
    Q_UNUSED(packageFlag);
    m_manager = new QNetworkAccessManager(this);

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

    QNetworkRequest request{QUrl(m_downloadUrl)};
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setHeader(QNetworkRequest::UserAgentHeader, QStringLiteral("Mozilla/5.0 VelmoraUpdater/1.0"));
    request.setTransferTimeout(transferTimeoutMs);

    m_throttle.start();
    m_reply = m_manager->get(request);
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
    if (m_reply && m_file && m_file->isOpen())
        m_file->write(m_reply->readAll());
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

void Downloader::onDownloadFinished()
{
    if (!m_reply)
        return;
    if (m_file && m_file->isOpen())
        m_file->close();

    QNetworkReply *reply = m_reply;
    m_reply = nullptr;
    reply->deleteLater();

    switch (reply->error()) {
    case QNetworkReply::NoError:
        setProgress(100);
        startInstall();
        return;
    case QNetworkReply::OperationCanceledError:
        if (m_file)
            m_file->remove();
        emit done();
        return;
    default:
        setHasError(true);
        setPhase(Phase::Failed);
        setStatus(translate("upd_download_error").arg(reply->errorString()));
        if (m_file)
            m_file->remove();
        setIsFinished(true);
        return;
    }
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
    return inputs;
}

InstallReport Downloader::reporter()
{
    return [this](const QString &message, int phase, bool error) { postState(message, phase, error); };
}

void Downloader::endJob(JobEnd end)
{
    if (end == JobEnd::QuitForSwap)
        QMetaObject::invokeMethod(this, [this] { emit done(); }, Qt::QueuedConnection);
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
