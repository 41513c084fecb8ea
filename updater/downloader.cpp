#include "downloader.h"

Downloader::Downloader(const QString &version, const QString &url, const QString &sha256, bool, QObject *parent)
    : QObject(parent)
    , m_downloadUrl(url)
    , m_version(version)
    , m_expectedSha256(sha256.trimmed().toLower())
{
}
Downloader::~Downloader() = default;
void Downloader::postState(const QString &, int, bool) {}
void Downloader::cancel() { emit done(); }
void Downloader::openInstallDir() {}
void Downloader::openInstalledApp() {}
void Downloader::close() { emit done(); }
void Downloader::onReadyRead() {}
void Downloader::onDownloadProgress(qint64, qint64) {}
void Downloader::onDownloadFinished() {}
void Downloader::applyState(const QString &, int, bool) {}
void Downloader::setProgress(int) {}
void Downloader::setStatus(const QString &) {}
void Downloader::setIsFinished(bool) {}
void Downloader::setHasError(bool) {}
void Downloader::setPhase(int) {}
void Downloader::fail(const QString &) {}
