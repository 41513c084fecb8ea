#include "downloader.h"
#include "handover.h"
#include "installlocation.h"
#include "localisation.h"
#include "sandbox.h"
#include "testfiles.h"

#include <QDir>
#include <QElapsedTimer>
#include <QSignalSpy>
#include <QSysInfo>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <QtConcurrent/QtConcurrentRun>

#include <memory>

// The hand-over starts the real swap script. Its first copy (ditto) is held
// by a fake that writes the status word a case asks for, waits for the test
// to let go and fails, so the swap never gets beyond the sandbox's staging.
class TestHandOver : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        Q_INIT_RESOURCE(updater);
        // Nothing here may ever reach the real /Applications.
        QCOMPARE(findInstallLocation().dstApp, sandboxPath() + "/Applications/Velmora.app");
        const QString bin = sandboxPath() + "/bin";
        QVERIFY(writeFakeTool(bin, "ditto",
                              "[ -z \"${FAKE_STATUS_WORD+set}\" ] || printf %s \"$FAKE_STATUS_WORD\" > \"$FAKE_STATUS_FILE\"\n"
                              "n=0\n"
                              "while [ ! -e \"$FAKE_RELEASE\" ] && [ $n -lt 600 ]; do sleep 0.05; n=$((n + 1)); done\n"
                              "exit 1"));
        QVERIFY(writeFakeTool(bin, "pgrep", "exit 1"));
        qputenv("PATH", QFile::encodeName(bin) + ':' + qgetenv("PATH"));
        // Accepts and never answers: every Downloader stays in its connecting phase.
        QVERIFY(m_silentServer.listen(QHostAddress::LocalHost, 0));
    }

    void init()
    {
        m_run = std::make_unique<QTemporaryDir>(sandboxPath() + "/run-XXXXXX");
        QVERIFY(m_run->isValid());
        QVERIFY(makeLayout(m_run->path(), {"VelmoraExtract/Velmora.app/Contents/MacOS/"}));
        qputenv("FAKE_LOG", QFile::encodeName(runFile("fake.log")));
        qputenv("FAKE_RELEASE", QFile::encodeName(runFile("release")));
        qputenv("FAKE_STATUS_FILE", QFile::encodeName(runFile("velmora_update.status")));
        qunsetenv("FAKE_STATUS_WORD");
    }

    // Lets a held script go and waits until it has removed itself, so that no
    // script outlives its case.
    void cleanup()
    {
        writeFile(runFile("release"), {});
        QTRY_VERIFY2_WITH_TIMEOUT(!QFileInfo(runFile("velmora_apply_update.sh")).isFile(), "the swap script is still running",
                                  20000);
        m_run.reset();
    }

    void findsTheNewBundle_data()
    {
        QTest::addColumn<QStringList>("layout");
        QTest::addColumn<QString>("root");
        QTest::addColumn<QString>("bundle"); // empty: none found

        QTest::newRow("root is a bundle, suffix in upper case") << QStringList{"Foo.APP/Contents/"} << "Foo.APP" << "Foo.APP";
        QTest::newRow("root is a plain file named like a bundle") << QStringList{"x.app"} << "x.app" << "";
        QTest::newRow("one folder down, mixed case") << QStringList{"Release/velmora.App/Contents/"} << "" << "Release/velmora.App";
        QTest::newRow("three levels down is too deep") << QStringList{"A/B/Inner.app/Contents/"} << "" << "";
    }

    void findsTheNewBundle()
    {
        QFETCH(QStringList, layout);
        QFETCH(QString, root);
        QFETCH(QString, bundle);
        QTemporaryDir dir;
        QVERIFY(makeLayout(dir.path(), layout));
        QCOMPARE(findNewBundle(dir.filePath(root)), bundle.isEmpty() ? QString() : dir.filePath(bundle));
    }

    // The root holds B.app and a folder with Inner.app inside, named so that the
    // file system lists it before B.app while the alphabet puts it after: neither
    // a sorted listing nor a search that prefers direct bundles can pass.
    void followsTheFileSystemListingOrder()
    {
        for (int i = 0; i < 500; ++i) {
            QTemporaryDir dir;
            const QString folder = "Z" + QString::number(i);
            QVERIFY(makeLayout(dir.path(), {"B.app/Contents/", folder + "/Inner.app/Contents/"}));
            const QStringList listing = QDir(dir.path()).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Unsorted);
            if (listing.indexOf(folder) > listing.indexOf("B.app"))
                continue;
            QCOMPARE(findNewBundle(dir.path()), dir.filePath(folder + "/Inner.app"));
            return;
        }
        QSKIP("this file system lists these folders in alphabetical order only");
    }

    void writesEachValueQuotedOnce()
    {
        const SwapScriptValues values{"/Users/o'neil/Velmora.app", "/Volumes/Macintosh HD/Velmora.app", "",
                                      "/Users/Çağrı/tmp/VelmoraExtract", "", "arm64", true, "/tmp/T\nU/velmora_update.status"};
        const QByteArray header = "#!/bin/bash\n"
                                  "set +e\n"
                                  "UPDATER_NAME='VelmoraUpdater'\n"
                                  "SRC_APP='/Users/o'\\''neil/Velmora.app'\n"
                                  "DST_APP='/Volumes/Macintosh HD/Velmora.app'\n"
                                  "LEGACY_APP=''\n"
                                  "SRC_ROOT='/Users/Çağrı/tmp/VelmoraExtract'\n"
                                  "EXPECT_VER=''\n"
                                  "EXPECT_ARCH='arm64'\n"
                                  "AUTO=1\n"
                                  "MIN_IDLE=300\n"
                                  "MAX_WAIT=21600\n"
                                  "STATUS='/tmp/T\nU/velmora_update.status'\n"
                                  "CANONICAL_APP='/Applications/Velmora.app'\n"
                                  "LOG=";
        QCOMPARE(buildSwapScript(values).left(header.size()), header);
        SwapScriptValues interactive = values;
        interactive.autoMode = false;
        QVERIFY(buildSwapScript(interactive).contains("\nAUTO=0\nMIN_IDLE=300\n"));
    }

    void startsTheWrittenScript()
    {
        auto downloader = makeDownloader(false, 1, 0);
        QVERIFY(runHandOver(downloader.get()));

        // The started script reached its first copy with the values written.
        const QString bundle = runFile("VelmoraExtract/Velmora.app");
        const QString dst = sandboxPath() + "/Applications/Velmora.app";
        QTRY_COMPARE(readFile(runFile("fake.log")), ("ditto " + bundle + ' ' + dst + ".new\n").toUtf8());
        const SwapScriptValues expected{bundle, dst, "", runFile("VelmoraExtract"), "2.0.0",
                                        QSysInfo::currentCpuArchitecture(), false, runFile("velmora_update.status")};
        const QByteArray script = readFile(runFile("velmora_apply_update.sh"));
        QCOMPARE(script, buildSwapScript(expected));
        QCOMPARE(QFile::permissions(runFile("velmora_apply_update.sh")) & ~(QFile::ReadUser | QFile::WriteUser | QFile::ExeUser),
                 QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadGroup | QFile::ExeGroup
                     | QFile::ReadOther | QFile::ExeOther);

        // Every em dash of the body is in the file encoded twice, none as it was.
        const qsizetype dashes = swapScriptBody().count("\xe2\x80\x94");
        QVERIFY(dashes > 0);
        QCOMPARE(script.count("\xe2\x80\x94"), 0);
        QCOMPARE(script.count("\xc3\xa2\xc2\x80\xc2\x94"), dashes);
    }

    void watchEndsOnTheStatusWord_data()
    {
        QTest::addColumn<bool>("written");
        QTest::addColumn<QByteArray>("word");
        QTest::addColumn<QByteArray>("key");

        QTest::newRow("ok and a line feed") << true << QByteArray("ok\n") << QByteArray("upd_install_done");
        QTest::newRow("defer between blanks") << true << QByteArray(" defer ") << QByteArray("upd_install_done");
        QTest::newRow("fail") << true << QByteArray("fail") << QByteArray("upd_apply_failed_kept");
        QTest::newRow("fail and a reason") << true << QByteArray("failed: x") << QByteArray("upd_apply_failed_kept");
        QTest::newRow("OK in capitals is no verdict") << true << QByteArray("OK") << QByteArray("upd_install_timeout_kept");
        QTest::newRow("Fail in capitals is no verdict") << true << QByteArray("Fail") << QByteArray("upd_install_timeout_kept");
        QTest::newRow("okay is no verdict") << true << QByteArray("okay") << QByteArray("upd_install_timeout_kept");
        QTest::newRow("no file; an earlier run's ok is not read")
            << false << QByteArray() << QByteArray("upd_install_timeout_kept");
    }

    void watchEndsOnTheStatusWord()
    {
        QFETCH(bool, written);
        QFETCH(QByteArray, word);
        QFETCH(QByteArray, key);
        QVERIFY(writeFile(runFile("velmora_update.status"), "ok\n"));
        if (written)
            qputenv("FAKE_STATUS_WORD", word);

        auto downloader = makeDownloader(false, 100, 20);
        QVERIFY(runHandOver(downloader.get()));
        const bool failure = key != "upd_install_done";
        QCOMPARE(downloader->status(), translate(key.constData()));
        QCOMPARE(downloader->hasError(), failure);
        QCOMPARE(downloader->phase(), failure ? -1 : 0);
        // What the script wrote is what was read; an earlier run's word is gone.
        QCOMPARE(readFile(runFile("velmora_update.status")), word);
    }

    // The held script writes "fail" at once. An updater that looked at the status
    // file would report the failure; in automatic mode it must only say that the
    // update is being applied and hand the quit to the GUI thread.
    void automaticModeNeverReadsTheStatus()
    {
        qputenv("FAKE_STATUS_WORD", "fail\n");
        auto downloader = makeDownloader(true, 500, 20);
        QThread *doneThread = nullptr;
        connect(downloader.get(), &Downloader::done, this, [&] { doneThread = QThread::currentThread(); },
                Qt::DirectConnection);
        QSignalSpy done(downloader.get(), &Downloader::done);

        QVERIFY(runHandOver(downloader.get()));
        QTRY_COMPARE(readFile(runFile("velmora_update.status")), QByteArray("fail\n"));
        QTest::qWait(100);
        QCOMPARE(done.count(), 1);
        QCOMPARE(doneThread, QThread::currentThread());
        QCOMPARE(downloader->status(), translate("upd_applying_restart"));
        QVERIFY(!downloader->hasError());
        QCOMPARE(downloader->phase(), 0);
        QVERIFY(readFile(runFile("velmora_apply_update.sh")).contains("\nAUTO=1\n"));
        QVERIFY(readFile(runFile("fake.log")).contains("pgrep -x VelmoraUpdater\n"));
    }

    // A full disk lets the script file be opened and fails only the write: a
    // script cut short must neither be started nor left behind.
    void unwritableScriptIsReported_data()
    {
        QTest::addColumn<bool>("diskFull");
        QTest::newRow("directory in the way") << false;
        QTest::newRow("disk full") << true;
    }

    void unwritableScriptIsReported()
    {
        QFETCH(bool, diskFull);
        const QString scriptPath = runFile("velmora_apply_update.sh");
        if (diskFull) {
            if (!QFile::exists("/dev/full"))
                QSKIP("no /dev/full on this system");
            QVERIFY(QFile::link("/dev/full", scriptPath));
        } else {
            QVERIFY(QDir().mkpath(scriptPath));
        }
        auto downloader = makeDownloader(false, 1, 0);
        QVERIFY(runHandOver(downloader.get()));
        QCOMPARE(downloader->status(), translate("upd_script_create_failed"));
        QCOMPARE(downloader->phase(), -1);
        QVERIFY(downloader->hasError());
        QVERIFY(!QFile::exists(runFile("fake.log")));
        if (diskFull)
            QVERIFY(!QFileInfo(scriptPath).isSymLink());
    }

