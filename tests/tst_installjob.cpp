#include "downloader.h"
#include "localisation.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

using Layout = QStringList; // relative paths; a trailing "/" makes a directory
Q_DECLARE_METATYPE(Layout)

class TestInstallJob : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void acceptsDigestRegardlessOfCase_data();
    void acceptsDigestRegardlessOfCase();
    void refusesMismatchWithoutTouchingExtraction();
    void extracts_data();
    void extracts();
    void choosesSourceRoot_data();
    void choosesSourceRoot();

private:
    QByteArray makeZip(const Layout &layout);
    std::unique_ptr<Downloader> jobFor(const QByteArray &package, const QString &digest);
    void useFakeTools(const QString &dittoScript, const QString &unzipScript);
    void runJob(Downloader *job);
    QStringList fakeLog() const;

    QTemporaryDir m_scratch;
    QString m_tempLocation;
    QString m_extractDir;
    QString m_zip;
    QString m_unzip;
    QByteArray m_originalPath;
    // (status, phase) at every status change of the last job run.
    QList<QPair<QString, int>> m_statusTrail;
};

static QByteArray sha256Hex(const QByteArray &data)
{
    return QCryptographicHash::hash(data, QCryptographicHash::Sha256).toHex();
}

static bool writeFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

void TestInstallJob::initTestCase()
{
    Q_INIT_RESOURCE(updater);
    QVERIFY(m_scratch.isValid());
    m_tempLocation = QStandardPaths::writableLocation(QStandardPaths::TempLocation);
    m_extractDir = m_tempLocation + "/VelmoraExtract";
    m_originalPath = qgetenv("PATH");
    // Resolved before any test narrows PATH to its fakes.
    m_zip = QStandardPaths::findExecutable("zip");
    m_unzip = QStandardPaths::findExecutable("unzip");
    if (m_zip.isEmpty() || m_unzip.isEmpty())
        QSKIP("zip and unzip are needed to build and unpack the test archives");
    qputenv("FAKE_LOG", QFile::encodeName(m_scratch.filePath("fake.log")));
}

void TestInstallJob::init()
{
    QDir(m_extractDir).removeRecursively();
    QFile::remove(m_tempLocation + "/VelmoraUpdate.zip");
    QFile::remove(m_scratch.filePath("fake.log"));
    QDir(m_scratch.filePath("bin")).removeRecursively();
    m_statusTrail.clear();
}

void TestInstallJob::cleanup()
{
    qputenv("PATH", m_originalPath);
}

QByteArray TestInstallJob::makeZip(const Layout &layout)
{
    QTemporaryDir staging;
    for (const QString &entry : layout) {
        if (entry.endsWith('/'))
            QDir().mkpath(staging.filePath(entry));
        else
            writeFile(staging.filePath(entry), "content of " + entry.toUtf8());
    }
    const QString archive = m_scratch.filePath("archive.zip");
    QFile::remove(archive);
    QProcess zip;
    zip.setWorkingDirectory(staging.path());
    zip.start(m_zip, {"-r", "-q", archive, "."});
    if (!zip.waitForFinished(30000) || zip.exitCode() != 0)
        return {};
    QFile file(archive);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// A Downloader whose download is cancelled before it reaches the network, so
// that the install job can be driven on a package the test puts in place.
std::unique_ptr<Downloader> TestInstallJob::jobFor(const QByteArray &package, const QString &digest)
{
    auto job = std::make_unique<Downloader>("2.0.0", "https://127.0.0.1:9/VelmoraUpdate.zip", digest, false);
    job->cancel();
    if (job->hasError() || !writeFile(job->packageFilePath(), package))
        return {};
    connect(job.get(), &Downloader::statusChanged, this,
            [this, d = job.get()] { m_statusTrail.append({d->status(), d->phase()}); });
    return job;
}

void TestInstallJob::runJob(Downloader *job)
{
    job->startInstall();
    QTRY_VERIFY_WITH_TIMEOUT(job->isFinished(), 60000);
}

// Fake tools answer with the script text given; an empty script leaves the
// tool out, so that PATH holds no such program at all.
void TestInstallJob::useFakeTools(const QString &dittoScript, const QString &unzipScript)
{
    const QString bin = m_scratch.filePath("bin");
    QDir().mkpath(bin);
    const auto install = [&](const QString &name, const QString &body) {
        if (body.isEmpty())
            return;
        const QString path = bin + '/' + name;
        writeFile(path, ("#!/bin/sh\necho \"" + name + " $*\" >> \"$FAKE_LOG\"\n" + body + "\n").toUtf8());
        QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    };
    install("ditto", dittoScript);
    install("unzip", unzipScript);
    qputenv("PATH", QFile::encodeName(bin));
}

QStringList TestInstallJob::fakeLog() const
{
    QFile file(m_scratch.filePath("fake.log"));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll()).split('\n', Qt::SkipEmptyParts);
}

