#pragma once

#include <QByteArray>
#include <QList>
#include <QNetworkReply>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QUrl>

class QFile;
class QNetworkAccessManager;
class QTimer;

// How hard a transfer tries when the network misbehaves. Fixed before it starts.
struct TransferPolicy
{
    qint64 maxBytes = 0; // the most the file may hold; a server that sends more is stopped
    int stallMs = 30000; // no body byte for this long counts as a dropped connection
    // One more attempt after each of these pauses: a minute at most in all,
    // long enough for Wi-Fi to come back after a laptop wakes.
    QList<int> retryDelaysMs{2000, 5000, 10000, 20000};
};

// The release a partial file belongs to. A later run continues it only for
// the very same release; anything else starts afresh.
struct PartialIdentity
{
    QString url;
    QString sha256;
    QString version;
};

// How a transfer ended.
enum class TransferEnd {
    Complete, // the whole file is on disk
    Cancelled, // the user's cancel: the file is gone
    Failed, // refused (an HTTP error, the size limit, TLS): the file is gone; failure() says why
    Interrupted, // the attempts are spent: the part that arrived is kept for the next run; failure() says why
};

// Moves one file over HTTPS, on the GUI thread. A dropped connection or a
// stall is tried again from where the file stands ("Range: bytes=N-", with
// "If-Range" so that a file that changed on the server is sent whole). With
// a record path, what the partial belongs to is kept beside it, so that the
// next run resumes the same release instead of starting from byte zero.
class Transfer : public QObject
{
    Q_OBJECT
public:
    Transfer(QNetworkAccessManager *manager, const QString &url, const QString &filePath, const TransferPolicy &policy,
             QObject *parent = nullptr);
    ~Transfer() override;

    // Opens the file: continues a partial of this very release when the record
    // beside it says so, else starts empty. False when the file cannot be
    // opened for writing. Without a record path nothing is ever resumed.
    bool open(const QString &recordPath = {}, const PartialIdentity &identity = {});
    void start();
    void cancel();

    QString failure() const { return m_failure; }
    // Some bytes of the file came from an earlier attempt or an earlier run.
    bool resumed() const { return m_resumed; }
    qint64 keptAtStart() const { return m_keptAtStart; }

signals:
    // received counts the whole file, kept part included; total is -1 when unknown.
    void progress(qint64 received, qint64 total);
    void finished(TransferEnd end);

private:
    enum class AttemptEnd { Done, Dropped, Refused, Restart };

    void sendAttempt();
    void onMetaData();
    void onReadyRead();
    void onReplyProgress(qint64 received, qint64 total);
    void onReplyFinished();
    void onStall();
    AttemptEnd judgeAttempt(QNetworkReply *reply);
    bool acceptHeaders(QNetworkReply *reply);
    void stop(const QString &reason);
    void startAgainFromZero();
    void finish(TransferEnd end);
    void writeRecord() const;
    void forgetPartial();

    QNetworkAccessManager *m_manager;
    QUrl m_url;
    QString m_filePath;
    TransferPolicy m_policy;
    QString m_recordPath;
    PartialIdentity m_identity;

    QFile *m_file = nullptr;
    // Guarded: the manager deletes its replies when it goes, perhaps first.
    QPointer<QNetworkReply> m_reply;
    QTimer *m_stallTimer = nullptr;
    QTimer *m_retryTimer = nullptr;
    QByteArray m_validator; // ETag, or Last-Modified without one: what If-Range sends
    qint64 m_total = -1;
    qint64 m_attemptBase = 0; // bytes on disk when this attempt's body began
    bool m_headersJudged = false;
    bool m_headersOk = false;
    int m_retriesUsed = 0;
    bool m_restartedFromZero = false;
    bool m_resumed = false;
    qint64 m_keptAtStart = 0;
    bool m_cancelled = false;
    bool m_stalled = false;
    bool m_restart = false;
    bool m_ended = false;
    QString m_stopReason;
    QString m_failure;
};
