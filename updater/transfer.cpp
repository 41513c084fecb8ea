#include "transfer.h"

#include "localisation.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QRegularExpression>
#include <QSaveFile>
#include <QTimer>

static constexpr int transferTimeoutMs = 120000;
static constexpr qint64 readBufferBytes = 1024 * 1024;
static constexpr double bytesPerMegabyte = 1048576.0;

// Every file of an update travels under the same rules: never from HTTPS to
// HTTP, no key of the release service, a bound on silence.
static QNetworkRequest packageRequest(const QUrl &url)
{
    QNetworkRequest request{url};
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setHeader(QNetworkRequest::UserAgentHeader, QStringLiteral("Mozilla/5.0 VelmoraUpdater/1.0"));
    request.setTransferTimeout(transferTimeoutMs);
    // Over HTTP/2, Qt's network thread keeps reading whatever the server
    // sends, whatever the read buffer bound says: memory would grow with the
    // package. HTTP/1.1 honours the bound, and every server speaks it.
    request.setAttribute(QNetworkRequest::Http2AllowedAttribute, false);
    // A compressed answer would make the announced length and every byte
    // count (and so every range) mean something else than the file.
    request.setRawHeader("Accept-Encoding", "identity");
    return request;
}

struct ContentRange
{
    bool valid = false;
    qint64 first = 0;
    qint64 total = -1; // "*": the server does not say
};

// "bytes FIRST-LAST/TOTAL" or "bytes FIRST-LAST/*", nothing else.
static ContentRange parseContentRange(const QByteArray &value)
{
    static const QRegularExpression form(QStringLiteral("^bytes (\\d{1,18})-(\\d{1,18})/(\\d{1,18}|\\*)$"));
    const QRegularExpressionMatch match = form.match(QString::fromLatin1(value.trimmed()));
    if (!match.hasMatch())
        return {};
    ContentRange range{true, match.captured(1).toLongLong(), -1};
    const qint64 last = match.captured(2).toLongLong();
    if (match.captured(3) != QLatin1String("*"))
        range.total = match.captured(3).toLongLong();
    if (last < range.first || (range.total >= 0 && last >= range.total))
        return {};
    return range;
}

static bool isDroppedConnection(QNetworkReply::NetworkError error)
{
    switch (error) {
    case QNetworkReply::RemoteHostClosedError:
    case QNetworkReply::TimeoutError:
    case QNetworkReply::TemporaryNetworkFailureError:
    case QNetworkReply::NetworkSessionFailedError:
    case QNetworkReply::UnknownNetworkError:
    case QNetworkReply::HostNotFoundError:
    case QNetworkReply::ConnectionRefusedError:
    case QNetworkReply::ProxyConnectionClosedError:
    case QNetworkReply::ProxyTimeoutError:
    case QNetworkReply::ServiceUnavailableError:
    // Qt's own transfer time-out; the user's cancel is told apart before this.
    case QNetworkReply::OperationCanceledError:
        return true;
    default:
        return false;
    }
}

Transfer::Transfer(QNetworkAccessManager *manager, const QString &url, const QString &filePath,
                   const TransferPolicy &policy, QObject *parent)
    : QObject(parent)
    , m_manager(manager)
    , m_url(url)
    , m_filePath(filePath)
    , m_policy(policy)
    , m_stallTimer(new QTimer(this))
    , m_retryTimer(new QTimer(this))
{
    m_stallTimer->setSingleShot(true);
    m_retryTimer->setSingleShot(true);
    connect(m_stallTimer, &QTimer::timeout, this, &Transfer::onStall);
    connect(m_retryTimer, &QTimer::timeout, this, &Transfer::sendAttempt);
}

Transfer::~Transfer()
{
    if (m_reply) {
        // No handler may run on a half-destroyed object while the abort
        // unwinds. What arrived stays on disk with its record: an automatic
        // run that reaches its time limit continues next time.
        disconnect(m_reply, nullptr, this, nullptr);
        m_reply->abort();
    }
    if (m_file)
        m_file->close();
}

bool Transfer::open(const QString &recordPath, const PartialIdentity &identity)
{
    m_recordPath = recordPath;
    m_identity = identity;
    m_file = new QFile(m_filePath, this);

    qint64 kept = 0;
    if (!m_recordPath.isEmpty()) {
        QFile recordFile(m_recordPath);
        const QJsonObject record = recordFile.open(QIODevice::ReadOnly)
            ? QJsonDocument::fromJson(recordFile.read(64 * 1024)).object()
            : QJsonObject();
        const qint64 size = QFileInfo(m_filePath).size();
        const qint64 total = record.value(QStringLiteral("total")).toInteger(-1);
        const bool sameRelease = !m_identity.url.isEmpty()
            && record.value(QStringLiteral("url")).toString() == m_identity.url
            && record.value(QStringLiteral("sha256")).toString() == m_identity.sha256
            && record.value(QStringLiteral("version")).toString() == m_identity.version;
        if (sameRelease && size > 0 && (total < 0 || size < total) && size <= m_policy.maxBytes) {
            kept = size;
            m_total = total;
            m_validator = record.value(QStringLiteral("validator")).toString().toLatin1();
        }
    }
    if (kept > 0) {
        if (!m_file->open(QIODevice::ReadWrite) || !m_file->seek(kept))
            return false;
        m_keptAtStart = kept;
        return true;
    }
    // Whatever was there belongs to another release, or to nothing we know:
    // at most one partial is ever kept.
    if (!m_recordPath.isEmpty())
        QFile::remove(m_recordPath);
    return m_file->open(QIODevice::ReadWrite | QIODevice::Truncate);
}

