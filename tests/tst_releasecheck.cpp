// The update check: which release record is installed and with which package
// (or refused, and why), and the one query sent to the release service, whose
// key never goes out over plain HTTP. (fuzz/ holds parseVersion's oracle.)

#include "httpstestserver.h"
#include "localisation.h"
#include "updatechecker.h"

#include <QtTest>

static const QString sha = QStringLiteral("0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef");
static const QString arm = "https://a/arm.zip", intel = "https://a/intel.zip", any = "https://a/any.zip";
static const QByteArray path = "/rest/v1/app_versions";

// A record with notes, then further members as JSON text.
static QByteArray release(const QString &version, const QString &members = {})
{
    return QStringLiteral(R"([{"version_number":"%1","release_notes":"notes"%2}])").arg(version, members).toUtf8();
}

// A package pair: suffix "" is for any Mac, "_arm64" and "_x86_64" for one processor.
static QString pair(const QString &suffix, const QString &url, const QString &digest)
{
    return QStringLiteral(R"(,"download_url_macos%1":"%2","sha256_macos%1":"%3")").arg(suffix, url, digest);
}

static QStringList describe(const UpdateInfo &i)
{
    return {i.version, i.downloadUrl, i.sha256, i.releaseNotes, i.message, i.mandatory ? "mandatory" : ""};
}

class TestReleaseCheck : public QObject
{
    Q_OBJECT
    HttpsTestServer plain{HttpsTestServer::Mode::PlainHttp};

private slots:
    void initTestCase()
    {
        qputenv("VELMORA_DEFAULT_LANGUAGE", "en");
        // No bundle here: the main application's settings give the installed version.
        QSettings("Velmora", "VelmoraApp").setValue("Version", "1.0.0");
        QVERIFY(HttpsTestServer::trustTestCa() && plain.start());
    }

