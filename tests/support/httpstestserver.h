#pragma once

// An in-process HTTP(S) server for tests: it listens on 127.0.0.1 on a free
// port, records every request and answers each path as scripted (unscripted
// paths answer 404). One request per connection, each answer ends with a
// close. It runs in the owning thread's event loop, so a test must spin the
// loop (QTRY_*, QSignalSpy::wait) while a client talks to it.

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QPair>
#include <QPointer>
#include <QTcpServer>
#include <QUrl>

class QTcpSocket;

using HeaderList = QList<QPair<QByteArray, QByteArray>>;

struct RecordedRequest
{
    QByteArray method;
    QByteArray target; // path and query as sent
    QByteArray path;
    HeaderList headers;

    // Every value of the header (name in any case), joined by ", " as HTTP
    // joins repeated fields, so that a duplicate shows; empty when absent.
    QByteArray header(const QByteArray &name) const;
};

struct ScriptedResponse
{
    enum class Delivery {
        Complete,
        StallMidBody, // stallAfter body bytes, then silence with the connection open
        NeverAnswer,
    };

    int status = 200;
    HeaderList headers;
    QByteArray body;
    bool contentLength = true; // false: the close ends the body
    Delivery delivery = Delivery::Complete;
    qint64 stallAfter = 0;
    qint64 chunkSize = 0;      // 0: the body in one write
    int chunkDelayMs = 0;      // pause between chunks, for a slow download

    static ScriptedResponse ok(const QByteArray &body, const QByteArray &contentType = "application/octet-stream");
    static ScriptedResponse json(const QByteArray &body);
    static ScriptedResponse error(int status);
    static ScriptedResponse redirect(const QByteArray &location, int status = 302);
    static ScriptedResponse neverAnswer();
};

class HttpsTestServer : public QTcpServer
{
    Q_OBJECT
public:
    enum class Mode { Https, PlainHttp };
    Q_ENUM(Mode)

    // The HTTPS certificate names 127.0.0.1 only: a client that asks for
    // "localhost" must refuse it, as it would any certificate it cannot trust.
    explicit HttpsTestServer(Mode mode = Mode::Https, QObject *parent = nullptr);
    ~HttpsTestServer() override;

    bool start();
    QString baseUrl() const; // "https://127.0.0.1:PORT", no trailing slash
    QUrl url(const QByteArray &pathAndQuery) const;

    void setResponse(const QByteArray &path, const ScriptedResponse &response) { m_script.insert(path, response); }
    QList<RecordedRequest> requests() const { return m_requests; }
    // Accepted connections, whether or not a request came through them.
    int connectionCount() const { return m_connectionCount; }

    // Stops listening and cuts every open connection under the TLS layer,
    // as a failing network would. The destructor does the same.
    void stop();

    // Trusts the test certificate in this process's default TLS
    // configuration; the certificate is made with openssl once per process.
    static bool trustTestCa();
    // The same size always gives the same bytes.
    static QByteArray patternBody(qint64 size);

signals:
    void requestReceived();

protected:
    void incomingConnection(qintptr socketDescriptor) override;

private:
    void answer(QTcpSocket *socket, const QByteArray &request);
    void writeBody(QPointer<QTcpSocket> socket, const ScriptedResponse &response, qint64 from, qint64 end);

    Mode m_mode;
    QHash<QByteArray, ScriptedResponse> m_script;
    QList<RecordedRequest> m_requests;
    QList<QPointer<QTcpSocket>> m_sockets;
    int m_connectionCount = 0;
};

Q_DECLARE_METATYPE(ScriptedResponse)
