#include "httpstestserver.h"

#include <QFile>
#include <QPointer>
#include <QProcess>
#include <QSslConfiguration>
#include <QSslSocket>
#include <QTemporaryDir>
#include <QTimer>

#include <sys/socket.h>

namespace {

struct TestCertificates
{
    bool valid = false;
    QString error;
    QString caFile;
    QSslCertificate ca;
    QSslCertificate server;
    QSslKey serverKey;
    QSslCertificate untrusted;
    QSslKey untrustedKey;
};

bool runOpenssl(const QString &dir, const QStringList &arguments, QString *error)
{
    QProcess process;
    process.setWorkingDirectory(dir);
    process.start(QStringLiteral("openssl"), arguments);
    if (!process.waitForFinished(30000) || process.exitStatus() != QProcess::NormalExit
        || process.exitCode() != 0) {
        *error = QStringLiteral("openssl %1 failed: %2 %3")
                     .arg(arguments.join(QLatin1Char(' ')), process.errorString(),
                          QString::fromLocal8Bit(process.readAllStandardError()));
        return false;
    }
    return true;
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Short-lived EC certificates: quick to make, and nothing outlives the process.
TestCertificates makeCertificates()
{
    TestCertificates certs;
    static QTemporaryDir dir;
    if (!dir.isValid()) {
        certs.error = QStringLiteral("no temporary folder for the test certificates");
        return certs;
    }
    const QString d = dir.path();
    const QStringList ecKey = {QStringLiteral("-newkey"), QStringLiteral("ec"),
                               QStringLiteral("-pkeyopt"), QStringLiteral("ec_paramgen_curve:prime256v1"),
                               QStringLiteral("-nodes")};
    {
        QFile ext(d + QStringLiteral("/server.ext"));
        if (!ext.open(QIODevice::WriteOnly)) {
            certs.error = QStringLiteral("cannot write %1").arg(ext.fileName());
            return certs;
        }
        ext.write("subjectAltName=IP:127.0.0.1,DNS:localhost\n"
                  "basicConstraints=critical,CA:FALSE\n"
                  "keyUsage=critical,digitalSignature\n"
                  "extendedKeyUsage=serverAuth\n");
    }
    const bool made =
        runOpenssl(d, QStringList{QStringLiteral("req"), QStringLiteral("-x509")} + ecKey
                          + QStringList{QStringLiteral("-keyout"), QStringLiteral("ca.key"),
                                        QStringLiteral("-out"), QStringLiteral("ca.pem"),
                                        QStringLiteral("-days"), QStringLiteral("2"),
                                        QStringLiteral("-subj"), QStringLiteral("/CN=Velmora Test CA"),
                                        QStringLiteral("-addext"), QStringLiteral("basicConstraints=critical,CA:TRUE"),
                                        QStringLiteral("-addext"), QStringLiteral("keyUsage=critical,keyCertSign,cRLSign")},
                   &certs.error)
        && runOpenssl(d, QStringList{QStringLiteral("req")} + ecKey
                             + QStringList{QStringLiteral("-keyout"), QStringLiteral("server.key"),
                                           QStringLiteral("-out"), QStringLiteral("server.csr"),
                                           QStringLiteral("-subj"), QStringLiteral("/CN=127.0.0.1")},
                      &certs.error)
        && runOpenssl(d, {QStringLiteral("x509"), QStringLiteral("-req"), QStringLiteral("-in"), QStringLiteral("server.csr"),
                          QStringLiteral("-CA"), QStringLiteral("ca.pem"), QStringLiteral("-CAkey"), QStringLiteral("ca.key"),
                          QStringLiteral("-set_serial"), QStringLiteral("2"), QStringLiteral("-days"), QStringLiteral("2"),
                          QStringLiteral("-extfile"), QStringLiteral("server.ext"),
                          QStringLiteral("-out"), QStringLiteral("server.pem")},
                      &certs.error)
        && runOpenssl(d, QStringList{QStringLiteral("req"), QStringLiteral("-x509")} + ecKey
                             + QStringList{QStringLiteral("-keyout"), QStringLiteral("untrusted.key"),
                                           QStringLiteral("-out"), QStringLiteral("untrusted.pem"),
                                           QStringLiteral("-days"), QStringLiteral("2"),
                                           QStringLiteral("-subj"), QStringLiteral("/CN=127.0.0.1"),
                                           QStringLiteral("-addext"), QStringLiteral("subjectAltName=IP:127.0.0.1,DNS:localhost")},
                      &certs.error);
    if (!made)
        return certs;

    certs.caFile = d + QStringLiteral("/ca.pem");
    certs.ca = QSslCertificate(readFile(certs.caFile), QSsl::Pem);
    certs.server = QSslCertificate(readFile(d + QStringLiteral("/server.pem")), QSsl::Pem);
    certs.serverKey = QSslKey(readFile(d + QStringLiteral("/server.key")), QSsl::Ec, QSsl::Pem);
    certs.untrusted = QSslCertificate(readFile(d + QStringLiteral("/untrusted.pem")), QSsl::Pem);
    certs.untrustedKey = QSslKey(readFile(d + QStringLiteral("/untrusted.key")), QSsl::Ec, QSsl::Pem);
    certs.valid = !certs.ca.isNull() && !certs.server.isNull() && !certs.serverKey.isNull()
        && !certs.untrusted.isNull() && !certs.untrustedKey.isNull();
    if (!certs.valid)
        certs.error = QStringLiteral("the generated test certificates could not be loaded");
    return certs;
}

const TestCertificates &certificates()
{
    static const TestCertificates certs = makeCertificates();
    return certs;
}

QByteArray reasonPhrase(int status)
{
    switch (status) {
    case 200: return "OK";
    case 204: return "No Content";
    case 206: return "Partial Content";
    case 301: return "Moved Permanently";
    case 302: return "Found";
    case 303: return "See Other";
    case 307: return "Temporary Redirect";
    case 308: return "Permanent Redirect";
    case 400: return "Bad Request";
    case 401: return "Unauthorized";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    case 500: return "Internal Server Error";
    case 503: return "Service Unavailable";
    default: return "Status";
    }
}

bool hasHeader(const HeaderList &headers, const QByteArray &name)
{
    for (const auto &h : headers) {
        if (h.first.compare(name, Qt::CaseInsensitive) == 0)
            return true;
    }
    return false;
}

} // namespace

QByteArray RecordedRequest::header(const QByteArray &name) const
{
    for (const auto &h : headers) {
        if (h.first.compare(name, Qt::CaseInsensitive) == 0)
            return h.second;
    }
    return {};
}

int RecordedRequest::headerCount(const QByteArray &name) const
{
    int count = 0;
    for (const auto &h : headers) {
        if (h.first.compare(name, Qt::CaseInsensitive) == 0)
            ++count;
    }
    return count;
}

ScriptedResponse ScriptedResponse::ok(const QByteArray &body, const QByteArray &contentType)
{
    ScriptedResponse r;
    r.headers.append({"Content-Type", contentType});
    r.body = body;
    return r;
}

ScriptedResponse ScriptedResponse::json(const QByteArray &body)
{
    return ok(body, "application/json; charset=utf-8");
}

ScriptedResponse ScriptedResponse::error(int status, const QByteArray &body)
{
    ScriptedResponse r = ok(body, "text/plain");
    r.status = status;
    return r;
}

ScriptedResponse ScriptedResponse::redirect(const QByteArray &location, int status)
{
    ScriptedResponse r;
    r.status = status;
    r.headers.append({"Location", location});
    return r;
}

ScriptedResponse ScriptedResponse::neverAnswer()
{
    ScriptedResponse r;
    r.delivery = Delivery::NeverAnswer;
    return r;
}

ScriptedResponse ScriptedResponse::dropMidBody(const QByteArray &body, qint64 cutAfter)
{
    ScriptedResponse r = ok(body);
    r.delivery = Delivery::DropMidBody;
    r.cutAfter = cutAfter;
    return r;
}

struct HttpsTestServer::Connection
{
    QPointer<QTcpSocket> socket;
    QByteArray buffer;
    bool requestDone = false;
    ScriptedResponse response;
    QByteArray pendingHeader;
    qint64 sent = 0;
    qint64 limit = 0;
    bool writing = false;
    bool waitingForDelay = false;
    bool closing = false;
};

HttpsTestServer::HttpsTestServer(Mode mode, QObject *parent)
    : QTcpServer(parent)
    , m_mode(mode)
{
    qRegisterMetaType<RecordedRequest>();
}

HttpsTestServer::~HttpsTestServer()
{
    stop();
}

bool HttpsTestServer::start()
{
    if (m_mode != Mode::PlainHttp && !certificates().valid) {
        m_error = certificates().error;
        return false;
    }
    if (!listen(QHostAddress::LocalHost, 0)) {
        m_error = QTcpServer::errorString();
        return false;
    }
    return true;
}

QString HttpsTestServer::errorString() const
{
    return m_error.isEmpty() ? QTcpServer::errorString() : m_error;
}

QString HttpsTestServer::baseUrl() const
{
    const QString scheme = m_mode == Mode::PlainHttp ? QStringLiteral("http") : QStringLiteral("https");
    return QStringLiteral("%1://127.0.0.1:%2").arg(scheme).arg(serverPort());
}

QUrl HttpsTestServer::url(const QByteArray &pathAndQuery) const
{
    return QUrl(baseUrl() + QString::fromLatin1(pathAndQuery), QUrl::TolerantMode);
}

void HttpsTestServer::setResponse(const QByteArray &pathOrTarget, const ScriptedResponse &response)
{
    for (auto &entry : m_script) {
        if (entry.first == pathOrTarget) {
            entry.second = response;
            return;
        }
    }
    m_script.append({pathOrTarget, response});
}

void HttpsTestServer::clearResponses()
{
    m_script.clear();
}

void HttpsTestServer::stop()
{
    close();
    const auto connections = m_connections;
    m_connections.clear();
    for (Connection *c : connections) {
        if (c->socket) {
            c->socket->disconnect(this);
            ::shutdown(int(c->socket->socketDescriptor()), SHUT_RDWR);
            c->socket->deleteLater();
        }
        delete c;
    }
}

bool HttpsTestServer::trustTestCa()
{
    const TestCertificates &certs = certificates();
    if (!certs.valid) {
        qWarning("HttpsTestServer: %s", qPrintable(certs.error));
        return false;
    }
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    if (!configuration.caCertificates().contains(certs.ca)) {
        configuration.addCaCertificate(certs.ca);
        QSslConfiguration::setDefaultConfiguration(configuration);
    }
    return true;
}

QSslCertificate HttpsTestServer::testCaCertificate()
{
    return certificates().ca;
}

QString HttpsTestServer::testCaFile()
{
    return certificates().caFile;
}

QByteArray HttpsTestServer::patternBody(qint64 size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    quint32 state = 0x9e3779b9u;
    for (qint64 i = 0; i < size; ++i) {
        state = state * 1664525u + 1013904223u;
        bytes[i] = char(state >> 24);
    }
    return bytes;
}

void HttpsTestServer::incomingConnection(qintptr socketDescriptor)
{
    QTcpSocket *socket = nullptr;
    if (m_mode == Mode::PlainHttp) {
        socket = new QTcpSocket(this);
        if (!socket->setSocketDescriptor(socketDescriptor)) {
            delete socket;
            return;
        }
    } else {
        auto *ssl = new QSslSocket(this);
        if (!ssl->setSocketDescriptor(socketDescriptor)) {
            delete ssl;
            return;
        }
        const TestCertificates &certs = certificates();
        const bool trusted = m_mode == Mode::Https;
        ssl->setLocalCertificate(trusted ? certs.server : certs.untrusted);
        ssl->setPrivateKey(trusted ? certs.serverKey : certs.untrustedKey);
        ssl->setPeerVerifyMode(QSslSocket::VerifyNone);
        // A client that refuses the certificate is an expected outcome here.
        connect(ssl, &QSslSocket::sslErrors, ssl, [] {});
        // Plain bytes can all be encrypted at once while the encrypted ones
        // still drain: only this signal tells when there is room again.
        connect(ssl, &QSslSocket::encryptedBytesWritten, this, [this, ssl] {
            for (Connection *c : std::as_const(m_connections)) {
                if (c->socket == ssl) {
                    writeMore(c);
                    break;
                }
            }
        });
        ssl->startServerEncryption();
        socket = ssl;
    }

    auto *connection = new Connection;
    connection->socket = socket;
    m_connections.insert(connection);
    connect(socket, &QIODevice::readyRead, this, [this, connection] { readRequest(connection); });
    connect(socket, &QIODevice::bytesWritten, this, [this, connection] { writeMore(connection); });
    connect(socket, &QAbstractSocket::disconnected, this, [this, connection] { dropConnection(connection); });
    // Whatever the client did (closed early, refused the certificate), the
    // connection is over for the server.
    connect(socket, &QAbstractSocket::errorOccurred, this, [this, connection] { dropConnection(connection); });
}

void HttpsTestServer::readRequest(Connection *connection)
{
    if (!m_connections.contains(connection) || !connection->socket)
        return;
    connection->buffer += connection->socket->readAll();
    if (connection->requestDone)
        return;
    const int headerEnd = connection->buffer.indexOf("\r\n\r\n");
    if (headerEnd < 0)
        return;

    RecordedRequest request;
    const QList<QByteArray> lines = connection->buffer.left(headerEnd).split('\n');
    request.requestLine = lines.value(0).trimmed();
    const QList<QByteArray> parts = request.requestLine.split(' ');
    request.method = parts.value(0);
    request.target = parts.value(1);
    const int query = request.target.indexOf('?');
    request.path = query < 0 ? request.target : request.target.left(query);
    for (int i = 1; i < lines.size(); ++i) {
        const QByteArray line = lines.at(i);
        const int colon = line.indexOf(':');
        if (colon > 0)
            request.headers.append({line.left(colon), line.mid(colon + 1).trimmed()});
    }
    bool numeric = false;
    const qint64 bodyLength = request.header("Content-Length").toLongLong(&numeric);
    const qint64 available = connection->buffer.size() - (headerEnd + 4);
    if (numeric && bodyLength > available)
        return;
    if (numeric && bodyLength > 0)
        request.body = connection->buffer.mid(headerEnd + 4, bodyLength);

    connection->requestDone = true;
    m_requests.append(request);

    // The answer is looked up after the signal, so that a handler can still
    // change the script for this very request.
    emit requestReceived(request);
    if (!m_connections.contains(connection))
        return;

    ScriptedResponse response = ScriptedResponse::error(404, "not scripted\n");
    bool found = false;
    for (const auto &entry : std::as_const(m_script)) {
        if (entry.first == request.target) {
            response = entry.second;
            found = true;
            break;
        }
    }
    if (!found) {
        for (const auto &entry : std::as_const(m_script)) {
            if (entry.first == request.path) {
                response = entry.second;
                break;
            }
        }
    }
    startResponse(connection, response);
}

void HttpsTestServer::startResponse(Connection *connection, const ScriptedResponse &response)
{
    connection->response = response;
    if (response.delivery == ScriptedResponse::Delivery::NeverAnswer)
        return;

    QByteArray head = "HTTP/1.1 " + QByteArray::number(response.status) + ' '
        + reasonPhrase(response.status) + "\r\n";
    for (const auto &h : response.headers)
        head += h.first + ": " + h.second + "\r\n";
    if (response.contentLength && !hasHeader(response.headers, "Content-Length"))
        head += "Content-Length: " + QByteArray::number(response.body.size()) + "\r\n";
    head += "Connection: close\r\n\r\n";

    connection->limit = response.body.size();
    if (response.delivery != ScriptedResponse::Delivery::Complete)
        connection->limit = qBound<qint64>(0, response.cutAfter, response.body.size());
    connection->sent = 0;
    connection->writing = true;
    connection->socket->write(head);
    writeMore(connection);
}

qint64 HttpsTestServer::pendingBytes(QTcpSocket *socket)
{
    qint64 pending = socket->bytesToWrite();
    if (auto *ssl = qobject_cast<QSslSocket *>(socket))
        pending += ssl->encryptedBytesToWrite();
    return pending;
}

void HttpsTestServer::writeMore(Connection *connection)
{
    if (!m_connections.contains(connection) || !connection->socket || !connection->writing)
        return;
    QTcpSocket *socket = connection->socket;
    const ScriptedResponse &response = connection->response;

    if (connection->sent >= connection->limit) {
        switch (response.delivery) {
        case ScriptedResponse::Delivery::Complete:
            finishWhenFlushed(connection, false);
            break;
        case ScriptedResponse::Delivery::DropMidBody:
            finishWhenFlushed(connection, true);
            break;
        default:
            break;
        }
        return;
    }
    if (connection->waitingForDelay)
        return;
    const qint64 chunk = qMax<qint64>(1, response.chunkSize);
    if (pendingBytes(socket) > chunk)
        return;

    const qint64 size = qMin(chunk, connection->limit - connection->sent);
    socket->write(response.body.constData() + connection->sent, size);
    connection->sent += size;
    if (response.chunkDelayMs > 0 && connection->sent < connection->limit) {
        connection->waitingForDelay = true;
        QTimer::singleShot(response.chunkDelayMs, this, [this, connection] {
            if (!m_connections.contains(connection))
                return;
            connection->waitingForDelay = false;
            writeMore(connection);
        });
    } else if (connection->sent >= connection->limit) {
        writeMore(connection);
    }
}

void HttpsTestServer::finishWhenFlushed(Connection *connection, bool abortConnection)
{
    QTcpSocket *socket = connection->socket;
    if (connection->closing)
        return;
    if (pendingBytes(socket) > 0) {
        // Written bytes leave asynchronously; try again once they have gone.
        QTimer::singleShot(5, this, [this, connection, abortConnection] {
            if (m_connections.contains(connection) && connection->socket)
                finishWhenFlushed(connection, abortConnection);
        });
        return;
    }
    connection->closing = true;
    if (abortConnection) {
        // Cut the transport under the TLS layer, as a failing network would:
        // no close_notify, and Qt tears the socket down along its usual path
        // (QSslSocket::abort here leaves queued calls on a freed TLS session).
        ::shutdown(int(socket->socketDescriptor()), SHUT_RDWR);
    } else {
        socket->disconnectFromHost();
    }
}

void HttpsTestServer::dropConnection(Connection *connection)
{
    if (!m_connections.remove(connection))
        return;
    if (connection->socket) {
        connection->socket->disconnect(this);
        connection->socket->deleteLater();
    }
    delete connection;
    emit connectionClosed();
}
