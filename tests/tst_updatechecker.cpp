#include "updatechecker.h"

#include "httpstestserver.h"

#include <QSettings>
#include <QtTest>

#include <cstddef>

// The scrambled block that the build generates from the deployment's key.
extern const unsigned char velmoraServiceKeyBlock[169];

namespace {

const QByteArray queryTarget = "/rest/v1/app_versions?select=*&order=created_at.desc&limit=1";
const QByteArray queryPath = "/rest/v1/app_versions";

// Chosen on every processor: only the any-Mac pair is published.
const QByteArray newerRelease =
    R"([{"version_number":"2.0.0","release_notes":"Notes","is_mandatory":true,)"
    R"("download_url_macos":"https://cdn.example.com/Velmora.zip",)"
    R"("sha256_macos":"0123456789ABCDEF0123456789abcdef0123456789abcdef0123456789abcdef"}])";

const QString networkFailure = QStringLiteral("Could not fetch version information (network).");

struct Answer
{
    int calls = 0;
    bool ok = false;
    UpdateInfo info;
};

} // namespace

class TestUpdateChecker : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void rebuildsTheKeyWithTheDeploymentLabel();
    void sendsOneAuthorisedQuery();
    void turnsTheServiceAnswerIntoAVerdict_data();
    void turnsTheServiceAnswerIntoAVerdict();
    void followsOnlySafeRedirects_data();
    void followsOnlySafeRedirects();
    void reportsAnUnreachableService_data();
    void reportsAnUnreachableService();
    void destroyedCheckerNeverCallsBack();

private:
    // Runs one check against baseUrl and waits for its answer; the extra wait
    // afterwards catches a second call of the callback.
    Answer check(const QString &baseUrl);
};

void TestUpdateChecker::initTestCase()
{
    Q_INIT_RESOURCE(updater);
    qputenv("VELMORA_DEFAULT_LANGUAGE", "en");
    QVERIFY(HttpsTestServer::trustTestCa());
    // No bundle is installed here: the main application's settings give the
    // installed version.
    QSettings(QStringLiteral("Velmora"), QStringLiteral("VelmoraApp")).setValue(QStringLiteral("Version"), QStringLiteral("1.0.0"));
}

Answer TestUpdateChecker::check(const QString &baseUrl)
{
    Answer answer;
    UpdateChecker checker(baseUrl);
    checker.checkForUpdate([&answer](bool ok, const UpdateInfo &info) {
        ++answer.calls;
        answer.ok = ok;
        answer.info = info;
    });
    [&] { QTRY_VERIFY_WITH_TIMEOUT(answer.calls > 0, 15000); }();
    QTest::qWait(100);
    return answer;
}

void TestUpdateChecker::rebuildsTheKeyWithTheDeploymentLabel()
{
    // The generator scrambles with this label; a decoder that drifts from it
    // would send a wrong key to the service.
    const QByteArray label = "Pantheria::QuietKeyRing::v2";
    const QByteArray key = serviceKey();
    QCOMPARE(key.size(), 169);
    for (int i = 0; i < key.size(); ++i) {
        const auto unscrambled = uchar(uchar(key.at(i)) ^ velmoraServiceKeyBlock[i]);
        QVERIFY2(unscrambled == uchar(label.at(i % label.size())), qPrintable(QString::number(i)));
    }
}

void TestUpdateChecker::sendsOneAuthorisedQuery()
{
    HttpsTestServer server;
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    server.setResponse(queryPath, ScriptedResponse::json(newerRelease));

    const Answer answer = check(server.baseUrl());

    QCOMPARE(server.requests().size(), 1);
    const RecordedRequest request = server.requests().first();
    QCOMPARE(request.method, QByteArray("GET"));
    QCOMPARE(request.target, queryTarget);

    const QByteArray key = serviceKey();
    QCOMPARE(key.size(), 169);
    QCOMPARE(serviceKey(), key);
    QCOMPARE(request.headerCount("apikey"), 1);
    QCOMPARE(request.header("apikey"), key);
    QCOMPARE(request.headerCount("Authorization"), 1);
    QCOMPARE(request.header("Authorization"), "Bearer " + key);

    QCOMPARE(answer.calls, 1);
    QVERIFY(answer.ok);
    QCOMPARE(answer.info.version, QStringLiteral("2.0.0"));
    QCOMPARE(answer.info.downloadUrl, QStringLiteral("https://cdn.example.com/Velmora.zip"));
    QCOMPARE(answer.info.sha256, QStringLiteral("0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef"));
    QCOMPARE(answer.info.releaseNotes, QStringLiteral("Notes"));
    QVERIFY(answer.info.mandatory);
    QVERIFY(!answer.info.packageFlag);
    QVERIFY(answer.info.message.isEmpty());
}

