#include "httpstestserver.h"

#include "testfiles.h"

#include <QProcess>
#include <QSslConfiguration>
#include <QSslKey>
#include <QSslSocket>
#include <QTemporaryDir>

// One self-signed EC certificate that the tests trust as its own authority:
// quick to make, and nothing of it outlives the process.
static const QPair<QSslCertificate, QSslKey> &testCertificate()
{
    static const QPair<QSslCertificate, QSslKey> made = [] {
        QTemporaryDir dir;
        QProcess::execute("openssl",
                          {"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                           "-keyout", dir.filePath("key.pem"), "-out", dir.filePath("cert.pem"), "-days", "2", "-subj",
                           "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1"});
        return qMakePair(QSslCertificate(readFile(dir.filePath("cert.pem"))),
                         QSslKey(readFile(dir.filePath("key.pem")), QSsl::Ec));
    }();
    return made;
}

QByteArray RecordedRequest::header(const QByteArray &name) const
{
    QByteArrayList values;
    for (const auto &[key, value] : headers) {
        if (key.compare(name, Qt::CaseInsensitive) == 0)
            values << value;
    }
    return values.join(", ");
}

HttpsTestServer::HttpsTestServer(Mode mode, QObject *parent)
    : QTcpServer(parent)
    , m_mode(mode)
{
}

// False when the socket cannot be bound, or openssl could not make the
// certificate (its complaint is on standard error).
bool HttpsTestServer::start()
{
    return (m_mode == Mode::PlainHttp || !testCertificate().first.isNull()) && listen(QHostAddress::LocalHost, 0);
}

QString HttpsTestServer::baseUrl() const
{
    return (m_mode == Mode::Https ? "https://127.0.0.1:" : "http://127.0.0.1:") + QString::number(serverPort());
}

bool HttpsTestServer::trustTestCa()
{
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.addCaCertificate(testCertificate().first);
    QSslConfiguration::setDefaultConfiguration(configuration);
    return !testCertificate().first.isNull();
}

void HttpsTestServer::incomingConnection(qintptr socketDescriptor)
{
    QTcpSocket *socket = m_mode == Mode::Https ? new QSslSocket(this) : new QTcpSocket(this);
    socket->setSocketDescriptor(socketDescriptor);
    if (auto *ssl = qobject_cast<QSslSocket *>(socket)) {
        ssl->setLocalCertificate(testCertificate().first);
        ssl->setPrivateKey(testCertificate().second);
        ssl->startServerEncryption();
    }
    connect(socket, &QIODevice::readyRead, this, [this, socket] {
        // The request stays in the socket's buffer until its head is complete.
        if (socket->property("answered").toBool() || !socket->peek(1 << 16).contains("\r\n\r\n"))
            return;
        socket->setProperty("answered", true);
        answer(socket, socket->readAll());
    });
    connect(socket, &QAbstractSocket::disconnected, socket, &QObject::deleteLater);
}

void HttpsTestServer::answer(QTcpSocket *socket, const QByteArray &request)
{
    const QByteArrayList lines = request.left(request.indexOf("\r\n\r\n")).split('\n');
    const QByteArrayList requestLine = lines.value(0).trimmed().split(' ');
    RecordedRequest recorded{requestLine.value(0), requestLine.value(1), requestLine.value(1).split('?').first(), {}};
    for (const QByteArray &line : lines.mid(1))
        recorded.headers.append({line.left(line.indexOf(':')), line.mid(line.indexOf(':') + 1).trimmed()});
    m_requests.append(recorded);

    const ScriptedResponse response = m_handlers.contains(recorded.path)
        ? m_handlers.value(recorded.path)(recorded)
        : m_script.value(recorded.path, ScriptedResponse::error(404));
    if (!response.answered)
        return;
    // Qt's error text for a failed reply quotes the reason phrase.
    QByteArray head = "HTTP/1.1 " + QByteArray::number(response.status)
        + (response.status == 404 ? " Not Found\r\n" : " Status\r\n");
    for (const auto &[name, value] : response.headers)
        head += name + ": " + value + "\r\n";
    if (response.contentLength)
        head += "Content-Length: " + QByteArray::number(response.body.size()) + "\r\n";
    const qint64 limit = qMax(response.cutAfter, response.stallAfter);
    const QByteArray body = limit >= 0 ? response.body.left(limit) : response.body;
    m_requests.last().bodySent = body.size();
    socket->write(head + "Connection: close\r\n\r\n" + body);
    // A cut answer is closed like a whole one, short of its announced length.
    if (response.stallAfter < 0)
        socket->disconnectFromHost();
}

ScriptedResponse ScriptedResponse::file(const RecordedRequest &request, const QByteArray &body, const QByteArray &etag)
{
    const QByteArray range = request.header("Range"), ifRange = request.header("If-Range");
    ScriptedResponse whole = ok(body);
    whole.headers.append({"ETag", etag});
    if (!range.startsWith("bytes=") || !range.endsWith('-') || (!ifRange.isEmpty() && ifRange != etag))
        return whole;
    const qint64 first = range.mid(6).chopped(1).toLongLong();
    if (first >= body.size())
        return {416, {{"Content-Range", "bytes */" + QByteArray::number(body.size())}}, {}};
    const QByteArray total = QByteArray::number(body.size());
    return {206,
            {{"ETag", etag},
             {"Content-Range",
              "bytes " + QByteArray::number(first) + '-' + QByteArray::number(body.size() - 1) + '/' + total}},
            body.mid(first)};
}
