#include "releaseinfo.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

Q_DECLARE_METATYPE(UpdateInfo)

namespace {

const QString digest = QStringLiteral("0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef");
const QString armDigest = QString(digest).replace('0', 'a');
const QString armUrl = QStringLiteral("https://cdn.example.com/Velmora-arm64.zip");
const QString intelUrl = QStringLiteral("https://cdn.example.com/Velmora-x86_64.zip");
const QString anyMacUrl = QStringLiteral("https://cdn.example.com/Velmora.zip");

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

// The package members for one architecture suffix ("_x86_64", "_arm64", or
// "" for any Mac).
QJsonObject pair(const QString &suffix, const QString &url, const QString &sha)
{
    return {{"download_url_macos" + suffix, url}, {"sha256_macos" + suffix, sha}};
}

QJsonObject operator+(QJsonObject members, const QJsonObject &more)
{
    for (auto it = more.begin(); it != more.end(); ++it)
        members.insert(it.key(), it.value());
    return members;
}

QByteArray versionOnly(const QString &version)
{
    return QJsonDocument(QJsonArray{QJsonObject{{"version_number", version}}}).toJson(QJsonDocument::Compact);
}

// A release with notes and the given members, newer than 1.0.0 by default.
QByteArray release(const QJsonObject &members, const QString &version = QStringLiteral("9.0.0"))
{
    const QJsonObject record = QJsonObject{{"version_number", version}, {"release_notes", "Faster start"}} + members;
    return QJsonDocument(QJsonArray{record}).toJson(QJsonDocument::Compact);
}

UpdateInfo refused(const QString &version, const QString &message)
{
    UpdateInfo info;
    info.version = version;
    info.message = message;
    return info;
}

UpdateInfo offer(const QString &url, const QString &sha, const QString &message = {},
                 const QString &version = QStringLiteral("9.0.0"))
{
    UpdateInfo info = refused(version, message);
    info.downloadUrl = url;
    info.sha256 = sha;
    info.releaseNotes = QStringLiteral("Faster start");
    return info;
}

void row(const char *name, const QByteArray &body, const UpdateInfo &info, const QString &installed = QStringLiteral("1.0.0"),
         const QString &architecture = QStringLiteral("x86_64"))
{
    QTest::newRow(name) << body << installed << architecture << info;
}

} // namespace