void Transfer::start()
{
    sendAttempt();
}

void Transfer::sendAttempt()
{
    m_attemptBase = m_file->pos();
    QNetworkRequest request = packageRequest(m_url);
    if (m_attemptBase > 0) {
        request.setRawHeader("Range", "bytes=" + QByteArray::number(m_attemptBase) + '-');
        // Without it, a file replaced on the server would be spliced onto
        // the old one's beginning; with it, the server sends the new file whole.
        if (!m_validator.isEmpty())
            request.setRawHeader("If-Range", m_validator);
    }
    m_headersJudged = m_headersOk = m_stalled = m_restart = false;
    m_reply = m_manager->get(request);
    // Without a bound, the network thread reads ahead of the GUI thread and
    // hands over hundreds of megabytes at once: memory then grows with the
    // package and the window stalls while one huge block is written.
    m_reply->setReadBufferSize(readBufferBytes);
    connect(m_reply, &QNetworkReply::metaDataChanged, this, &Transfer::onMetaData);
    connect(m_reply, &QIODevice::readyRead, this, &Transfer::onReadyRead);
    connect(m_reply, &QNetworkReply::downloadProgress, this, &Transfer::onReplyProgress);
    connect(m_reply, &QNetworkReply::finished, this, &Transfer::onReplyFinished);
    m_stallTimer->start(m_policy.stallMs);
}

void Transfer::onMetaData()
{
    if (!m_reply || m_headersJudged)
        return;
    m_headersJudged = true;
    m_headersOk = acceptHeaders(m_reply);
    // The rest of a wrong range is not worth fetching; the abort waits until
    // Qt has finished announcing these headers.
    if (m_restart)
        QMetaObject::invokeMethod(m_reply, &QNetworkReply::abort, Qt::QueuedConnection);
}

// Decides, once per attempt, whether the body that follows belongs in the
// file and where.
bool Transfer::acceptHeaders(QNetworkReply *reply)
{
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (status == 206) {
        const ContentRange range = parseContentRange(reply->rawHeader("Content-Range"));
        // A range other than the one asked for, or of a file of another
        // length, cannot continue what is on disk.
        if (!range.valid || range.first != m_attemptBase
            || (m_total >= 0 && range.total >= 0 && range.total != m_total)) {
            m_restart = true;
            return false;
        }
        if (range.total >= 0)
            m_total = range.total;
        m_resumed = m_resumed || m_attemptBase > 0;
    } else if (status == 200) {
        // The whole file: it changed on the server, or the server ignores
        // ranges. Either way what is on disk is worth nothing now.
        if (m_attemptBase > 0) {
            m_file->resize(0);
            m_file->seek(0);
            m_attemptBase = 0;
        }
        const QByteArray etag = reply->rawHeader("ETag");
        // If-Range takes only a strong validator; a weak one would always
        // send the whole file again.
        m_validator = !etag.isEmpty() && !etag.startsWith("W/") ? etag : reply->rawHeader("Last-Modified");
        const QVariant length = reply->header(QNetworkRequest::ContentLengthHeader);
        m_total = length.isValid() ? length.toLongLong() : -1;
        writeRecord();
    } else {
        return false;
    }
    if (m_total > m_policy.maxBytes) {
        stop(translate("upd_package_too_large").arg(m_policy.maxBytes / qint64(bytesPerMegabyte)));
        return false;
    }
    return true;
}

void Transfer::onReadyRead()
{
    if (!m_reply)
        return;
    onMetaData();
    const QByteArray data = m_reply->readAll();
    if (!m_headersOk || !m_stopReason.isEmpty())
        return;
    m_stallTimer->start(m_policy.stallMs);
    // A server that sends without end must not fill the disk: the file stops
    // at the length announced for it or at the size limit, whichever is smaller.
    const qint64 after = m_file->pos() + data.size();
    if (after > m_policy.maxBytes) {
        stop(translate("upd_package_too_large").arg(m_policy.maxBytes / qint64(bytesPerMegabyte)));
        return;
    }
    if (m_total >= 0 && after > m_total) {
        stop(translate("upd_package_longer_than_announced").arg(formatDecimal(m_total / bytesPerMegabyte, 1)));
        return;
    }
    if (m_file->write(data) != data.size())
        stop(m_file->errorString());
}