    void verdicts_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("installed");
        QTest::addColumn<QString>("architecture");
        QTest::addColumn<QStringList>("verdict"); // every field; no message: install
        // The message names the installed version or the invalid one. The notes
        // are read once a release is found newer: every row with a package has them.
        const auto row = [](const char *name, const QByteArray &body, const QString &version, const QString &url,
                            const QString &digest, const char *key, const QString &installed = "1",
                            const QString &arch = "x86_64", bool mandatory = false) {
            const QString message
                = key ? translate(key).replace("%1", qstrcmp(key, "upd_up_to_date") ? version : installed) : QString();
            const QString notes = url.isEmpty() && digest.isEmpty() ? "" : "notes";
            QTest::newRow(name) << body << installed << arch
                                << describe({version, url, notes, digest, false, mandatory, message});
        };
        const auto pkg = [&](const char *name, const QString &members, const QString &url, const QString &digest,
                             const char *key, const QString &arch = "x86_64", bool mandatory = false) {
            row(name, release("9", members), "9", url, digest, key, "1", arch, mandatory);
        };
        const QString armSha = QString(sha).replace('0', 'a'), withG = QString(sha).replace('0', 'g');
        const QString both = pair("_x86_64", intel, sha) + pair("_arm64", arm, armSha.toUpper());
        row("empty array", "[]", {}, {}, {}, "upd_ver_failed");
        row("object body", R"({"version_number":"9"})", {}, {}, {}, "upd_ver_failed");
        row("version not a string", R"([{"version_number":9}])", {}, {}, {}, "upd_ver_failed");
        row("fourth component", release("1.2.3.4"), "1.2.3.4", {}, {}, "upd_ver_invalid");
        row("ten digits", release("1234567890"), "1234567890", {}, {}, "upd_ver_invalid");
        row("non-Latin digits", release("\u0661.\u0662"), "\u0661.\u0662", {}, {}, "upd_ver_invalid");
        row("newer patch", release("2.4.2", both), "2.4.2", intel, sha, nullptr, "2.4.1");
        row("two-digit minor", release("v2.10.0", both), "v2.10.0", intel, sha, nullptr, "2.9.9");
        row("equal but for a suffix", release("2.4.1-rc1", both), "2.4.1-rc1", {}, {}, "upd_up_to_date", "2.4.1");
        row("older, larger parts", release("2.99.99", both), "2.99.99", {}, {}, "upd_up_to_date", " v3 ");
        row("0.0.0 never, even forced", release("0.0.0", both), "0.0.0", {}, {}, "upd_up_to_date", "0.0.0");
        row("unreadable installed is 0.0.0", release("0.0.1", both), "0.0.1", intel, sha, nullptr, "unknown");
        pkg("Apple takes arm64, lowered", both, arm, armSha, nullptr, "arm64");
        const QString armHalf = pair("_arm64", arm, "");
        pkg("Apple falls back to Intel", armHalf + pair("_x86_64", intel, sha), intel, sha, nullptr, "arm64");
        pkg("Intel never takes arm64", pair("_arm64", arm, sha) + pair("", any, ""), any, {}, "upd_no_pkg_os");
        pkg("halves never combined", armHalf + pair("_x86_64", "", sha) + pair("", any, ""), any, {}, "upd_no_pkg_os",
            "arm64");
        pkg("any-Mac pair, trimmed", pair("", " " + any, sha + "\\n"), any, sha, nullptr);
        pkg("63-character digest", pair("", any, sha.left(63)), any, sha.left(63), "upd_sha_unverifiable");
        pkg("65-character digest", pair("", any, sha + "0"), any, sha + "0", "upd_sha_unverifiable");
        pkg("letter g", pair("", any, withG), any, withG, "upd_sha_unverifiable");
        pkg("scheme is case-sensitive", pair("", "HTTPS://a/b", sha), "HTTPS://a/b", sha, "upd_insecure_url");
        pkg("plain http, still mandatory", pair("", "http://a/b", "f") + R"(,"is_mandatory":true)", "http://a/b", "f",
            "upd_insecure_url", "x86_64", true);
    }

    void verdicts()
    {
        QFETCH(QByteArray, body);
        QFETCH(QString, installed);
        QFETCH(QString, architecture);
        QFETCH(QStringList, verdict);
        const auto asked = [&] { return installed; };
        const Verdict got = evaluateReleaseBody(body, asked, architecture);
        QCOMPARE(describe(got.info), verdict);
        QCOMPARE(got.ok, got.info.message.isEmpty());
    }

    void query_data()
    {
        QTest::addColumn<ScriptedResponse>("response");
        QTest::addColumn<bool>("ok");
        const ScriptedResponse record = ScriptedResponse::json(release("2", pair("", any, sha)));
        plain.setResponse(path, record);
        QTest::newRow("newer release") << record << true;
        QTest::newRow("unauthorised") << ScriptedResponse::error(401) << false;
        QTest::newRow("redirect to plain HTTP") << ScriptedResponse::redirect(plain.url(path).toEncoded()) << false;
    }

    void query()
    {
        QFETCH(ScriptedResponse, response);
        QFETCH(bool, ok);
        HttpsTestServer service;
        QVERIFY(service.start());
        service.setResponse(path, response);
        QList<QPair<bool, QString>> answers;
        UpdateChecker checker(service.baseUrl());
        checker.checkForUpdate([&](bool yes, const UpdateInfo &info) { answers.append({yes, info.message}); });
        QTRY_VERIFY_WITH_TIMEOUT(!answers.isEmpty(), 15000);
        QTest::qWait(100); // a second answer would come now
        QCOMPARE(answers, (QList<QPair<bool, QString>>{{ok, ok ? QString() : translate("upd_ver_net")}}));
        QCOMPARE(plain.requests().size(), 0);
        QCOMPARE(service.requests().size(), 1);
        const RecordedRequest request = service.requests().first();
        QCOMPARE(request.method + ' ' + request.target, "GET " + path + "?select=*&order=created_at.desc&limit=1");
        QCOMPARE(serviceKey().size(), 169);
        QCOMPARE(request.header("apikey"), serviceKey());
        QCOMPARE(request.header("Authorization"), "Bearer " + serviceKey());
    }
};

QTEST_GUILESS_MAIN(TestReleaseCheck)
#include "tst_releasecheck.moc"
