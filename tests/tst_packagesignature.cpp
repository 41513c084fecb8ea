// Signatures come from the real minisign tool, made afresh for every run, so
// the updater is checked against what a publisher actually ships. The package
// is a zip that holds no bundle: through a real Downloader, an accepted
// signature ends in "Velmora.app was not found" after unpacking, a refused
// one before anything is unpacked.

#include "downloader.h"
#include "httpstestserver.h"
#include "localisation.h"
#include "packagesignature.h"
#include "sandbox.h"
#include "testfiles.h"

#include <QCryptographicHash>
#include <QDir>
#include <QHash>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>

class TestPackageSignature : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void verify_data();
    void verify();
    void parseKeys_data();
    void parseKeys();
    void throughTheDownloader_data();
    void throughTheDownloader();

private:
    bool minisign(const QStringList &arguments) const;
    QByteArray file(const QString &name) const;
    QList<SigningKey> keys(const QString &which) const;
    QByteArray sign(const QString &key, const QString &target, const QByteArray &comment, bool legacy = false);

    QTemporaryDir m_dir;
    QString m_minisign;
    QHash<QString, QByteArray> m_signatures;
    QByteArray m_package;
    PackageDigests m_digests;
    int m_signed = 0;
};

bool TestPackageSignature::minisign(const QStringList &arguments) const
{
    QProcess process;
    process.setStandardInputFile(QProcess::nullDevice());
    process.start(m_minisign, arguments);
    return process.waitForFinished(30000) && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

QByteArray TestPackageSignature::file(const QString &name) const
{
    QFile f(m_dir.filePath(name));
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// "12": key1.pub and key2.pub, as a rotation ships them. Keys that did not
// parse would show as refusals where a row expects a verdict of the key.
QList<SigningKey> TestPackageSignature::keys(const QString &which) const
{
    QByteArray text;
    for (const QChar key : which)
        text += file(QStringLiteral("key%1.pub").arg(key)) + '\n';
    QList<SigningKey> parsed;
    parseSigningKeys(text, &parsed, nullptr);
    return parsed;
}

QByteArray TestPackageSignature::sign(const QString &key, const QString &target, const QByteArray &comment, bool legacy)
{
    const QString out = QStringLiteral("%1.minisig").arg(++m_signed);
    QStringList arguments{"-S", "-s", m_dir.filePath(key + ".sec"), "-m", m_dir.filePath(target)};
    arguments << "-x" << m_dir.filePath(out) << "-t" << QString::fromUtf8(comment);
    if (legacy)
        arguments << "-l";
    return minisign(arguments) ? file(out) : QByteArray();
}

void TestPackageSignature::initTestCase()
{
    m_minisign = QStandardPaths::findExecutable(QStringLiteral("minisign"));
    QVERIFY2(!m_minisign.isEmpty(), "minisign must be installed to make the signatures");
    QVERIFY(m_dir.isValid() && HttpsTestServer::trustTestCa());
    for (const QString key : {"key1", "key2"})
        QVERIFY(minisign({"-G", "-W", "-p", m_dir.filePath(key + ".pub"), "-s", m_dir.filePath(key + ".sec")}));
    // Noise does not compress, so the zip is over a megabyte and not a
    // multiple of any read size: the digests must be carried across chunks
    // and end on a short one.
    QByteArray noise(1024 * 1024 + 4097, Qt::Uninitialized);
    std::generate(noise.begin(), noise.end(), [n = 0u]() mutable { return char((n = n * 1103515245 + 12345) >> 16); });
    QVERIFY(writeFile(m_dir.filePath("contents/payload.bin"), noise));
    m_package = zipFolder(m_dir.filePath("contents"));
    QVERIFY(m_package.size() > noise.size() && m_package.size() % 512);
    QVERIFY(writeFile(m_dir.filePath("package"), m_package) && writeFile(m_dir.filePath("other"), noise.left(4096)));
    m_digests = digestPackage(m_dir.filePath("package"));
    QVERIFY(m_digests.ok);
    QCOMPARE(m_digests.sha256, QCryptographicHash::hash(m_package, QCryptographicHash::Sha256));

    m_signatures = {
        {"key 1", sign("key1", "package", "version:2.0.0")},
        {"key 2", sign("key2", "package", "version:2.0.0")},
        {"legacy", sign("key1", "package", "version:2.0.0", true)},
        {"extra tokens", sign("key1", "package", "timestamp:1718000000\tversion:2.0.0  file:VelmoraUpdate.zip")},
        {"other file", sign("key1", "other", "version:2.0.0")},
        {"legacy other file", sign("key1", "other", "version:2.0.0", true)},
        {"2.0.1", sign("key1", "package", "version:2.0.1")},
        {"2.0.0.1", sign("key1", "package", "version:2.0.0.1")},
        {"xversion", sign("key1", "package", "xversion:2.0.0")},
        {"two versions", sign("key1", "package", "version:2.0.0 version:9.9.9")},
        {"delta", sign("key1", "package", "version:2.0.0 from:1.0.0 kind:delta")},
        {"delta without kind", sign("key1", "package", "version:2.0.0 from:1.0.0")},
    };
    for (const QByteArray &signature : std::as_const(m_signatures))
        QVERIFY(!signature.isEmpty());

    const QByteArray valid = m_signatures.value("key 1");
    QByteArray retargeted = m_signatures.value("2.0.1");
    retargeted.replace("trusted comment: version:2.0.1", "trusted comment: version:2.0.0");
    QList<QByteArray> lines = valid.split('\n');
    lines[3][0] = lines[3][0] == 'A' ? 'B' : 'A';
    m_signatures.insert("comment altered", retargeted);
    m_signatures.insert("global corrupted", lines.join('\n'));
    m_signatures.insert("crlf", QByteArray(valid).replace("\n", "\r\n"));
    m_signatures.insert("oversized",
                        "untrusted comment: " + QByteArray(70 * 1024, 'x') + valid.mid(valid.indexOf('\n')));
    m_signatures.insert("public key", file("key1.pub"));
    m_signatures.insert("empty", QByteArray());
}

void TestPackageSignature::verify_data()
{
    QTest::addColumn<QString>("signature");
    QTest::addColumn<QString>("keys");
    QTest::addColumn<QString>("expectedVersion"); // "2.0.0<1.0.0": a delta to 2.0.0 from 1.0.0
    QTest::addColumn<SignatureVerdict>("verdict");

    using V = SignatureVerdict;
    const auto row = [](const char *name, const char *signature, const char *keys, const char *version, V verdict) {
        QTest::newRow(name) << QString::fromLatin1(signature) << QString::fromLatin1(keys)
                            << QString::fromLatin1(version) << verdict;
    };
    row("accepts the configured key", "key 1", "1", "2.0.0", V::Valid);
    row("accepts the new key during a rotation", "key 2", "12", "2.0.0", V::Valid);
    row("accepts the legacy form", "legacy", "1", "2.0.0", V::Valid);
    row("accepts other tokens around the version", "extra tokens", "1", "2.0.0", V::Valid);
    row("refuses a key that is not configured", "key 2", "1", "2.0.0", V::UnknownKey);
    row("refuses when no key is configured", "key 1", "", "2.0.0", V::UnknownKey);
    row("refuses the signature of another file", "other file", "1", "2.0.0", V::BadSignature);
    row("refuses a legacy signature of another file", "legacy other file", "1", "2.0.0", V::BadSignature);
    row("refuses another release", "2.0.1", "1", "2.0.0", V::WrongVersion);
    row("refuses a longer version", "2.0.0.1", "1", "2.0.0", V::WrongVersion);
    row("refuses a version that only starts the same", "key 1", "1", "2.0", V::WrongVersion);
    row("refuses a token that only ends in version:", "xversion", "1", "2.0.0", V::WrongVersion);
    row("refuses two versions, the right one among them", "two versions", "1", "9.9.9", V::WrongVersion);
    row("refuses a delta's signature for a package", "delta", "1", "2.0.0", V::WrongVersion);
    row("accepts a delta's signature for that delta", "delta", "1", "2.0.0<1.0.0", V::Valid);
    row("refuses a package's signature for a delta", "key 1", "1", "2.0.0<1.0.0", V::WrongVersion);
    row("refuses a delta from another installed version", "delta", "1", "2.0.0<1.0.1", V::WrongVersion);
    row("refuses a delta's signature without its kind", "delta without kind", "1", "2.0.0<1.0.0", V::WrongVersion);
    row("refuses a trusted comment edited after signing", "comment altered", "1", "2.0.0", V::BadGlobalSignature);
    row("refuses a damaged global signature", "global corrupted", "1", "2.0.0", V::BadGlobalSignature);
    row("refuses carriage returns", "crlf", "1", "2.0.0", V::Malformed);
    row("refuses an oversized file", "oversized", "1", "2.0.0", V::Malformed);
    row("refuses a public key file", "public key", "1", "2.0.0", V::Malformed);
    row("refuses an empty file", "empty", "1", "2.0.0", V::Malformed);
}

void TestPackageSignature::verify()
{
    QFETCH(QString, signature);
    QFETCH(QString, keys);
    QFETCH(QString, expectedVersion);
    QFETCH(SignatureVerdict, verdict);

    QVERIFY(m_signatures.contains(signature));
    const QStringList delta = expectedVersion.split('<');
    const TrustedClaims claims = delta.size() == 2 ? deltaClaims(delta[0], delta[1]) : packageClaims(expectedVersion);
    QCOMPARE(verifyPackageSignature(m_signatures.value(signature), this->keys(keys), m_dir.filePath("package"),
                                    m_digests, claims),
             verdict);
}

void TestPackageSignature::parseKeys_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<int>("count");

    const QByteArray key1 = file("key1.pub");
    QTest::newRow("one key as minisign writes it") << key1 << 1;
    QTest::newRow("two keys for a rotation") << key1 + "\n\n" + file("key2.pub") << 2;
    QTest::newRow("refuses a stray line") << key1 + "not a key\n" << 0;
    QTest::newRow("refuses a comment without its key") << key1 + "untrusted comment: next" << 0;
    QTest::newRow("refuses a key without its comment") << key1.split('\n').at(1) << 0;
    QTest::newRow("refuses the secret key") << file("key1.sec") << 0;
    QTest::newRow("refuses an empty file") << QByteArray() << 0;
}

void TestPackageSignature::parseKeys()
{
    QFETCH(QByteArray, text);
    QFETCH(int, count);

    QList<SigningKey> keys;
    QString error;
    QCOMPARE(parseSigningKeys(text, &keys, &error), count > 0);
    QCOMPARE(keys.size(), count);
    QCOMPARE(error.isEmpty(), count > 0);
}

void TestPackageSignature::throughTheDownloader_data()
{
    QTest::addColumn<QString>("signature");
    QTest::addColumn<QString>("keys"); // none: signatures are not required
    QTest::addColumn<int>("httpStatus"); // of the answer to the .minisig request
    QTest::addColumn<bool>("unpacked");

    const auto row = [](const char *name, const char *signature, const char *keys, int status, bool unpacked) {
        QTest::newRow(name) << QString::fromLatin1(signature) << QString::fromLatin1(keys) << status << unpacked;
    };
    row("unpacks with the configured key", "key 1", "1", 200, true);
    row("unpacks with the new key during a rotation", "key 2", "12", 200, true);
    row("unpacks the legacy form", "legacy", "1", 200, true);
    row("unpacks with other tokens around the version", "extra tokens", "1", 200, true);
    row("asks for no signature when none is required", "2.0.1", "", 200, true);
    row("refuses a key that is not configured", "key 2", "1", 200, false);
    row("refuses a signature in a 404 answer", "key 1", "1", 404, false);
    row("refuses the signature of another file", "other file", "1", 200, false);
    row("refuses another release", "2.0.1", "1", 200, false);
    row("refuses a version token that only starts the same", "2.0.0.1", "1", 200, false);
    row("refuses a trusted comment edited after signing", "comment altered", "1", 200, false);
    row("refuses a signature file over 64 KiB", "oversized", "1", 200, false);
}

void TestPackageSignature::throughTheDownloader()
{
    QFETCH(QString, signature);
    QFETCH(QString, keys);
    QFETCH(int, httpStatus);
    QFETCH(bool, unpacked);

    const QString temp = QStandardPaths::writableLocation(QStandardPaths::TempLocation);
    QVERIFY(QDir(temp + "/VelmoraExtract").removeRecursively());
    HttpsTestServer server;
    QVERIFY(server.start());
    server.setResponse("/VelmoraUpdate.zip", ScriptedResponse::ok(m_package));
    server.setResponse("/VelmoraUpdate.zip.minisig", {httpStatus, {}, m_signatures.value(signature)});
    Downloader d("2.0.0", server.url("/VelmoraUpdate.zip").toString(), sha256Hex(m_package), false);
    d.requireSignature = !keys.isEmpty();
    d.signingKeys = this->keys(keys);
    QTRY_VERIFY_WITH_TIMEOUT(d.isFinished(), 15000);

    QCOMPARE(d.status(), translate(unpacked ? "upd_app_not_found" : "upd_signature_failed"));
    QCOMPARE(d.phase(), -1);
    QCOMPARE(QFile::exists(temp + "/VelmoraExtract/payload.bin"), unpacked);
    QVERIFY(!QFile::exists(d.packageFilePath()) && !QFile::exists(temp + "/velmora_apply_update.sh"));

    const QList<RecordedRequest> requests = server.requests();
    QByteArrayList paths;
    for (const RecordedRequest &request : requests)
        paths << request.path;
    QCOMPARE(paths,
             QByteArrayList{"/VelmoraUpdate.zip"} + QByteArrayList(!keys.isEmpty(), "/VelmoraUpdate.zip.minisig"));
    // The file server sees the signature fetched as the package is, and no
    // key of the release service.
    QCOMPARE(requests.last().header("User-Agent"), requests.first().header("User-Agent"));
    QCOMPARE(requests.last().header("apikey") + requests.last().header("Authorization"), QByteArray());
}

VELMORA_SANDBOX_TEST_MAIN(TestPackageSignature)
#include "tst_packagesignature.moc"
