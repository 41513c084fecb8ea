#include "downloader.h"
#include "localisation.h"
#include "testfiles.h"

#include <QDir>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

class TestInstallJob : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        Q_INIT_RESOURCE(updater);
        QVERIFY(m_scratch.isValid());
        m_extractDir = QStandardPaths::writableLocation(QStandardPaths::TempLocation) + "/VelmoraExtract";
        m_unzip = QStandardPaths::findExecutable("unzip");
        QVERIFY2(!m_unzip.isEmpty(), "unzip unpacks the test archives");
        m_path = qgetenv("PATH");
        qputenv("FAKE_LOG", QFile::encodeName(m_scratch.filePath("fake.log")));
        qputenv("REAL_UNZIP", QFile::encodeName(m_unzip));
    }

    void init()
    {
        QDir(m_extractDir).removeRecursively();
        QFile::remove(m_scratch.filePath("fake.log"));
        QDir(m_scratch.filePath("bin")).removeRecursively();
    }

    void cleanup()
    {
        qputenv("PATH", m_path);
    }

    void refusesMismatchWithoutTouchingExtraction()
    {
        QVERIFY(writeFile(m_extractDir + "/earlier/keep.txt", "left by an earlier run"));
        const QByteArray package = zipLayout({"Payload/file.txt"});
        QString digest = sha256Hex(package);
        digest[0] = digest.at(0) == 'a' ? 'b' : 'a';
        auto job = jobFor(package, digest);
        QVERIFY(job);

        job->startInstall();
        QTRY_VERIFY_WITH_TIMEOUT(job->isFinished(), 60000);
        QCOMPARE(job->status(), translate("upd_verify_failed"));
        QCOMPARE(job->phase(), -1);
        QVERIFY(!QFile::exists(job->packageFilePath()));
        QCOMPARE(QDir(m_extractDir).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList{"earlier"});

        // A package that vanished before verification fails it too.
        auto missing = jobFor(package, sha256Hex(package));
        QVERIFY(missing);
        QFile::remove(missing->packageFilePath());
        QVERIFY(!missing->verifyChecksum());
    }

    void extracts_data()
    {
        QTest::addColumn<QByteArray>("ditto"); // the fake's script; empty: no such tool on PATH
        QTest::addColumn<QByteArray>("unzip");
        QTest::addColumn<QStringList>("toolsRun");
        QTest::addColumn<QString>("detail"); // the failure's detail; "<unzip>": what the real unzip printed

        const QByteArray realUnzip = "exec \"$REAL_UNZIP\" \"$@\"";
        QTest::newRow("ditto extracts, unzip never asked")
            << QByteArray("exec \"$REAL_UNZIP\" -q \"$3\" -d \"$4\"") << realUnzip << QStringList{"ditto"} << "";
        QTest::newRow("ditto missing, unzip extracts") << QByteArray() << realUnzip << QStringList{"unzip"} << "";
        // ditto's own line feed, then the one that joins the two texts.
        QTest::newRow("corrupt archive: both tools' errors") << QByteArray("echo 'ditto: DITTO_SAID_THIS' >&2; exit 1")
                                                             << realUnzip << QStringList{"ditto", "unzip"}
                                                             << "ditto: DITTO_SAID_THIS\n\n<unzip>";
        QTest::newRow("both tools missing") << QByteArray() << QByteArray() << QStringList{}
                                            << translate("upd_unzip_missing");
        QTest::newRow("both fail in silence") << QByteArray("exit 1") << QByteArray("echo '   ' >&2; exit 9")
                                              << QStringList{"ditto", "unzip"} << translate("upd_unzip_missing");
    }

    void extracts()
    {
        QFETCH(QByteArray, ditto);
        QFETCH(QByteArray, unzip);
        QFETCH(QStringList, toolsRun);
        QFETCH(QString, detail);

        // Files of an earlier run must be gone before anything is unpacked.
        QVERIFY(writeFile(m_extractDir + "/Stale/old.txt", "from an earlier run"));
        QVERIFY(writeFile(m_extractDir + "/loose.txt", "from an earlier run"));
        const QByteArray package = detail.isEmpty() ? zipLayout({"Payload/Contents/file.txt"})
                                                    : QByteArray("PK\003\004 this is not a zip archive");
        // The digest is accepted in any case.
        auto job = jobFor(package, sha256Hex(package).toUpper());
        QVERIFY(job);
        const QString pkg = job->packageFilePath();
        if (detail.contains("<unzip>")) {
            QProcess probe;
            probe.start(m_unzip, {"-o", pkg, "-d", m_scratch.filePath("probe")});
            QVERIFY(probe.waitForFinished(30000));
            detail.replace("<unzip>", QString::fromLocal8Bit(probe.readAllStandardError()));
        }

        const QString bin = m_scratch.filePath("bin");
        QVERIFY(QDir().mkpath(bin));
        QVERIFY(ditto.isEmpty() || writeFakeTool(bin, "ditto", ditto));
        QVERIFY(unzip.isEmpty() || writeFakeTool(bin, "unzip", unzip));
        qputenv("PATH", QFile::encodeName(bin));
        job->startInstall();
        QTRY_VERIFY_WITH_TIMEOUT(job->isFinished(), 60000);

        QVERIFY(!QFile::exists(pkg));
        QStringList expectedLog;
        for (const QString &tool : toolsRun)
            expectedLog << (tool == "ditto" ? QString("ditto -x -k %1 %2") : QString("unzip -o %1 -d %2")).arg(pkg, m_extractDir);
        QCOMPARE(QString::fromUtf8(readFile(m_scratch.filePath("fake.log"))).split('\n', Qt::SkipEmptyParts), expectedLog);
        QVERIFY(!QFile::exists(m_extractDir + "/Stale"));
        QVERIFY(!QFile::exists(m_extractDir + "/loose.txt"));
        if (!detail.isEmpty()) {
            QCOMPARE(job->status(), translate("upd_zip_failed_detail").arg(detail.trimmed()));
            return;
        }
        // Extracted whole; the hand-over then finds no bundle in it.
        QCOMPARE(job->status(), translate("upd_app_not_found"));
        QCOMPARE(readFile(m_extractDir + "/Payload/Contents/file.txt"), QByteArray("content of Payload/Contents/file.txt"));
    }

    void choosesSourceRoot_data()
    {
        QTest::addColumn<QStringList>("layout");
        QTest::addColumn<QString>("root"); // relative to the extraction directory

        QTest::newRow("bundle beside __MACOSX") << QStringList{"Velmora.app/Contents/", "__MACOSX/._Velmora.app"}
                                                << "Velmora.app";
        QTest::newRow("one folder and a visible file") << QStringList{"Release/", "README.txt"} << "";
        QTest::newRow("one folder and a hidden file") << QStringList{"Release/", ".DS_Store"} << "Release";
        QTest::newRow("two folders") << QStringList{"A/", "B.app/"} << "";
    }

    void choosesSourceRoot()
    {
        QFETCH(QStringList, layout);
        QFETCH(QString, root);
        QTemporaryDir dir;
        QVERIFY(makeLayout(dir.path(), layout));
        QCOMPARE(chooseSourceRoot(dir.path()), root.isEmpty() ? dir.path() : dir.path() + '/' + root);
    }

private:
    // A Downloader whose download is cancelled before it reaches the network, so
    // that the install job runs on a package the test puts in place.
    std::unique_ptr<Downloader> jobFor(const QByteArray &package, const QString &digest)
    {
        auto job = std::make_unique<Downloader>("2.0.0", "https://127.0.0.1:9/VelmoraUpdate.zip", digest, false);
        job->cancel();
        if (job->hasError() || !writeFile(job->packageFilePath(), package))
            return {};
        return job;
    }

    QTemporaryDir m_scratch;
    QString m_extractDir;
    QString m_unzip;
    QByteArray m_path;
};

QTEST_GUILESS_MAIN(TestInstallJob)
#include "tst_installjob.moc"
