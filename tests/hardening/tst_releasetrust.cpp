// What the release service and the network may not talk the updater into:
// a request in clear text (the service key and the package would travel
// unprotected and could be swapped on the way), or a release that is not
// newer than the installed one (a replayed old record would roll a user back
// to a version with known holes).

#include "downloader.h"
#include "httpstestserver.h"
#include "installlocation.h"
#include "localisation.h"
#include "releaseinfo.h"
#include "updatechecker.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

static const QString packageDigest = QStringLiteral("0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef");

static QByteArray releaseRecord(const QString &version, const QString &url)
{
    QJsonObject record{{QStringLiteral("version_number"), version},
                       {QStringLiteral("release_notes"), QStringLiteral("notes")},
                       {QStringLiteral("is_mandatory"), false},
                       {QStringLiteral("download_url_macos"), url},
                       {QStringLiteral("sha256_macos"), packageDigest}};
    return QJsonDocument(QJsonArray{record}).toJson(QJsonDocument::Compact);
}

class TestReleaseTrust : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        Q_INIT_RESOURCE(updater);
        QVERIFY(HttpsTestServer::trustTestCa());
    }

    void neverSendsARequestInClearText_data()
    {
        QTest::addColumn<QString>("route");
        QTest::addColumn<int>("redirectStatus");

        QTest::newRow("package address in plain HTTP") << "package" << 0;
        for (int status : {301, 302, 303, 307, 308})
            QTest::newRow(qPrintable(QStringLiteral("package moved to plain HTTP with %1").arg(status)))
                << "package" << status;
        for (int status : {302, 307, 308})
            QTest::newRow(qPrintable(QStringLiteral("release query moved to plain HTTP with %1").arg(status)))
                << "query" << status;
        QTest::newRow("release record names a plain HTTP package") << "record" << 0;
    }

    void neverSendsARequestInClearText()
    {
        QFETCH(QString, route);
        QFETCH(int, redirectStatus);

        HttpsTestServer plain(HttpsTestServer::Mode::PlainHttp);
        QVERIFY2(plain.start(), qPrintable(plain.errorString()));
        HttpsTestServer secure;
        QVERIFY2(secure.start(), qPrintable(secure.errorString()));
        const QByteArray package = HttpsTestServer::patternBody(4096);
        plain.setResponse("/pkg.zip", ScriptedResponse::ok(package, "application/zip"));
        plain.setResponse("/rest/v1/app_versions",
                          ScriptedResponse::json(releaseRecord(QStringLiteral("99.0.0"), secure.url("/pkg.zip").toString())));

        int expectedSecureRequests = 1;
        if (route == QLatin1String("package")) {
            QString address = plain.url("/pkg.zip").toString();
            if (redirectStatus) {
                secure.setResponse("/pkg.zip", ScriptedResponse::redirect(address.toUtf8(), redirectStatus));
                address = secure.url("/pkg.zip").toString();
            } else {
                expectedSecureRequests = 0;
            }
            Downloader downloader(QStringLiteral("99.0.0"), address, packageDigest, false);
            QTRY_VERIFY(downloader.isFinished());
            QVERIFY(downloader.hasError());
            QCOMPARE(downloader.phase(), -1);
            QVERIFY(!QFile::exists(downloader.packageFilePath()));
        } else {
            if (route == QLatin1String("query")) {
                secure.setResponse("/rest/v1/app_versions",
                                   ScriptedResponse::redirect(plain.url("/rest/v1/app_versions?select=*").toString().toUtf8(),
                                                              redirectStatus));
            } else {
                secure.setResponse("/rest/v1/app_versions",
                                   ScriptedResponse::json(releaseRecord(QStringLiteral("99.0.0"),
                                                                        plain.url("/pkg.zip").toString())));
            }
            UpdateChecker checker(secure.baseUrl());
            int answers = 0;
            bool ok = true;
            UpdateInfo info;
            checker.checkForUpdate([&](bool verdict, const UpdateInfo &received) {
                ++answers;
                ok = verdict;
                info = received;
            });
            QTRY_COMPARE(answers, 1);
            QVERIFY(!ok);
            QCOMPARE(info.message, translate(route == QLatin1String("query") ? "upd_ver_net" : "upd_insecure_url"));
        }

        // Whatever the client does with a refused target, it must not have
        // connected to the plain server even a little later.
        QTest::qWait(200);
        QCOMPARE(secure.requests().size(), expectedSecureRequests);
        QCOMPARE(plain.requests().size(), 0);
    }

    // A server whose certificate does not name the host asked for (here:
    // issued for 127.0.0.1, reached as localhost) gets the TLS handshake and
    // nothing more: no request, no package file.
    void talksOnlyToAServerItCanAuthenticate_data()
    {
        QTest::addColumn<QString>("route");
        QTest::newRow("release query") << "query";
        QTest::newRow("package") << "package";
    }

    void talksOnlyToAServerItCanAuthenticate()
    {
        QFETCH(QString, route);
        HttpsTestServer impostor;
        QVERIFY2(impostor.start(), qPrintable(impostor.errorString()));
        const QString origin = QStringLiteral("https://localhost:%1").arg(impostor.serverPort());
        impostor.setResponse("/pkg.zip", ScriptedResponse::ok(HttpsTestServer::patternBody(4096), "application/zip"));
        impostor.setResponse("/rest/v1/app_versions",
                             ScriptedResponse::json(releaseRecord(QStringLiteral("99.0.0"), origin + QStringLiteral("/pkg.zip"))));

        if (route == QLatin1String("package")) {
            Downloader downloader(QStringLiteral("99.0.0"), origin + QStringLiteral("/pkg.zip"), packageDigest, false);
            QTRY_VERIFY(downloader.isFinished());
            QVERIFY(downloader.hasError());
            QVERIFY2(downloader.status().contains(QLatin1String("SSL")), qPrintable(downloader.status()));
            QVERIFY(!QFile::exists(downloader.packageFilePath()));
        } else {
            UpdateChecker checker(origin);
            int answers = 0;
            UpdateInfo info;
            checker.checkForUpdate([&](bool, const UpdateInfo &received) {
                ++answers;
                info = received;
            });
            QTRY_COMPARE(answers, 1);
            QCOMPARE(info.message, translate("upd_ver_net"));
        }
        QCOMPARE(impostor.requests().size(), 0);
    }

    // Only --force (or --repair) turns the installed version into 0.0.0; a
    // release is installed only when it is strictly newer.
    void neverInstallsAnOlderOrEqualRelease_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("release");
        QTest::addColumn<bool>("installs");

        const QStringList installed241{"--current", "2.4.1"};
        QTest::newRow("older patch") << installed241 << "2.4.0" << false;
        QTest::newRow("older major with larger parts") << QStringList{"--current", "3.0.0"} << "2.999999999.999999999" << false;
        QTest::newRow("same version") << installed241 << "2.4.1" << false;
        QTest::newRow("same version behind a v") << installed241 << "V2.4.1" << false;
        QTest::newRow("same version with a suffix") << installed241 << "2.4.1-hotfix+7" << false;
        QTest::newRow("same version spelled short") << QStringList{"--current", "2.4.0"} << "2.4" << false;
        QTest::newRow("same version with leading zeros") << installed241 << "02.04.001" << false;
        QTest::newRow("zero release, even forced") << QStringList{"--force"} << "0.0.0" << false;
        QTest::newRow("zero release, even repaired") << QStringList{"--repair"} << "v0" << false;
        QTest::newRow("newer patch") << installed241 << "2.4.2" << true;
        QTest::newRow("forced reinstall of the same version") << QStringList{"--force", "--current", "2.4.1"} << "2.4.1" << true;
        QTest::newRow("repair installs an older version") << QStringList{"--repair", "--current", "2.4.1"} << "1.0.0" << true;
    }

    void neverInstallsAnOlderOrEqualRelease()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, release);
        QFETCH(bool, installs);

        const QStringList commandLine = QStringList{"VelmoraUpdater"} + arguments;
        const QString installed = installedVersion(commandLine, QStringLiteral("/nonexistent/Velmora.app/Contents/MacOS"));
        const Verdict verdict = evaluateReleaseBody(releaseRecord(release, QStringLiteral("https://127.0.0.1/pkg.zip")),
                                                    [&] { return installed; }, QStringLiteral("x86_64"));
        QCOMPARE(verdict.ok, installs);
        if (!installs)
            QCOMPARE(verdict.info.message, translate("upd_up_to_date").arg(installed));
    }
};

QTEST_MAIN(TestReleaseTrust)
#include "tst_releasetrust.moc"
