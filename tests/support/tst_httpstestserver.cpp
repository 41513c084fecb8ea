#include "httpstestserver.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QtTest>

// The server is what the network tests stand on: if it answered wrongly, a
// downloader or checker test could pass for the wrong reason.
class TestHttpsTestServer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(HttpsTestServer::trustTestCa()); }
    void deliversScriptedAnswers_data();
    void deliversScriptedAnswers();
    void recordsTheRequestAsSent();
    void stalledAnswerKeepsTheClientWaiting();
    void untrustedCertificateIsRefused();
    void stoppingCutsOpenConnections();

private:
    struct Result
    {
        QNetworkReply::NetworkError error = QNetworkReply::NoError;
        int status = 0;
        QByteArray body;
    };
    Result get(const QUrl &url);
};

TestHttpsTestServer::Result TestHttpsTestServer::get(const QUrl &url)
{
    QNetworkAccessManager manager;
    QNetworkRequest request(url);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    QNetworkReply *reply = manager.get(request);
    QSignalSpy finished(reply, &QNetworkReply::finished);
    if (!finished.wait(10000))
        return {QNetworkReply::TimeoutError, 0, {}};
    Result result{reply->error(), reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), reply->readAll()};
    delete reply;
    return result;
}

void TestHttpsTestServer::deliversScriptedAnswers_data()
{
    QTest::addColumn<bool>("plain");
    QTest::addColumn<ScriptedResponse>("response");
    QTest::addColumn<int>("error");
    QTest::addColumn<QByteArray>("body");

    const QByteArray big = HttpsTestServer::patternBody(3 * 1024 * 1024 + 7);
    ScriptedResponse closeDelimited = ScriptedResponse::ok("until the close");
    closeDelimited.contentLength = false;
    ScriptedResponse slow = ScriptedResponse::ok(HttpsTestServer::patternBody(1000));
    slow.chunkSize = 100;
    slow.chunkDelayMs = 5;

    QTest::newRow("body with length") << false << ScriptedResponse::ok("hello") << int(QNetworkReply::NoError) << QByteArray("hello");
    QTest::newRow("close-delimited body") << false << closeDelimited << int(QNetworkReply::NoError) << QByteArray("until the close");
    QTest::newRow("large body arrives whole") << false << ScriptedResponse::ok(big) << int(QNetworkReply::NoError) << big;
    QTest::newRow("slow chunks arrive whole") << false << slow << int(QNetworkReply::NoError) << slow.body;
    QTest::newRow("plain http") << true << ScriptedResponse::ok("plain") << int(QNetworkReply::NoError) << QByteArray("plain");
    QTest::newRow("http error status") << false << ScriptedResponse::error(500, "boom")
                                       << int(QNetworkReply::InternalServerError) << QByteArray("boom");
    QTest::newRow("dropped mid-body is an error") << false << ScriptedResponse::dropMidBody(big, 200000)
                                                  << int(QNetworkReply::RemoteHostClosedError) << QByteArray();
    QTest::newRow("dropped after a few bytes") << false << ScriptedResponse::dropMidBody("0123456789abcdefghijklmnop", 20)
                                               << int(QNetworkReply::RemoteHostClosedError) << QByteArray();
    QTest::newRow("dropped plain http") << true << ScriptedResponse::dropMidBody("0123456789abcdefghijklmnop", 20)
                                        << int(QNetworkReply::RemoteHostClosedError) << QByteArray();
}

void TestHttpsTestServer::deliversScriptedAnswers()
{
    QFETCH(bool, plain);
    QFETCH(ScriptedResponse, response);
    QFETCH(int, error);
    QFETCH(QByteArray, body);

    HttpsTestServer server(plain ? HttpsTestServer::Mode::PlainHttp : HttpsTestServer::Mode::Https);
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    server.setResponse("/file", response);
    const Result result = get(server.url("/file"));
    QCOMPARE(int(result.error), error);
    if (error == QNetworkReply::NoError || !body.isEmpty())
        QCOMPARE(result.body, body);
    QTRY_COMPARE(server.openConnectionCount(), 0);
}

