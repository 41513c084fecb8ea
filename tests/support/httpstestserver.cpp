#include "httpstestserver.h"

#include <QFile>
#include <QProcess>
#include <QSslConfiguration>
#include <QSslKey>
#include <QSslSocket>
#include <QTemporaryDir>
#include <QTimer>

#include <memory>

#include <sys/socket.h>

namespace {

// One self-signed EC certificate that the tests trust as its own authority:
// quick to make, and nothing of it outlives the process.
const QPair<QSslCertificate, QSslKey> &testCertificate()
{
    static const QPair<QSslCertificate, QSslKey> made = [] {
        QTemporaryDir dir;
        QProcess openssl;
        openssl.setWorkingDirectory(dir.path());
        openssl.start("openssl", {"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                                  "-keyout", "key.pem", "-out", "cert.pem", "-days", "2", "-subj", "/CN=127.0.0.1",
                                  "-addext", "subjectAltName=IP:127.0.0.1"});
        if (!openssl.waitForFinished(30000) || openssl.exitCode() != 0)
            qWarning("HttpsTestServer: openssl failed: %s %s", qPrintable(openssl.errorString()),
                     openssl.readAllStandardError().constData());
        QFile certificate(dir.filePath("cert.pem")), key(dir.filePath("key.pem"));
        return qMakePair(QSslCertificate(certificate.open(QIODevice::ReadOnly) ? certificate.readAll() : QByteArray()),
                         QSslKey(key.open(QIODevice::ReadOnly) ? key.readAll() : QByteArray(), QSsl::Ec));
    }();
    return made;
}

} // namespace

QByteArray RecordedRequest::header(const QByteArray &name) const
{
    QList<QByteArray> values;
    for (const auto &h : headers) {
        if (h.first.compare(name, Qt::CaseInsensitive) == 0)
            values << h.second;
    }
    return values.join(", ");
}

ScriptedResponse ScriptedResponse::ok(const QByteArray &body, const QByteArray &contentType)
{
    return {200, {{"Content-Type", contentType}}, body};
}

ScriptedResponse ScriptedResponse::json(const QByteArray &body)
{
    return ok(body, "application/json");
}

ScriptedResponse ScriptedResponse::error(int status)
{
    return {status, {{"Content-Type", "text/plain"}}, "error\n"};
}

ScriptedResponse ScriptedResponse::redirect(const QByteArray &location, int status)
{
    return {status, {{"Location", location}}};
}

ScriptedResponse ScriptedResponse::neverAnswer()
{
    return {200, {}, {}, true, Delivery::NeverAnswer};
}

HttpsTestServer::HttpsTestServer(Mode mode, QObject *parent)
    : QTcpServer(parent)
    , m_mode(mode)
{
}

HttpsTestServer::~HttpsTestServer()
{
    stop();
}

// False when the socket cannot be bound, or the certificate could not be
// made (openssl's complaint is in the log).
bool HttpsTestServer::start()
{
    return (m_mode == Mode::PlainHttp || !testCertificate().first.isNull()) && listen(QHostAddress::LocalHost, 0);
}

QString HttpsTestServer::baseUrl() const
{
    return QStringLiteral("%1://127.0.0.1:%2").arg(m_mode == Mode::Https ? "https" : "http").arg(serverPort());
}

QUrl HttpsTestServer::url(const QByteArray &pathAndQuery) const
{
    return QUrl(baseUrl() + QString::fromLatin1(pathAndQuery), QUrl::TolerantMode);
}

void HttpsTestServer::stop()
{
    close();
    for (const QPointer<QTcpSocket> &socket : std::as_const(m_sockets)) {
        if (socket) {
            // Under the TLS layer: no close_notify, like a broken network.
            ::shutdown(int(socket->socketDescriptor()), SHUT_RDWR);
            socket->deleteLater();
        }
    }
    m_sockets.clear();
}

bool HttpsTestServer::trustTestCa()
{
    if (testCertificate().first.isNull())
        return false;
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.addCaCertificate(testCertificate().first);
    QSslConfiguration::setDefaultConfiguration(configuration);
    return true;
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
    QTcpSocket *socket = m_mode == Mode::Https ? new QSslSocket(this) : new QTcpSocket(this);
    if (!socket->setSocketDescriptor(socketDescriptor)) {
        delete socket;
        return;
    }
    ++m_connectionCount;
    m_sockets.append(socket);
    if (auto *ssl = qobject_cast<QSslSocket *>(socket)) {
        ssl->setLocalCertificate(testCertificate().first);
        ssl->setPrivateKey(testCertificate().second);
        ssl->startServerEncryption();
    }
    auto received = std::make_shared<QByteArray>();
    connect(socket, &QIODevice::readyRead, this, [this, socket, received] {
        const bool answered = received->contains("\r\n\r\n");
        *received += socket->readAll();
        if (!answered && received->contains("\r\n\r\n"))
            answer(socket, *received);
    });
    connect(socket, &QAbstractSocket::disconnected, socket, &QObject::deleteLater);
}

void HttpsTestServer::answer(QTcpSocket *socket, const QByteArray &request)
{
    RecordedRequest recorded;
    const QList<QByteArray> lines = request.left(request.indexOf("\r\n\r\n")).split('\n');
    const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
    recorded.method = requestLine.value(0);
    recorded.target = requestLine.value(1);
    recorded.path = recorded.target.split('?').first();
    for (const QByteArray &line : lines.mid(1)) {
        const int colon = line.indexOf(':');
        if (colon > 0)
            recorded.headers.append({line.left(colon), line.mid(colon + 1).trimmed()});
    }
    m_requests.append(recorded);
    emit requestReceived();

    const ScriptedResponse response = m_script.value(recorded.path, ScriptedResponse::error(404));
    if (response.delivery == ScriptedResponse::Delivery::NeverAnswer)
        return;
    // Qt's error text for a failed reply quotes the reason phrase.
    QByteArray head = "HTTP/1.1 " + QByteArray::number(response.status)
        + (response.status == 404 ? " Not Found\r\n" : " Status\r\n");
    for (const auto &h : response.headers)
        head += h.first + ": " + h.second + "\r\n";
    if (response.contentLength)
        head += "Content-Length: " + QByteArray::number(response.body.size()) + "\r\n";
    socket->write(head + "Connection: close\r\n\r\n");
    const bool stall = response.delivery == ScriptedResponse::Delivery::StallMidBody;
    writeBody(socket, response, 0, stall ? qMin(response.stallAfter, response.body.size()) : response.body.size());
}

void HttpsTestServer::writeBody(QPointer<QTcpSocket> socket, const ScriptedResponse &response, qint64 from,
                                qint64 end)
{
    if (!socket)
        return;
    const qint64 size = response.chunkSize > 0 ? qMin(response.chunkSize, end - from) : end - from;
    socket->write(response.body.constData() + from, size);
    if (from + size < end)
        QTimer::singleShot(response.chunkDelayMs, this,
                           [=] { writeBody(socket, response, from + size, end); });
    else if (response.delivery == ScriptedResponse::Delivery::Complete)
        socket->disconnectFromHost();
}