class TestReleaseInfo : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        Q_INIT_RESOURCE(updater);
        // The settings store is empty (isolated XDG_CONFIG_HOME), so the
        // environment decides the language.
        qputenv("VELMORA_DEFAULT_LANGUAGE", "en");
    }

    void parsesVersionTexts_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("valid");
        QTest::addColumn<QList<uint>>("parts");

        QTest::newRow("leading v") << "v2.4.1" << true << QList<uint>{2, 4, 1};
        QTest::newRow("leading V, one component") << "V3" << true << QList<uint>{3, 0, 0};
        QTest::newRow("two components") << "2.1" << true << QList<uint>{2, 1, 0};
        QTest::newRow("surrounding blanks") << "  v1.2.3\n" << true << QList<uint>{1, 2, 3};
        // The suffix goes before the components are counted.
        QTest::newRow("pre-release suffix") << "1.2.3-4.5" << true << QList<uint>{1, 2, 3};
        QTest::newRow("build suffix") << "2.0.0+42" << true << QList<uint>{2, 0, 0};
        QTest::newRow("nine digits") << "999999999.0.123456789" << true << QList<uint>{999999999, 0, 123456789};
        QTest::newRow("ten digits") << "1234567890.0.0" << false << QList<uint>{};
        QTest::newRow("fourth component") << "1.2.3.4" << false << QList<uint>{};
        QTest::newRow("empty middle component") << "1..2" << false << QList<uint>{};
        QTest::newRow("empty") << "" << false << QList<uint>{};
        QTest::newRow("blanks only") << " \t " << false << QList<uint>{};
        QTest::newRow("begins with minus") << "-1.0" << false << QList<uint>{};
        QTest::newRow("blank inside") << "1. 2" << false << QList<uint>{};
        QTest::newRow("letter in component") << "1.2a" << false << QList<uint>{};
        QTest::newRow("non-Latin digits") << QStringLiteral("\u0661.\u0662") << false << QList<uint>{};
    }

    void parsesVersionTexts()
    {
        QFETCH(QString, text);
        QFETCH(bool, valid);
        QFETCH(QList<uint>, parts);

        const ParsedVersion version = parseVersion(text);
        QCOMPARE(version.valid, valid);
        if (valid)
            QCOMPARE((QList<uint>{version.major, version.minor, version.patch}), parts);
    }

    void evaluatesReleaseRecords_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("installed");
        QTest::addColumn<QString>("architecture");
        QTest::addColumn<UpdateInfo>("info"); // no message: an update is offered

        const QJsonObject intelPair = pair("_x86_64", intelUrl, digest);
        const QJsonObject bothPairs = intelPair + pair("_arm64", armUrl, armDigest);

        // What comes back does not hold a usable record.
        row("empty array", "[]", refused({}, verFailed));
        row("top-level object", R"({"version_number":"9.0.0"})", refused({}, verFailed));
        row("first element not an object", R"(["9.0.0", {"version_number":"9.0.0"}])", refused({}, verFailed));
        row("version missing", R"([{"release_notes":"x"}])", refused({}, verFailed));
        row("version a number", R"([{"version_number":9}])", refused({}, verFailed));
        row("version empty", versionOnly(""), refused({}, verFailed));
        row("invalid version", versionOnly("1.2.3.4"), refused("1.2.3.4", invalidVersion("1.2.3.4")));

        // Comparison with the installed version, which the message shows as given.
        row("suffix makes no newer release", versionOnly("2.4.1-rc1"), refused("2.4.1-rc1", upToDate("2.4.1")), "2.4.1");
        row("older release", versionOnly("2.3.99"), refused("2.3.99", upToDate(" v2.4.0 ")), " v2.4.0 ");
        row("release 0.0.0 never installs", versionOnly("0.0.0"), refused("0.0.0", upToDate("unknown")), "unknown");
        row("unparsable installed counts as 0.0.0", release(intelPair, "0.0.1"), offer(intelUrl, digest, {}, "0.0.1"), "unknown");
        row("two-digit minor is newer", release(intelPair, "v2.10.0"), offer(intelUrl, digest, {}, "v2.10.0"), "2.9.9");
        row("version kept as received", release(intelPair, " v9.0.0-rc2 "), offer(intelUrl, digest, {}, " v9.0.0-rc2 "), "8.9");

        // Package choice per processor; a pair is taken whole or not at all.
        row("Intel takes the x86_64 pair", release(bothPairs), offer(intelUrl, digest));
        row("Apple takes the arm64 pair", release(bothPairs), offer(armUrl, armDigest), "1.0.0", "arm64");
        row("Apple falls back to x86_64", release(intelPair), offer(intelUrl, digest), "1.0.0", "arm64");
        row("Apple skips an arm64 url without digest", release(intelPair + QJsonObject{{"download_url_macos_arm64", armUrl}}),
            offer(intelUrl, digest), "1.0.0", "arm64");
        row("Apple skips an arm64 digest without url",
            release(pair("", anyMacUrl, digest) + QJsonObject{{"sha256_macos_arm64", armDigest}}), offer(anyMacUrl, digest),
            "1.0.0", "arm64");
        row("Intel never takes the arm64 pair", release(pair("_arm64", armUrl, digest)), offer({}, {}, noPackage));
        row("Intel takes the any-Mac pair", release(pair("", anyMacUrl, digest)), offer(anyMacUrl, digest));
        row("half any-Mac pair is kept but refused",
            release(QJsonObject{{"download_url_macos", anyMacUrl}, {"sha256_macos_x86_64", digest}}),
            offer(anyMacUrl, {}, noPackage));
        row("half pairs are never combined",
            release(QJsonObject{{"download_url_macos_arm64", armUrl}, {"sha256_macos_x86_64", digest}}), offer({}, {}, noPackage),
            "1.0.0", "arm64");

        // Address and digest checks.
        row("upper-case digest is lowered", release(pair("_x86_64", intelUrl, digest.toUpper())), offer(intelUrl, digest));
        row("url and digest are trimmed", release(pair("_x86_64", " " + intelUrl + "\n", "\t" + digest + " ")),
            offer(intelUrl, digest));
        row("63-character digest", release(pair("_x86_64", intelUrl, digest.left(63))),
            offer(intelUrl, digest.left(63), unverifiable));
        row("65-character digest", release(pair("_x86_64", intelUrl, digest + "0")), offer(intelUrl, digest + "0", unverifiable));
        const QString withG = QString(digest).replace(10, 1, "g");
        row("letter g in digest", release(pair("_x86_64", intelUrl, withG)), offer(intelUrl, withG, unverifiable));
        const QString upperScheme = QStringLiteral("HTTPS://cdn.example.com/Velmora.zip");
        row("upper-case scheme is refused", release(pair("_x86_64", upperScheme, digest)), offer(upperScheme, digest, insecure));
        // A refused release still carries its notes and mandatory flag.
        const QString plain = QStringLiteral("http://cdn.example.com/Velmora.zip");
        UpdateInfo plainRefused = offer(plain, digest.left(3), insecure);
        plainRefused.mandatory = true;
        row("plain http is refused", release(pair("_x86_64", plain, digest.left(3)) + QJsonObject{{"is_mandatory", true}}),
            plainRefused);
        row("mandatory as a string is false", release(intelPair + QJsonObject{{"is_mandatory", "true"}}),
            offer(intelUrl, digest));
    }

    void evaluatesReleaseRecords()
    {
        QFETCH(QByteArray, body);
        QFETCH(QString, installed);
        QFETCH(QString, architecture);
        QFETCH(UpdateInfo, info);

        int asked = 0;
        const Verdict verdict = evaluateReleaseBody(body, [&] { ++asked; return installed; }, architecture);
        QCOMPARE(verdict.ok, info.message.isEmpty());
        QCOMPARE(verdict.info.message, info.message);
        QCOMPARE(verdict.info.version, info.version);
        QCOMPARE(verdict.info.downloadUrl, info.downloadUrl);
        QCOMPARE(verdict.info.sha256, info.sha256);
        QCOMPARE(verdict.info.releaseNotes, info.releaseNotes);
        QCOMPARE(verdict.info.mandatory, info.mandatory);
        // The installed version is asked for only once the release's own is valid.
        QCOMPARE(asked, !info.version.isEmpty() && info.message != invalidVersion(info.version) ? 1 : 0);
    }
};

QTEST_GUILESS_MAIN(TestReleaseInfo)
#include "tst_releaseinfo.moc"
