#include "updatechecker.h"

#include "httpstestserver.h"

#include <QSettings>
#include <QtTest>

// The scrambled block that the build generates from the deployment's key.
extern const unsigned char velmoraServiceKeyBlock[169];

namespace {

const QByteArray queryPath = "/rest/v1/app_versions";
const QByteArray newerRelease =
    R"([{"version_number":"2.0.0","download_url_macos":"https://cdn.example.com/Velmora.zip",)"
    R"("sha256_macos":"0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef"}])";
const QString networkFailure = QStringLiteral("Could not fetch version information (network).");

} // namespace

class TestUpdateChecker : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        Q_INIT_RESOURCE(updater);
        qputenv("VELMORA_DEFAULT_LANGUAGE", "en");
        QVERIFY(HttpsTestServer::trustTestCa());
        // No bundle is installed here: the main application's settings give the
        // installed version.
        QSettings("Velmora", "VelmoraApp").setValue("Version", "1.0.0");
    }

    void rebuildsTheKeyWithTheDeploymentLabel()
    {
        // The generator scrambles with this label; a decoder that drifts from it
        // would send a wrong key to the service.
        const QByteArray label = "Pantheria::QuietKeyRing::v2";
        const QByteArray key = serviceKey();
        QCOMPARE(key.size(), 169);
        for (int i = 0; i < key.size(); ++i)
            QVERIFY2((uchar(key.at(i)) ^ velmoraServiceKeyBlock[i]) == uchar(label.at(i % label.size())),
                     qPrintable(QString::number(i)));
    }

    void answersOnceWithTheVerdict_data()
    {
        QTest::addColumn<QString>("service"); // how the service is reached
        QTest::addColumn<ScriptedResponse>("response");
        QTest::addColumn<QString>("version");
        QTest::addColumn<QString>("message"); // empty: an update is available

        const ScriptedResponse record = ScriptedResponse::json(newerRelease);
        ScriptedResponse notFound = record;
        notFound.status = 404;
        QTest::newRow("newer release") << "direct" << record << "2.0.0" << "";
        QTest::newRow("same version installed") << "direct" << ScriptedResponse::json(R"([{"version_number":"1.0.0"}])")
                                                << "1.0.0" << "Already up to date (1.0.0).";
        QTest::newRow("404 despite a record") << "direct" << notFound << "" << networkFailure;
        QTest::newRow("500") << "direct" << ScriptedResponse::error(500) << "" << networkFailure;
        QTest::newRow("redirect to https is followed") << "redirect https" << record << "2.0.0" << "";
        // The key must never reach a plain-text server.
        QTest::newRow("redirect to http is refused") << "redirect http" << record << "" << networkFailure;
        QTest::newRow("connection refused") << "stopped" << record << "" << networkFailure;
        QTest::newRow("certificate for another host") << "localhost" << record << "" << networkFailure;
    }

    void answersOnceWithTheVerdict()
    {
        QFETCH(QString, service);
        QFETCH(ScriptedResponse, response);
        QFETCH(QString, version);
        QFETCH(QString, message);

        HttpsTestServer origin;
        HttpsTestServer moved(service == "redirect http" ? HttpsTestServer::Mode::PlainHttp : HttpsTestServer::Mode::Https);
        QVERIFY2(origin.start() && moved.start(), qPrintable(origin.errorString()));
        moved.setResponse("/moved", response);
        const bool redirected = service.startsWith("redirect");
        origin.setResponse(queryPath, redirected ? ScriptedResponse::redirect(moved.baseUrl().toLatin1() + "/moved") : response);
        QString baseUrl = origin.baseUrl();
        if (service == "stopped")
            origin.stop();
        if (service == "localhost")
            baseUrl.replace("127.0.0.1", "localhost");

        int calls = 0;
        bool ok = false;
        UpdateInfo info;
        {
            UpdateChecker checker(baseUrl);
            checker.checkForUpdate([&](bool answerOk, const UpdateInfo &answer) {
                ++calls;
                ok = answerOk;
                info = answer;
            });
            QTRY_VERIFY_WITH_TIMEOUT(calls > 0, 15000);
            QTest::qWait(100); // a second call would come now
        }
        QCOMPARE(calls, 1);
        QCOMPARE(ok, message.isEmpty());
        QCOMPARE(info.message, message);
        QCOMPARE(info.version, version);
        QCOMPARE(moved.requests().size(), service == "redirect https" ? 1 : 0);
        if (service == "localhost")
            QVERIFY2(origin.connectionCount() > 0, "the refusal must come from the certificate check");

        QCOMPARE(origin.requests().size(), service == "direct" || redirected ? 1 : 0);
        for (const RecordedRequest &request : origin.requests()) {
            QCOMPARE(request.method + ' ' + request.target,
                     QByteArray("GET /rest/v1/app_versions?select=*&order=created_at.desc&limit=1"));
            QCOMPARE(request.header("apikey"), serviceKey());
            QCOMPARE(request.header("Authorization"), "Bearer " + serviceKey());
        }
    }

    void destroyedCheckerNeverCallsBack()
    {
        HttpsTestServer server;
        QVERIFY(server.start());
        server.setResponse(queryPath, ScriptedResponse::neverAnswer());

        int calls = 0;
        auto *checker = new UpdateChecker(server.baseUrl());
        checker->checkForUpdate([&calls](bool, const UpdateInfo &) { ++calls; });
        QTRY_COMPARE(server.requests().size(), 1);
        delete checker;
        // The abandoned request's connection closes; a callback would come now if ever.
        QTest::qWait(300);
        QCOMPARE(calls, 0);
    }
};

QTEST_GUILESS_MAIN(TestUpdateChecker)
#include "tst_updatechecker.moc"