void TestUpdateChecker::turnsTheServiceAnswerIntoAVerdict_data()
{
    QTest::addColumn<ScriptedResponse>("response");
    QTest::addColumn<bool>("ok");
    QTest::addColumn<QString>("message");
    QTest::addColumn<QString>("version");

    ScriptedResponse closeDelimited = ScriptedResponse::json(newerRelease);
    closeDelimited.contentLength = false;

    QTest::newRow("close-delimited record") << closeDelimited << true << QString() << "2.0.0";
    QTest::newRow("same version installed")
        << ScriptedResponse::json(R"([{"version_number":"1.0.0"}])") << false << "Already up to date (1.0.0)." << "1.0.0";
    QTest::newRow("no release published") << ScriptedResponse::json("[]") << false
                                          << "Could not fetch version information." << QString();
    QTest::newRow("404 despite a record") << [] { ScriptedResponse r = ScriptedResponse::json(newerRelease); r.status = 404; return r; }()
                                          << false << networkFailure << QString();
    QTest::newRow("500") << ScriptedResponse::error(500, "down") << false << networkFailure << QString();
    QTest::newRow("connection dropped mid-body") << ScriptedResponse::dropMidBody(newerRelease, 20) << false
                                                 << networkFailure << QString();
}

void TestUpdateChecker::turnsTheServiceAnswerIntoAVerdict()
{
    QFETCH(ScriptedResponse, response);
    QFETCH(bool, ok);
    QFETCH(QString, message);
    QFETCH(QString, version);

    HttpsTestServer server;
    QVERIFY(server.start());
    server.setResponse(queryPath, response);

    const Answer answer = check(server.baseUrl());
    QCOMPARE(answer.calls, 1);
    QCOMPARE(answer.ok, ok);
    QCOMPARE(answer.info.message, message);
    QCOMPARE(answer.info.version, version);
    if (!ok && version.isEmpty())
        QVERIFY(answer.info.downloadUrl.isEmpty() && answer.info.sha256.isEmpty() && !answer.info.mandatory);
}

void TestUpdateChecker::followsOnlySafeRedirects_data()
{
    QTest::addColumn<HttpsTestServer::Mode>("targetMode");
    QTest::addColumn<int>("status");
    QTest::addColumn<bool>("ok");

    QTest::newRow("https to https, 302") << HttpsTestServer::Mode::Https << 302 << true;
    QTest::newRow("https to https, 308") << HttpsTestServer::Mode::Https << 308 << true;
    QTest::newRow("https to http, 302") << HttpsTestServer::Mode::PlainHttp << 302 << false;
    QTest::newRow("https to http, 301") << HttpsTestServer::Mode::PlainHttp << 301 << false;
}

void TestUpdateChecker::followsOnlySafeRedirects()
{
    QFETCH(HttpsTestServer::Mode, targetMode);
    QFETCH(int, status);
    QFETCH(bool, ok);

    HttpsTestServer target(targetMode);
    QVERIFY(target.start());
    target.setResponse("/moved", ScriptedResponse::json(newerRelease));
    HttpsTestServer origin;
    QVERIFY(origin.start());
    origin.setResponse(queryPath, ScriptedResponse::redirect(target.baseUrl().toLatin1() + "/moved", status));

    const Answer answer = check(origin.baseUrl());
    QCOMPARE(origin.requests().size(), 1);
    QCOMPARE(answer.calls, 1);
    QCOMPARE(answer.ok, ok);
    if (ok) {
        QCOMPARE(target.requests().size(), 1);
        QCOMPARE(answer.info.version, QStringLiteral("2.0.0"));
    } else {
        // The key must never reach a plain-text server.
        QVERIFY(target.requests().isEmpty());
        QCOMPARE(answer.info.message, networkFailure);
    }
}

void TestUpdateChecker::reportsAnUnreachableService_data()
{
    QTest::addColumn<HttpsTestServer::Mode>("mode");
    QTest::addColumn<bool>("listening");

    QTest::newRow("connection refused") << HttpsTestServer::Mode::Https << false;
    QTest::newRow("certificate not trusted") << HttpsTestServer::Mode::HttpsUntrusted << true;
}

void TestUpdateChecker::reportsAnUnreachableService()
{
    QFETCH(HttpsTestServer::Mode, mode);
    QFETCH(bool, listening);

    HttpsTestServer server(mode);
    QVERIFY(server.start());
    server.setResponse(queryPath, ScriptedResponse::json(newerRelease));
    const QString baseUrl = server.baseUrl();
    if (!listening)
        server.stop();

    const Answer answer = check(baseUrl);
    QCOMPARE(answer.calls, 1);
    QVERIFY(!answer.ok);
    QCOMPARE(answer.info.message, networkFailure);
    QVERIFY(answer.info.version.isEmpty());
    QVERIFY(server.requests().isEmpty());
}

void TestUpdateChecker::destroyedCheckerNeverCallsBack()
{
    HttpsTestServer server;
    QVERIFY(server.start());
    server.setResponse(queryPath, ScriptedResponse::neverAnswer());

    int calls = 0;
    auto *checker = new UpdateChecker(server.baseUrl());
    checker->checkForUpdate([&calls](bool, const UpdateInfo &) { ++calls; });
    QTRY_COMPARE(server.requests().size(), 1);
    QCOMPARE(server.openConnectionCount(), 1);

    delete checker;
    // The abandoned request closes its connection; a callback would come now if ever.
    QTRY_COMPARE(server.openConnectionCount(), 0);
    QTest::qWait(200);
    QCOMPARE(calls, 0);
}

QTEST_GUILESS_MAIN(TestUpdateChecker)
#include "tst_updatechecker.moc"
