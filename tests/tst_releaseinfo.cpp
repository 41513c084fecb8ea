#include "releaseinfo.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

Q_DECLARE_METATYPE(UpdateInfo)

namespace {

const QString digest = QStringLiteral("0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef");
const QString armUrl = QStringLiteral("https://cdn.example.com/Velmora-arm64.zip");
const QString intelUrl = QStringLiteral("https://cdn.example.com/Velmora-x86_64.zip");
const QString anyMacUrl = QStringLiteral("https://cdn.example.com/Velmora.zip");

QByteArray bodyOf(const QJsonValue &value)
{
    return QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
}

// A newer release (9.0.0) with the given members on top of the notes.
QByteArray release(const QJsonObject &members)
{
    QJsonObject record{{"version_number", "9.0.0"}, {"release_notes", "Faster start"}};
    for (auto it = members.begin(); it != members.end(); ++it)
        record.insert(it.key(), it.value());
    return bodyOf(record);
}

UpdateInfo expected(const QString &version, const QString &message)
{
    UpdateInfo info;
    info.version = version;
    info.message = message;
    return info;
}

UpdateInfo expectedPackage(const QString &url, const QString &sha256, const QString &message = {},
                           bool mandatory = false, const QString &notes = QStringLiteral("Faster start"))
{
    UpdateInfo info = expected(QStringLiteral("9.0.0"), message);
    info.downloadUrl = url;
    info.sha256 = sha256;
    info.releaseNotes = notes;
    info.mandatory = mandatory;
    return info;
}

const QString verFailed = QStringLiteral("Could not fetch version information.");
const QString noPackage = QStringLiteral("No package has been published for this operating system.");
const QString insecure = QStringLiteral("The update address is not secure.");
const QString unverifiable = QStringLiteral("The update package cannot be verified (SHA-256).");

QString invalidVersion(const QString &text)
{
    return QStringLiteral("Could not fetch version information (invalid version: %1).").arg(text);
}

QString upToDate(const QString &installed)
{
    return QStringLiteral("Already up to date (%1).").arg(installed);
}

} // namespace

class TestReleaseInfo : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void parsesVersionTexts_data();
    void parsesVersionTexts();
    void evaluatesReleaseRecords_data();
    void evaluatesReleaseRecords();
};

void TestReleaseInfo::initTestCase()
{
    Q_INIT_RESOURCE(updater);
    // The settings store is empty (isolated XDG_CONFIG_HOME), so the
    // environment decides the language.
    qputenv("VELMORA_DEFAULT_LANGUAGE", "en");
}

void TestReleaseInfo::parsesVersionTexts_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("valid");
    QTest::addColumn<QList<uint>>("parts");

    QTest::newRow("three components") << "2.4.1" << true << QList<uint>{2, 4, 1};
    QTest::newRow("leading v") << "v2.4.1" << true << QList<uint>{2, 4, 1};
    QTest::newRow("leading V") << "V3" << true << QList<uint>{3, 0, 0};
    QTest::newRow("two components") << "2.1" << true << QList<uint>{2, 1, 0};
    QTest::newRow("leading zeros") << "01.002.0003" << true << QList<uint>{1, 2, 3};
    QTest::newRow("surrounding blanks") << "  v1.2.3\n" << true << QList<uint>{1, 2, 3};
    QTest::newRow("pre-release suffix") << "2.0.0-beta.1" << true << QList<uint>{2, 0, 0};
    QTest::newRow("build suffix") << "2.0.0+42" << true << QList<uint>{2, 0, 0};
    QTest::newRow("suffix hides a fourth component") << "1.2.3-4.5" << true << QList<uint>{1, 2, 3};
    QTest::newRow("nine digits") << "999999999.0.123456789" << true << QList<uint>{999999999, 0, 123456789};
    QTest::newRow("ten digits") << "1234567890.0.0" << false << QList<uint>{};
    QTest::newRow("fourth component") << "1.2.3.4" << false << QList<uint>{};
    QTest::newRow("empty middle component") << "1..2" << false << QList<uint>{};
    QTest::newRow("empty first component") << ".1" << false << QList<uint>{};
    QTest::newRow("empty last component") << "1.2." << false << QList<uint>{};
    QTest::newRow("empty") << "" << false << QList<uint>{};
    QTest::newRow("blanks only") << " \t " << false << QList<uint>{};
    QTest::newRow("just v") << "v" << false << QList<uint>{};
    QTest::newRow("v then suffix") << "v-rc1" << false << QList<uint>{};
    QTest::newRow("begins with plus") << "+1" << false << QList<uint>{};
    QTest::newRow("begins with minus") << "-1.0" << false << QList<uint>{};
    QTest::newRow("blank inside") << "1. 2" << false << QList<uint>{};
    QTest::newRow("blank after v") << "v 1.2" << false << QList<uint>{};
    QTest::newRow("letter in component") << "1.2a" << false << QList<uint>{};
    QTest::newRow("word") << "unknown" << false << QList<uint>{};
    QTest::newRow("non-Latin digits") << QStringLiteral("\u0661.\u0662") << false << QList<uint>{};
}

