#pragma once

// An in-process HTTP(S) server for tests: it listens on 127.0.0.1 on a free
// port, records every request and answers each path as scripted (unscripted
// paths answer 404), one request per connection. It runs in the owning
// thread's event loop, so a test must spin the loop (QTRY_*, QSignalSpy::wait)
// while a client talks to it.

#include <QHash>
#include <QList>
#include <QPair>
#include <QTcpServer>
#include <QUrl>

#include <functional>

class QTcpSocket;

using HeaderList = QList<QPair<QByteArray, QByteArray>>;

struct RecordedRequest
{
    QByteArray method;
    QByteArray target; // path and query as sent
    QByteArray path;
    HeaderList headers;
    qint64 bodySent = 0; // bytes of the answer's body written to the connection

    // Every value of the header (name in any case), joined by ", " as HTTP
    // joins repeated fields, so that a duplicate shows; empty when absent.
    QByteArray header(const QByteArray &name) const;
};

struct ScriptedResponse
{
    int status = 200;
    HeaderList headers;
    QByteArray body;
    bool answered = true; // false: the request is read, and the connection stays silent
    bool contentLength = true; // false: the body ends with the connection
    // A network that misbehaves: only this many bytes of the body go out,
    // then the connection drops (cutAfter) or falls silent (stallAfter).
    qint64 cutAfter = -1;
    qint64 stallAfter = -1;

    static ScriptedResponse ok(const QByteArray &body, const QByteArray &contentType = "application/octet-stream")
    {
        return {200, {{"Content-Type", contentType}}, body};
    }
    static ScriptedResponse json(const QByteArray &body) { return ok(body, "application/json"); }
    static ScriptedResponse error(int status) { return {status, {{"Content-Type", "text/plain"}}, "error\n"}; }
    static ScriptedResponse redirect(const QByteArray &to, int status = 302) { return {status, {{"Location", to}}}; }
    static ScriptedResponse neverAnswer() { return {200, {}, {}, false}; }
    // A static file as a file server serves it: Range ("bytes=N-") and
    // If-Range honoured, 416 past the end.
    static ScriptedResponse file(const struct RecordedRequest &request, const QByteArray &body, const QByteArray &etag);
};

using ResponseHandler = std::function<ScriptedResponse(const RecordedRequest &request)>;

class HttpsTestServer : public QTcpServer
{
    Q_OBJECT
public:
    enum class Mode { Https, PlainHttp };

    // The HTTPS certificate names 127.0.0.1 only: a client that asks for
    // "localhost" must refuse it, as it would any certificate it cannot trust.
    explicit HttpsTestServer(Mode mode = Mode::Https, QObject *parent = nullptr);

    bool start();
    QString baseUrl() const; // "https://127.0.0.1:PORT", no trailing slash
    QUrl url(const QByteArray &pathAndQuery) const { return QUrl(baseUrl() + pathAndQuery, QUrl::TolerantMode); }

    void setResponse(const QByteArray &path, const ScriptedResponse &response) { m_script.insert(path, response); }
    // Answers each request to path from what it asked.
    void setHandler(const QByteArray &path, const ResponseHandler &handler) { m_handlers.insert(path, handler); }
    QList<RecordedRequest> requests() const { return m_requests; }
    // Trusts the test certificate in this process's default TLS
    // configuration; the certificate is made with openssl once per process.
    static bool trustTestCa();

protected:
    void incomingConnection(qintptr socketDescriptor) override;

private:
    void answer(QTcpSocket *socket, const QByteArray &request);

    Mode m_mode;
    QHash<QByteArray, ScriptedResponse> m_script;
    QHash<QByteArray, ResponseHandler> m_handlers;
    QList<RecordedRequest> m_requests;
};

Q_DECLARE_METATYPE(ScriptedResponse)