void TestHttpsTestServer::recordsTheRequestAsSent()
{
    HttpsTestServer target;
    QVERIFY(target.start());
    target.setResponse("/b?x=1", ScriptedResponse::ok("by target"));
    target.setResponse("/b", ScriptedResponse::ok("by path"));
    HttpsTestServer origin;
    QVERIFY(origin.start());
    origin.setResponse("/a", ScriptedResponse::redirect(target.url("/b?x=1").toEncoded()));

    const Result result = get(origin.url("/a?q=*&z=1"));
    QCOMPARE(int(result.error), int(QNetworkReply::NoError));
    QCOMPARE(result.body, QByteArray("by target"));
    QCOMPARE(origin.requests().size(), 1);
    const RecordedRequest request = origin.requests().first();
    QCOMPARE(request.method, QByteArray("GET"));
    QCOMPARE(request.target, QByteArray("/a?q=*&z=1"));
    QCOMPARE(request.path, QByteArray("/a"));
    QCOMPARE(request.requestLine, QByteArray("GET /a?q=*&z=1 HTTP/1.1"));
    QCOMPARE(request.header("host"), QByteArray("127.0.0.1:") + QByteArray::number(origin.port()));
    QCOMPARE(request.headerCount("Host"), 1);
    QCOMPARE(target.requests().size(), 1);
    QCOMPARE(get(target.url("/b?other")).body, QByteArray("by path"));
    QCOMPARE(get(target.url("/nowhere")).status, 404);
}

void TestHttpsTestServer::stalledAnswerKeepsTheClientWaiting()
{
    HttpsTestServer server;
    QVERIFY(server.start());
    ScriptedResponse stall = ScriptedResponse::ok(HttpsTestServer::patternBody(1000));
    stall.delivery = ScriptedResponse::Delivery::StallMidBody;
    stall.cutAfter = 10;
    server.setResponse("/stall", stall);
    server.setResponse("/never", ScriptedResponse::neverAnswer());

    QNetworkAccessManager manager;
    QNetworkReply *stalled = manager.get(QNetworkRequest(server.url("/stall")));
    QNetworkReply *silent = manager.get(QNetworkRequest(server.url("/never")));
    QTRY_COMPARE(stalled->bytesAvailable(), qint64(10));
    QTRY_COMPARE(server.requests().size(), 2);
    QTest::qWait(200);
    QVERIFY(!stalled->isFinished());
    QVERIFY(!silent->isFinished());
    QCOMPARE(silent->bytesAvailable(), qint64(0));
    stalled->abort();
    silent->abort();
    QTRY_COMPARE(server.openConnectionCount(), 0);
    delete stalled;
    delete silent;
}

void TestHttpsTestServer::untrustedCertificateIsRefused()
{
    HttpsTestServer server(HttpsTestServer::Mode::HttpsUntrusted);
    QVERIFY(server.start());
    server.setResponse("/x", ScriptedResponse::ok("secret"));
    const Result result = get(server.url("/x"));
    QCOMPARE(int(result.error), int(QNetworkReply::SslHandshakeFailedError));
    QVERIFY(server.requests().isEmpty());
}

void TestHttpsTestServer::stoppingCutsOpenConnections()
{
    QNetworkAccessManager manager;
    QNetworkReply *reply = nullptr;
    {
        HttpsTestServer server;
        QVERIFY(server.start());
        server.setResponse("/never", ScriptedResponse::neverAnswer());
        reply = manager.get(QNetworkRequest(server.url("/never")));
        QTRY_COMPARE(server.requests().size(), 1);
    }
    QSignalSpy finished(reply, &QNetworkReply::finished);
    QVERIFY(reply->isFinished() || finished.wait(10000));
    QVERIFY(reply->error() != QNetworkReply::NoError);
    delete reply;
}

QTEST_GUILESS_MAIN(TestHttpsTestServer)
#include "tst_httpstestserver.moc"