void TestInstallJob::acceptsDigestRegardlessOfCase_data()
{
    QTest::addColumn<QString>("digestForm");
    QTest::addColumn<bool>("accepted");
    QTest::newRow("lower case") << "lower" << true;
    QTest::newRow("upper case") << "upper" << true;
    QTest::newRow("blanks around") << "padded" << true;
    QTest::newRow("one digit differs") << "flipped" << false;
    QTest::newRow("64 characters, not hexadecimal") << "nothex" << false;
}

void TestInstallJob::acceptsDigestRegardlessOfCase()
{
    QFETCH(QString, digestForm);
    QFETCH(bool, accepted);
    const QByteArray package = makeZip({"Payload/", "Payload/file.txt"});
    QString digest = QString::fromLatin1(sha256Hex(package));
    if (digestForm == "upper")
        digest = digest.toUpper();
    else if (digestForm == "padded")
        digest = " \t" + digest + "\n ";
    else if (digestForm == "flipped")
        digest[10] = digest.at(10) == '0' ? '1' : '0';
    else if (digestForm == "nothex")
        digest = QString(64, 'z');

    auto job = jobFor(package, digest);
    QVERIFY(job);
    QCOMPARE(job->verifyChecksum(), accepted);
}

void TestInstallJob::refusesMismatchWithoutTouchingExtraction()
{
    QVERIFY(writeFile(m_extractDir + "/earlier/keep.txt", "left by an earlier run"));
    const QByteArray package = makeZip({"Payload/", "Payload/file.txt"});
    QByteArray digest = sha256Hex(package);
    digest[0] = digest.at(0) == 'a' ? 'b' : 'a';
    auto job = jobFor(package, QString::fromLatin1(digest));
    QVERIFY(job);

    runJob(job.get());

    QCOMPARE(job->status(), translate("upd_verify_failed"));
    QCOMPARE(job->phase(), -1);
    QVERIFY(job->hasError());
    QVERIFY(!QFile::exists(job->packageFilePath()));
    QVERIFY(QFile::exists(m_extractDir + "/earlier/keep.txt"));
    QVERIFY(!QFile::exists(m_extractDir + "/Payload"));

    // A package that vanished before verification fails the same way.
    auto missing = jobFor(package, QString::fromLatin1(sha256Hex(package)));
    QVERIFY(missing);
    QFile::remove(missing->packageFilePath());
    QVERIFY(!missing->verifyChecksum());
}

void TestInstallJob::extracts_data()
{
    QTest::addColumn<QString>("dittoScript"); // empty: no such tool on PATH
    QTest::addColumn<QString>("unzipScript");
    QTest::addColumn<bool>("corrupt");
    QTest::addColumn<QStringList>("toolsRun");
    // Failure detail; "<unzip>" stands for what the real unzip printed.
    QTest::addColumn<QString>("detail");

    const QString realUnzip = "exec \"$REAL_UNZIP\" \"$@\"";
    const QString dittoSays = "echo 'ditto: DITTO_SAID_THIS' >&2; exit 1";
    QTest::newRow("ditto extracts, unzip never asked")
        << "exec \"$REAL_UNZIP\" -q \"$3\" -d \"$4\"" << realUnzip << false << QStringList{"ditto"} << "";
    QTest::newRow("ditto fails, unzip extracts, ditto's text dropped")
        << dittoSays << realUnzip << false << QStringList{"ditto", "unzip"} << "";
    QTest::newRow("ditto missing, unzip extracts") << "" << realUnzip << false << QStringList{"unzip"} << "";
    // ditto's own line feed, then the one that joins the two texts.
    QTest::newRow("corrupt archive: both tools' errors")
        << dittoSays << realUnzip << true << QStringList{"ditto", "unzip"} << "ditto: DITTO_SAID_THIS\n\n<unzip>";
    QTest::newRow("only unzip complains") << "exit 3" << realUnzip << true << QStringList{"ditto", "unzip"} << "<unzip>";
    QTest::newRow("only ditto complains") << "echo '  ditto: quiet  ' >&2; exit 1" << "exit 9" << true
                                          << QStringList{"ditto", "unzip"} << "ditto: quiet";
    QTest::newRow("both tools missing") << "" << "" << true << QStringList{} << "<missing>";
    QTest::newRow("both fail in silence") << "exit 1" << "echo '   ' >&2; exit 9" << true
                                          << QStringList{"ditto", "unzip"} << "<missing>";
}

