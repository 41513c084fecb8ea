// Signatures come from the real minisign tool, made afresh for every run, so
// the updater is checked against what a publisher actually ships.

#include "packagesignature.h"

#include <QCryptographicHash>
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

private:
    bool minisign(const QStringList &arguments) const;
    QByteArray file(const QString &name) const;
    QByteArray sign(const QString &key, const QString &target, const QByteArray &comment, bool legacy = false);

    QTemporaryDir m_dir;
    QString m_minisign;
    QHash<QString, QByteArray> m_signatures;
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
    QVERIFY(m_dir.isValid());
    for (const QString key : {"key1", "key2"})
        QVERIFY(minisign({"-G", "-W", "-p", m_dir.filePath(key + ".pub"), "-s", m_dir.filePath(key + ".sec")}));
    // Over a megabyte and not a multiple of any read size, so the digests
    // must be carried across chunks and end on a short one.
    QByteArray package(1024 * 1024 + 4097, Qt::Uninitialized);
    std::generate(package.begin(), package.end(),
                  [n = 0u]() mutable { return char((n = n * 1103515245 + 12345) >> 16); });
    for (const auto &[name, contents] : {std::pair{"package", package}, std::pair{"other", package.left(4096)}}) {
        QFile out(m_dir.filePath(name));
        QVERIFY(out.open(QIODevice::WriteOnly) && out.write(contents) == contents.size());
    }
    m_digests = digestPackage(m_dir.filePath("package"));
    QVERIFY(m_digests.ok);
    QCOMPARE(m_digests.sha256, QCryptographicHash::hash(package, QCryptographicHash::Sha256));

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
    QTest::addColumn<QString>("expectedVersion");
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
    QList<SigningKey> keyList;
    QByteArray keyText;
    for (const QChar key : keys)
        keyText += file(QStringLiteral("key%1.pub").arg(key)) + '\n';
    QVERIFY(keys.isEmpty() || parseSigningKeys(keyText, &keyList, nullptr));
    QCOMPARE(verifyPackageSignature(m_signatures.value(signature), keyList, m_dir.filePath("package"), m_digests,
                                    expectedVersion),
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

QTEST_GUILESS_MAIN(TestPackageSignature)
#include "tst_packagesignature.moc"