void Transfer::onReplyProgress(qint64 received, qint64 total)
{
    // Once the updater has stopped the download, Qt's closing report would
    // show a full bar beside the error.
    if (!m_stopReason.isEmpty() || m_restart)
        return;
    const qint64 whole = m_total >= 0 ? m_total : (total > 0 ? m_attemptBase + total : -1);
    emit progress(m_attemptBase + received, whole);
}

void Transfer::onStall()
{
    if (!m_reply)
        return;
    m_stalled = true;
    m_reply->abort();
}

void Transfer::stop(const QString &reason)
{
    m_stopReason = reason;
    if (m_reply)
        m_reply->abort();
}

Transfer::AttemptEnd Transfer::judgeAttempt(QNetworkReply *reply)
{
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (m_restart || status == 416)
        return AttemptEnd::Restart;
    if (m_stalled)
        return AttemptEnd::Dropped;
    if (reply->error() == QNetworkReply::NoError) {
        if (!m_headersOk)
            return AttemptEnd::Refused;
        // Closed before the announced end, without Qt calling it an error.
        return m_total >= 0 && m_file->pos() < m_total ? AttemptEnd::Dropped : AttemptEnd::Done;
    }
    return isDroppedConnection(reply->error()) ? AttemptEnd::Dropped : AttemptEnd::Refused;
}

void Transfer::onReplyFinished()
{
    QNetworkReply *reply = m_reply;
    if (!reply)
        return;
    m_stallTimer->stop();
    // An answer without a body never announced its headers to readyRead.
    onMetaData();
    if (m_headersOk && m_stopReason.isEmpty() && reply->bytesAvailable() > 0)
        onReadyRead();
    m_reply = nullptr;
    reply->deleteLater();

    if (m_cancelled) {
        forgetPartial();
        finish(TransferEnd::Cancelled);
        return;
    }
    if (!m_stopReason.isEmpty()) {
        m_failure = m_stopReason;
        forgetPartial();
        finish(TransferEnd::Failed);
        return;
    }
    switch (judgeAttempt(reply)) {
    case AttemptEnd::Done:
        m_file->close();
        if (!m_recordPath.isEmpty())
            QFile::remove(m_recordPath);
        finish(TransferEnd::Complete);
        return;
    case AttemptEnd::Restart:
        // A server that answers ranges wrongly gets one chance to send the
        // file whole; a second mistake is its failure.
        if (!m_restartedFromZero) {
            startAgainFromZero();
            return;
        }
        m_failure = reply->errorString();
        break;
    case AttemptEnd::Dropped:
        if (m_retriesUsed < m_policy.retryDelaysMs.size()) {
            m_retryTimer->start(m_policy.retryDelaysMs.at(m_retriesUsed++));
            return;
        }
        m_failure
            = m_stalled ? translate("upd_download_stalled").arg((m_policy.stallMs + 999) / 1000) : reply->errorString();
        m_file->close();
        finish(TransferEnd::Interrupted);
        return;
    case AttemptEnd::Refused:
        m_failure = reply->errorString();
        break;
    }
    forgetPartial();
    finish(TransferEnd::Failed);
}

void Transfer::startAgainFromZero()
{
    m_restartedFromZero = true;
    m_file->resize(0);
    m_file->seek(0);
    m_validator.clear();
    m_total = -1;
    if (!m_recordPath.isEmpty())
        QFile::remove(m_recordPath);
    sendAttempt();
}

void Transfer::cancel()
{
    if (m_ended)
        return;
    m_cancelled = true;
    if (m_reply) {
        // The finished handler takes the cancelled path.
        m_reply->abort();
        return;
    }
    m_retryTimer->stop();
    forgetPartial();
    finish(TransferEnd::Cancelled);
}

void Transfer::finish(TransferEnd end)
{
    m_ended = true;
    emit finished(end);
}

void Transfer::writeRecord() const
{
    if (m_recordPath.isEmpty())
        return;
    const QJsonObject record{
        {QStringLiteral("url"), m_identity.url},
        {QStringLiteral("sha256"), m_identity.sha256},
        {QStringLiteral("version"), m_identity.version},
        {QStringLiteral("validator"), QString::fromLatin1(m_validator)},
        {QStringLiteral("total"), m_total},
    };
    QSaveFile file(m_recordPath);
    if (file.open(QIODevice::WriteOnly))
        file.write(QJsonDocument(record).toJson(QJsonDocument::Compact));
    file.commit();
}

void Transfer::forgetPartial()
{
    m_file->close();
    m_file->remove();
    if (!m_recordPath.isEmpty())
        QFile::remove(m_recordPath);
}