void TestInstallJob::extracts()
{
    QFETCH(QString, dittoScript);
    QFETCH(QString, unzipScript);
    QFETCH(bool, corrupt);
    QFETCH(QStringList, toolsRun);
    QFETCH(QString, detail);

    // Files of an earlier run must be gone before anything is unpacked.
    QVERIFY(writeFile(m_extractDir + "/Stale/old.txt", "from an earlier run"));
    QVERIFY(writeFile(m_extractDir + "/loose.txt", "from an earlier run"));
    const QByteArray package = corrupt ? QByteArray("PK\003\004 this is not a zip archive")
                                       : makeZip({"Payload/", "Payload/Contents/", "Payload/Contents/file.txt"});
    auto job = jobFor(package, QString::fromLatin1(sha256Hex(package)));
    QVERIFY(job);
    const QString pkg = job->packageFilePath();

    if (detail.contains("<unzip>")) {
        QProcess unzip;
        unzip.start(m_unzip, {"-o", pkg, "-d", m_scratch.filePath("probe")});
        QVERIFY(unzip.waitForFinished(30000));
        detail.replace("<unzip>", QString::fromLocal8Bit(unzip.readAllStandardError()));
    }
    detail.replace("<missing>", translate("upd_unzip_missing"));

    qputenv("REAL_UNZIP", QFile::encodeName(m_unzip));
    useFakeTools(dittoScript, unzipScript);
    runJob(job.get());

    QVERIFY(!QFile::exists(pkg));
    QStringList expectedLog;
    for (const QString &tool : toolsRun)
        expectedLog << (tool == "ditto" ? QString("ditto -x -k %1 %2") : QString("unzip -o %1 -d %2")).arg(pkg, m_extractDir);
    QCOMPARE(fakeLog(), expectedLog);
    QVERIFY(!QFile::exists(m_extractDir + "/Stale"));
    QVERIFY(!QFile::exists(m_extractDir + "/loose.txt"));

    // Verification and extraction read "verifying" in the extracting stage.
    QVERIFY(m_statusTrail.size() >= 3);
    QCOMPARE(m_statusTrail.at(0), qMakePair(translate("upd_extracting"), 2));
    QCOMPARE(m_statusTrail.at(1), qMakePair(translate("upd_verifying"), 2));
    if (!detail.isEmpty()) {
        QCOMPARE(m_statusTrail.at(2), qMakePair(translate("upd_zip_failed_detail").arg(detail.trimmed()), -1));
        QVERIFY(job->hasError());
        return;
    }
    QCOMPARE(m_statusTrail.at(2), qMakePair(translate("upd_preparing"), 3));
    QCOMPARE(QDir(m_extractDir).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
             QStringList{"Payload"});
    QFile extracted(m_extractDir + "/Payload/Contents/file.txt");
    QVERIFY(extracted.open(QIODevice::ReadOnly));
    QCOMPARE(extracted.readAll(), QByteArray("content of Payload/Contents/file.txt"));
}

void TestInstallJob::choosesSourceRoot_data()
{
    QTest::addColumn<Layout>("layout");
    QTest::addColumn<QString>("root"); // relative to the extraction directory

    QTest::newRow("bundle beside __MACOSX") << Layout{"Velmora.app/Contents/", "__MACOSX/._Velmora.app"} << "Velmora.app";
    QTest::newRow("one folder and a visible file") << Layout{"Release/", "README.txt"} << "";
    QTest::newRow("one folder and a hidden file") << Layout{"Release/", ".DS_Store"} << "Release";
    QTest::newRow("two folders") << Layout{"A/", "B.app/"} << "";
    QTest::newRow("__macosx in lower case is a folder") << Layout{"Velmora.app/", "__macosx/"} << "";
    QTest::newRow("nothing but files") << Layout{"Velmora.zip"} << "";
    QTest::newRow("empty") << Layout{} << "";
}

void TestInstallJob::choosesSourceRoot()
{
    QFETCH(Layout, layout);
    QFETCH(QString, root);
    QTemporaryDir dir;
    for (const QString &entry : layout) {
        if (entry.endsWith('/'))
            QVERIFY(QDir().mkpath(dir.filePath(entry)));
        else
            QVERIFY(writeFile(dir.filePath(entry), "x"));
    }
    QCOMPARE(chooseSourceRoot(dir.path()), root.isEmpty() ? dir.path() : dir.path() + '/' + root);
}

QTEST_GUILESS_MAIN(TestInstallJob)
#include "tst_installjob.moc"