void TestReleaseInfo::parsesVersionTexts()
{
    QFETCH(QString, text);
    QFETCH(bool, valid);
    QFETCH(QList<uint>, parts);

    const ParsedVersion version = parseVersion(text);
    QCOMPARE(version.valid, valid);
    if (valid)
        QCOMPARE((QList<uint>{version.major, version.minor, version.patch}), parts);
}

void TestReleaseInfo::evaluatesReleaseRecords_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QString>("installed");
    QTest::addColumn<QString>("architecture");
    QTest::addColumn<bool>("ok");
    QTest::addColumn<bool>("asksInstalled");
    QTest::addColumn<UpdateInfo>("info");

    const QString older = QStringLiteral("1.0.0");
    const QJsonObject intelPair{{"download_url_macos_x86_64", intelUrl}, {"sha256_macos_x86_64", digest}};
    const QJsonObject armPair{{"download_url_macos_arm64", armUrl}, {"sha256_macos_arm64", digest}};
    QJsonObject bothPairs = intelPair;
    bothPairs.insert("download_url_macos_arm64", armUrl);
    bothPairs.insert("sha256_macos_arm64", QString(digest).replace('0', 'a'));
    const QString armDigest = QString(digest).replace('0', 'a');

    // What comes back does not hold a usable record.
    QTest::newRow("empty array") << QByteArray("[]") << older << "x86_64" << false << false << expected({}, verFailed);
    QTest::newRow("top-level object with a valid version")
        << QByteArray(R"({"version_number":"9.0.0"})") << older << "x86_64" << false << false << expected({}, verFailed);
    QTest::newRow("not JSON") << QByteArray("<html>busy</html>") << older << "x86_64" << false << false << expected({}, verFailed);
    QTest::newRow("first element not an object")
        << QByteArray(R"(["9.0.0", {"version_number":"9.0.0"}])") << older << "x86_64" << false << false << expected({}, verFailed);
    QTest::newRow("version missing") << bodyOf(QJsonObject{{"release_notes", "x"}}) << older << "x86_64" << false << false
                                     << expected({}, verFailed);
    QTest::newRow("version a number") << bodyOf(QJsonObject{{"version_number", 9}}) << older << "x86_64" << false << false
                                      << expected({}, verFailed);
    QTest::newRow("version empty") << bodyOf(QJsonObject{{"version_number", ""}}) << older << "x86_64" << false << false
                                   << expected({}, verFailed);

    // The release's own version decides before the installed one is asked for.
    QTest::newRow("fourth component") << bodyOf(QJsonObject{{"version_number", "1.2.3.4"}}) << older << "x86_64" << false
                                      << false << expected("1.2.3.4", invalidVersion("1.2.3.4"));
    QTest::newRow("ten digits") << bodyOf(QJsonObject{{"version_number", "1234567890.0.0"}}) << older << "x86_64" << false
                                << false << expected("1234567890.0.0", invalidVersion("1234567890.0.0"));
    QTest::newRow("blank version") << bodyOf(QJsonObject{{"version_number", "  "}}) << older << "x86_64" << false << false
                                   << expected("  ", invalidVersion("  "));

    // Comparison with the installed version.
    QTest::newRow("suffix makes no newer release") << bodyOf(QJsonObject{{"version_number", "2.4.1-rc1"}}) << "2.4.1"
                                                   << "x86_64" << false << true << expected("2.4.1-rc1", upToDate("2.4.1"));
    QTest::newRow("missing component is zero") << bodyOf(QJsonObject{{"version_number", "2.4"}}) << "2.4.0" << "x86_64"
                                               << false << true << expected("2.4", upToDate("2.4.0"));
    QTest::newRow("older release") << bodyOf(QJsonObject{{"version_number", "2.3.99"}}) << "v2.4.0" << "x86_64" << false
                                   << true << expected("2.3.99", upToDate("v2.4.0"));
    QTest::newRow("installed text shown untrimmed") << bodyOf(QJsonObject{{"version_number", "1.0"}}) << " 1.0.0 "
                                                    << "x86_64" << false << true << expected("1.0", upToDate(" 1.0.0 "));
    QTest::newRow("release 0.0.0 never installs") << bodyOf(QJsonObject{{"version_number", "0.0.0"}}) << "unknown"
                                                  << "x86_64" << false << true << expected("0.0.0", upToDate("unknown"));
    QTest::newRow("nine-digit components compare by value")
        << bodyOf(QJsonObject{{"version_number", "999999999"}}) << "999999999.0.1" << "x86_64" << false << true
        << expected("999999999", upToDate("999999999.0.1"));
    QTest::newRow("two-digit minor is newer") << release(intelPair).replace("9.0.0", "v2.10.0") << "2.9.9" << "x86_64"
                                              << true << true
                                              << [&] { UpdateInfo i = expectedPackage(intelUrl, digest); i.version = "v2.10.0"; return i; }();
    QTest::newRow("unparsable installed counts as 0.0.0") << release(intelPair).replace("9.0.0", "0.0.1") << "unknown"
                                                          << "x86_64" << true << true
                                                          << [&] { UpdateInfo i = expectedPackage(intelUrl, digest); i.version = "0.0.1"; return i; }();
    QTest::newRow("version kept as received") << release(intelPair).replace("\"9.0.0\"", "\" v9.0.0-rc2 \"") << "8.9"
                                              << "x86_64" << true << true
                                              << [&] { UpdateInfo i = expectedPackage(intelUrl, digest); i.version = " v9.0.0-rc2 "; return i; }();

    // Package choice per processor; a pair is taken whole or not at all.
    QTest::newRow("Intel takes the x86_64 pair") << release(bothPairs) << older << "x86_64" << true << true
                                                 << expectedPackage(intelUrl, digest);
    QTest::newRow("Apple takes the arm64 pair") << release(bothPairs) << older << "arm64" << true << true
                                                << expectedPackage(armUrl, armDigest);
    QTest::newRow("Apple falls back to x86_64") << release(intelPair) << older << "arm64" << true << true
                                                << expectedPackage(intelUrl, digest);
    QTest::newRow("Apple skips an arm64 url without digest")
        << release(QJsonObject{{"download_url_macos_arm64", armUrl}, {"download_url_macos_x86_64", intelUrl},
                               {"sha256_macos_x86_64", digest}})
        << older << "arm64" << true << true << expectedPackage(intelUrl, digest);
    QTest::newRow("Apple skips an arm64 digest without url")
        << release(QJsonObject{{"sha256_macos_arm64", armDigest}, {"download_url_macos", anyMacUrl}, {"sha256_macos", digest}})
        << older << "arm64" << true << true << expectedPackage(anyMacUrl, digest);
    QTest::newRow("Intel never takes the arm64 pair") << release(armPair) << older << "x86_64" << false << true
                                                      << expectedPackage({}, {}, noPackage);
    QTest::newRow("Intel takes the any-Mac pair") << release(QJsonObject{{"download_url_macos", anyMacUrl}, {"sha256_macos", digest}})
                                                  << older << "x86_64" << true << true << expectedPackage(anyMacUrl, digest);
    QTest::newRow("half any-Mac pair is kept but refused")
        << release(QJsonObject{{"download_url_macos", anyMacUrl}, {"sha256_macos_x86_64", digest}}) << older << "x86_64"
        << false << true << expectedPackage(anyMacUrl, {}, noPackage);
    QTest::newRow("half pairs are never combined")
        << release(QJsonObject{{"download_url_macos_arm64", armUrl}, {"sha256_macos_x86_64", digest}}) << older << "arm64"
        << false << true << expectedPackage({}, {}, noPackage);
    QTest::newRow("architecture test is case-sensitive") << release(bothPairs) << older << "ARM64" << true << true
                                                         << expectedPackage(intelUrl, digest);
    QTest::newRow("no package at all") << release({}) << older << "arm64" << false << true
                                       << expectedPackage({}, {}, noPackage);
    QTest::newRow("url of another type reads as empty")
        << release(QJsonObject{{"download_url_macos_x86_64", 42}, {"sha256_macos_x86_64", digest}}) << older << "x86_64"
        << false << true << expectedPackage({}, {}, noPackage);

    // Address and digest checks.
    QTest::newRow("upper-case digest is lowered")
        << release(QJsonObject{{"download_url_macos_x86_64", intelUrl}, {"sha256_macos_x86_64", digest.toUpper()}})
        << older << "x86_64" << true << true << expectedPackage(intelUrl, digest);
    QTest::newRow("url and digest are trimmed")
        << release(QJsonObject{{"download_url_macos_x86_64", " " + intelUrl + "\n"}, {"sha256_macos_x86_64", "\t" + digest + " "}})
        << older << "x86_64" << true << true << expectedPackage(intelUrl, digest);
    QTest::newRow("63-character digest")
        << release(QJsonObject{{"download_url_macos_x86_64", intelUrl}, {"sha256_macos_x86_64", digest.left(63)}})
        << older << "x86_64" << false << true << expectedPackage(intelUrl, digest.left(63), unverifiable);
    QTest::newRow("65-character digest")
        << release(QJsonObject{{"download_url_macos_x86_64", intelUrl}, {"sha256_macos_x86_64", digest + "0"}})
        << older << "x86_64" << false << true << expectedPackage(intelUrl, digest + "0", unverifiable);
    const QString withG = QString(digest).replace(10, 1, "g");
    QTest::newRow("letter g in digest")
        << release(QJsonObject{{"download_url_macos_x86_64", intelUrl}, {"sha256_macos_x86_64", withG}})
        << older << "x86_64" << false << true << expectedPackage(intelUrl, withG, unverifiable);
    const QString arabicDigit = QString(digest).replace(0, 1, QChar(0x0663));
    QTest::newRow("non-Latin decimal digit passes the form check")
        << release(QJsonObject{{"download_url_macos_x86_64", intelUrl}, {"sha256_macos_x86_64", arabicDigit}})
        << older << "x86_64" << true << true << expectedPackage(intelUrl, arabicDigit);
    const QString upperScheme = QStringLiteral("HTTPS://cdn.example.com/Velmora.zip");
    QTest::newRow("upper-case scheme is refused")
        << release(QJsonObject{{"download_url_macos_x86_64", upperScheme}, {"sha256_macos_x86_64", digest}})
        << older << "x86_64" << false << true << expectedPackage(upperScheme, digest, insecure);
    const QString plain = QStringLiteral("http://cdn.example.com/Velmora.zip");
    QTest::newRow("plain http is refused")
        << release(QJsonObject{{"download_url_macos_x86_64", plain}, {"sha256_macos_x86_64", digest.left(3)}})
        << older << "x86_64" << false << true << expectedPackage(plain, digest.left(3), insecure);

    // Record members of the wrong type.
    QJsonObject mandatory = intelPair;
    mandatory.insert("is_mandatory", true);
    QTest::newRow("mandatory release") << release(mandatory) << older << "x86_64" << true << true
                                       << expectedPackage(intelUrl, digest, {}, true);
    mandatory.insert("is_mandatory", "true");
    QTest::newRow("mandatory as a string is false") << release(mandatory) << older << "x86_64" << true << true
                                                    << expectedPackage(intelUrl, digest, {}, false);
    mandatory.insert("is_mandatory", 1);
    QTest::newRow("mandatory as a number is false") << release(mandatory) << older << "x86_64" << true << true
                                                    << expectedPackage(intelUrl, digest, {}, false);
    mandatory.insert("is_mandatory", true);
    mandatory.insert("release_notes", QJsonArray{"a"});
    QTest::newRow("notes of another type are empty") << release(mandatory) << older << "x86_64" << true << true
                                                     << expectedPackage(intelUrl, digest, {}, true, {});
    mandatory.insert("download_url_macos_x86_64", plain);
    QTest::newRow("refused release keeps notes and mandatory")
        << release(mandatory) << older << "x86_64" << false << true << expectedPackage(plain, digest, insecure, true, {});
}

void TestReleaseInfo::evaluatesReleaseRecords()
{
    QFETCH(QByteArray, body);
    QFETCH(QString, installed);
    QFETCH(QString, architecture);
    QFETCH(bool, ok);
    QFETCH(bool, asksInstalled);
    QFETCH(UpdateInfo, info);

    int asked = 0;
    const Verdict verdict = evaluateReleaseBody(body, [&] { ++asked; return installed; }, architecture);

    QCOMPARE(verdict.ok, ok);
    QCOMPARE(verdict.info.message, info.message);
    QCOMPARE(verdict.info.version, info.version);
    QCOMPARE(verdict.info.downloadUrl, info.downloadUrl);
    QCOMPARE(verdict.info.releaseNotes, info.releaseNotes);
    QCOMPARE(verdict.info.sha256, info.sha256);
    QCOMPARE(verdict.info.mandatory, info.mandatory);
    QCOMPARE(verdict.info.packageFlag, false);
    QCOMPARE(asked, asksInstalled ? 1 : 0);
}

QTEST_GUILESS_MAIN(TestReleaseInfo)
#include "tst_releaseinfo.moc"
