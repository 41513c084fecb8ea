#pragma once

// A small in-process HTTP(S) server for tests: it listens on 127.0.0.1 on a
// free port, records every request and answers each path from a script.
//
// Typical use:
//
//     HttpsTestServer::trustTestCa();              // once, e.g. in initTestCase
//     HttpsTestServer server;                      // HTTPS, certificate for 127.0.0.1
//     QVERIFY2(server.start(), qPrintable(server.errorString()));
//     server.setResponse("/pkg.zip", ScriptedResponse::ok(bytes, "application/zip"));
//     ... request server.url("/pkg.zip") ...
//     QCOMPARE(server.requests().size(), 1);
//     QCOMPARE(server.requests().first().header("User-Agent"), ...);
//
// Every answer carries "Connection: close" and the server closes the
// connection once it has been sent: one request per connection.
// Unscripted paths answer 404. Everything runs on the thread that owns the
// server, in its event loop, so the test must spin the loop (QTRY_*, QSignalSpy::wait).

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QPair>
#include <QSet>
#include <QSslCertificate>
#include <QSslKey>
#include <QString>
#include <QTcpServer>
#include <QUrl>

class QTcpSocket;

using HeaderList = QList<QPair<QByteArray, QByteArray>>;

struct RecordedRequest
{
    QByteArray requestLine;   // "GET /a?b=c HTTP/1.1", without the line end
    QByteArray method;        // "GET"
    QByteArray target;        // path and query exactly as sent: "/a?b=c"
    QByteArray path;          // target up to the first "?"
    HeaderList headers;       // in order, names and values as sent (values trimmed)
    QByteArray body;          // read when the request announced a Content-Length

    // The first header with this name (case-insensitive); empty if absent.
    QByteArray header(const QByteArray &name) const;
    int headerCount(const QByteArray &name) const;
};

struct ScriptedResponse
{
    enum class Delivery {
        Complete,      // the whole body, then a clean close
        DropMidBody,   // headers, cutAfter body bytes, then the connection is aborted
        StallMidBody,  // headers, cutAfter body bytes, then nothing more (connection kept open)
        NeverAnswer,   // the request is read and recorded, nothing is ever sent
    };

    int status = 200;
    HeaderList headers;              // extra headers, sent as given
    QByteArray body;
    // With Content-Length (added unless headers already name one) or, when
    // false, close-delimited: no length, the end of the body is the close.
    bool contentLength = true;
    Delivery delivery = Delivery::Complete;
    qint64 cutAfter = 0;             // body bytes sent before a drop or stall
    qint64 chunkSize = 64 * 1024;    // the body is written in chunks as the socket drains
    int chunkDelayMs = 0;            // pause between chunks, to make a slow download

    static ScriptedResponse ok(const QByteArray &body,
                               const QByteArray &contentType = "application/octet-stream");
    static ScriptedResponse json(const QByteArray &body);
    static ScriptedResponse error(int status, const QByteArray &body = {});
    // 301, 302, 303, 307 or 308 with a Location header.
    static ScriptedResponse redirect(const QByteArray &location, int status = 302);
    static ScriptedResponse neverAnswer();
    // Announces body.size() in Content-Length, sends cutAfter bytes, aborts.
    static ScriptedResponse dropMidBody(const QByteArray &body, qint64 cutAfter);
};

class HttpsTestServer : public QTcpServer
{
    Q_OBJECT
public:
    enum class Mode {
        Https,              // certificate for 127.0.0.1 and localhost, issued by the test CA
        PlainHttp,          // no TLS at all
        HttpsUntrusted,     // self-signed certificate that the test CA did not issue
    };
    Q_ENUM(Mode)

    explicit HttpsTestServer(Mode mode = Mode::Https, QObject *parent = nullptr);
    ~HttpsTestServer() override;

    // Listens on 127.0.0.1 on a free port. False (see errorString) when the
    // certificates could not be made or the socket could not be bound.
    bool start();
    QString errorString() const;

    Mode mode() const { return m_mode; }
    quint16 port() const { return serverPort(); }
    // "https://127.0.0.1:PORT" or "http://127.0.0.1:PORT", no trailing slash.
    QString baseUrl() const;
    // baseUrl() + pathAndQuery, parsed in tolerant mode.
    QUrl url(const QByteArray &pathAndQuery) const;

    // A script is looked up first by the whole target (path and query), then
    // by the path alone. Setting the same key again replaces the answer.
    void setResponse(const QByteArray &pathOrTarget, const ScriptedResponse &response);
    void clearResponses();

    QList<RecordedRequest> requests() const { return m_requests; }
    void clearRequests() { m_requests.clear(); }
    int openConnectionCount() const { return m_connections.size(); }

    // Closes the listening socket and cuts every open connection (the
    // clients see the peer go away). The destructor does the same.
    void stop();

    // Adds the test CA to the process's default TLS configuration, so that
    // every QNetworkAccessManager of this process trusts Mode::Https servers.
    // Certificates are made with the openssl tool once per process.
    static bool trustTestCa();
    static QSslCertificate testCaCertificate();
    // Path of the CA in PEM form, for child processes such as curl.
    static QString testCaFile();

    // Deterministic bytes for large bodies: the same size always gives the same bytes.
    static QByteArray patternBody(qint64 size);

signals:
    void requestReceived(const RecordedRequest &request);
    void connectionClosed();

protected:
    void incomingConnection(qintptr socketDescriptor) override;

private:
    struct Connection;
    void readRequest(Connection *connection);
    void startResponse(Connection *connection, const ScriptedResponse &response);
    void writeMore(Connection *connection);
    void finishWhenFlushed(Connection *connection, bool abortConnection);
    void dropConnection(Connection *connection);
    static qint64 pendingBytes(QTcpSocket *socket);

    Mode m_mode;
    QString m_error;
    QList<QPair<QByteArray, ScriptedResponse>> m_script;
    QList<RecordedRequest> m_requests;
    QSet<Connection *> m_connections;
};

Q_DECLARE_METATYPE(RecordedRequest)
Q_DECLARE_METATYPE(ScriptedResponse)
