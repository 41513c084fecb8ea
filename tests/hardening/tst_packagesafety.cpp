// A package is only ever unpacked once its digest matches the release
// record, and unpacking writes nowhere but into the extraction folder,
// whatever names or links the archive holds. Both run the real download,
// verification and extraction (with the system's unzip) against a local
// HTTPS server.

#include "downloader.h"
#include "httpstestserver.h"
#include "localisation.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

static QString sha256Of(const QByteArray &bytes)
{
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex());
}

static QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

static bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

// Every path below root (links not followed) with the file's content hash,
// leaving out the folders the run is allowed to change.
static QStringList snapshot(const QString &root, const QStringList &allowed)
{
    QStringList entries;
    QDirIterator it(root, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        const QString relative = QDir(root).relativeFilePath(path);
        bool skip = false;
        for (const QString &prefix : allowed)
            skip = skip || relative == prefix || relative.startsWith(prefix + QLatin1Char('/'));
        if (skip)
            continue;
        const QFileInfo info = it.fileInfo();
        QString entry = relative;
        if (info.isSymLink())
            entry += QStringLiteral(" -> ") + info.symLinkTarget();
        else if (info.isFile())
            entry += QLatin1Char(' ') + sha256Of(readFile(path));
        entries << entry;
    }
    entries.sort();
    return entries;
}

static QByteArray makeZip(const QStringList &files)
{
    QTemporaryDir staging;
    for (const QString &name : files) {
        QDir(staging.path()).mkpath(QFileInfo(name).path());
        writeFile(staging.filePath(name), "content of " + name.toUtf8() + '\n');
    }
    QProcess zip;
    zip.setWorkingDirectory(staging.path());
    zip.start(QStringLiteral("zip"), QStringList{QStringLiteral("-qr"), QStringLiteral("package.zip")} + files);
    if (!zip.waitForFinished(30000) || zip.exitCode() != 0)
        return {};
    return readFile(staging.filePath(QStringLiteral("package.zip")));
}

class TestPackageSafety : public QObject
{
    Q_OBJECT

    QString tempLocation;
    QString extractionDir;

    // Downloads package from a local server, expecting digest, and waits
    // for the run to end.
    void runInstall(Downloader **out, HttpsTestServer &server, const QByteArray &package, const QString &digest)
    {
        server.setResponse("/VelmoraUpdate.zip", ScriptedResponse::ok(package, "application/zip"));
        auto *downloader = new Downloader(QStringLiteral("9.9.9"), server.url("/VelmoraUpdate.zip").toString(), digest,
                                          false, this);
        *out = downloader;
        QTRY_VERIFY_WITH_TIMEOUT(downloader->isFinished(), 60000);
    }

private slots:
    void initTestCase()
    {
        Q_INIT_RESOURCE(updater);
        QVERIFY(HttpsTestServer::trustTestCa());
        tempLocation = QStandardPaths::writableLocation(QStandardPaths::TempLocation);
        extractionDir = tempLocation + QStringLiteral("/VelmoraExtract");
    }

    void neverUnpacksAPackageWhoseDigestDiffers_data()
    {
        QTest::addColumn<QString>("tampering");
        QTest::addColumn<bool>("unpacks");

        QTest::newRow("one byte changed") << "flip" << false;
        QTest::newRow("cut short") << "truncate" << false;
        QTest::newRow("one byte appended") << "append" << false;
        QTest::newRow("empty body") << "empty" << false;
        QTest::newRow("another valid package") << "swap" << false;
        QTest::newRow("untouched, digest published in upper case") << "none" << true;
    }