private:
    std::unique_ptr<Downloader> makeDownloader(bool autoMode, int polls, int intervalMs)
    {
        const QString url = QStringLiteral("https://127.0.0.1:%1/VelmoraUpdate.zip").arg(m_silentServer.serverPort());
        auto downloader = std::make_unique<Downloader>("2.0.0", url, QString(64, 'a'), false);
        downloader->autoMode = autoMode;
        downloader->statusPolls = polls;
        downloader->statusPollIntervalMs = intervalMs;
        return downloader;
    }

    // Runs the hand-over of this case's extraction on a pool thread, as the
    // install job does. True when it returned in time; every state it posted has
    // been applied by then.
    bool runHandOver(Downloader *downloader)
    {
        const QString root = runFile("VelmoraExtract"), temp = m_run->path();
        QFuture<void> job = QtConcurrent::run([=] { downloader->installHandOver(root, temp); });
        QElapsedTimer clock;
        clock.start();
        while (!job.isFinished() && clock.elapsed() < 30000)
            QTest::qWait(10);
        QCoreApplication::sendPostedEvents(downloader);
        return job.isFinished();
    }

    QString runFile(const QString &name) const { return m_run->filePath(name); }

    QTcpServer m_silentServer;
    std::unique_ptr<QTemporaryDir> m_run;
};

VELMORA_SANDBOX_TEST_MAIN(TestHandOver)
#include "tst_handover.moc"