    void neverUnpacksAPackageWhoseDigestDiffers()
    {
        QFETCH(QString, tampering);
        QFETCH(bool, unpacks);

        const QByteArray original = makeZip({QStringLiteral("Velmora/readme.txt")});
        QVERIFY(!original.isEmpty());
        QByteArray served = original;
        if (tampering == QLatin1String("flip"))
            served[served.size() / 2] = char(served.at(served.size() / 2) ^ 0x01);
        else if (tampering == QLatin1String("truncate"))
            served.chop(1);
        else if (tampering == QLatin1String("append"))
            served.append('\0');
        else if (tampering == QLatin1String("empty"))
            served.clear();
        else if (tampering == QLatin1String("swap"))
            served = makeZip({QStringLiteral("Velmora/other.txt")});

        // A leftover from an earlier run: it survives exactly when nothing
        // was unpacked.
        QDir(extractionDir).removeRecursively();
        QVERIFY(QDir().mkpath(extractionDir));
        QVERIFY(writeFile(extractionDir + QStringLiteral("/leftover"), "old"));

        HttpsTestServer server;
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        Downloader *downloader = nullptr;
        runInstall(&downloader, server, served, sha256Of(original).toUpper());
        QVERIFY(downloader);

        QVERIFY(!QFile::exists(downloader->packageFilePath()));
        QVERIFY(downloader->hasError());
        if (unpacks) {
            QVERIFY(QFile::exists(extractionDir + QStringLiteral("/Velmora/readme.txt")));
            QVERIFY(!QFile::exists(extractionDir + QStringLiteral("/leftover")));
            // Nothing in it is a bundle, so the hand-over stops there.
            QCOMPARE(downloader->status(), translate("upd_app_not_found"));
        } else {
            QCOMPARE(downloader->status(), translate("upd_verify_failed"));
            QCOMPARE(downloader->phase(), -1);
            QCOMPARE(QDir(extractionDir).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
                     QStringList{QStringLiteral("leftover")});
        }
        delete downloader;
    }

    void unpacksNothingOutsideTheExtractionFolder_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::newRow("parent folder entries") << "parent";
        QTest::newRow("parent folder in the middle of a name") << "nested-parent";
        QTest::newRow("absolute entry names") << "absolute";
        QTest::newRow("Windows separators") << "backslash";
        QTest::newRow("link to an outside folder, then files through it") << "symlink-folder";
        QTest::newRow("link to an outside file, then a file of that name") << "symlink-file";
        QTest::newRow("relative link up and out, then a file through it") << "relative-symlink-folder";
    }

    void unpacksNothingOutsideTheExtractionFolder()
    {
        QFETCH(QString, kind);

        QTemporaryDir outside(tempLocation + QStringLiteral("/outside-XXXXXX"));
        QVERIFY(outside.isValid());
        QVERIFY(writeFile(outside.filePath(QStringLiteral("victim.txt")), "original\n"));

        QTemporaryDir work;
        const QString zipPath = work.filePath(QStringLiteral("hostile.zip"));
        QProcess python;
        python.start(QStringLiteral("python3"),
                     {QStringLiteral("-W"), QStringLiteral("ignore"),
                      QStringLiteral(VELMORA_TEST_SOURCE_DIR "/make_hostile_zip.py"), kind, zipPath, outside.path()});
        QVERIFY(python.waitForFinished(30000));
        QVERIFY2(python.exitCode() == 0, python.readAllStandardError().constData());
        const QByteArray package = readFile(zipPath);
        QVERIFY(!package.isEmpty());

        QDir(extractionDir).removeRecursively();
        const QStringList allowed{QStringLiteral("VelmoraExtract"), QStringLiteral("VelmoraUpdate.zip")};
        const QStringList before = snapshot(tempLocation, allowed);
        const QStringList outsideBefore = snapshot(outside.path(), {});

        HttpsTestServer server;
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        Downloader *downloader = nullptr;
        runInstall(&downloader, server, package, sha256Of(package));
        QVERIFY(downloader);

        // The extraction ran (the harmless entry is there) ...
        QVERIFY2(QFile::exists(extractionDir + QStringLiteral("/Velmora/readme.txt")), qPrintable(downloader->status()));
        // ... and left everything outside its folder as it was.
        QCOMPARE(snapshot(outside.path(), {}), outsideBefore);
        QCOMPARE(readFile(outside.filePath(QStringLiteral("victim.txt"))), QByteArray("original\n"));
        QCOMPARE(snapshot(tempLocation, allowed), before);
        delete downloader;
    }

    void cleanupTestCase()
    {
        QDir(extractionDir).removeRecursively();
    }
};

QTEST_MAIN(TestPackageSafety)
#include "tst_packagesafety.moc"
