// The install job's units, called directly with a recording report:
// verification (a package whose digest differs is removed and never
// unpacked), extraction (ditto, the unzip fallback, the failure text, a stale
// extraction emptied), the source root and the new bundle, the swap script's
// exact header and encoding, the status words, and the hand-over starting the
// real script: its outcomes through the watch, automatic mode, a script the
// disk cannot hold, and hostile folder names that must reach bash as data.

#include "extraction.h"
#include "handover.h"
#include "installjob.h"
#include "localisation.h"
#include "sandbox.h"
#include "statuswatch.h"
#include "testfiles.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

#include <sys/resource.h>

// A report as "message|phase|error"; a failure always comes with phase -1.
static QString said(const QString &message, int phase = -1000)
{
    return QStringLiteral("%1|%2|%3").arg(message).arg(phase).arg(phase == -1);
}

static QString said(const char *key, int phase = -1000)
{
    return said(translate(key), phase);
}

// One run of the install job.
struct Job
{
    QString scenario;
    QByteArray ditto, unzip; // fake extractors, for a package without a bundle; empty: the shared fake ditto
    int steps; // how many of verifying, preparing and applying come before the outcome
    QString outcome; // the last report
    bool swapped; // 2.0.0 installed afterwards
};
Q_DECLARE_METATYPE(Job)

class TestInstallPipeline : public QObject
{
    Q_OBJECT

    QStringList m_reports;
    const InstallReport m_record = [this](const QString &message, int phase, bool error) {
        m_reports << QStringLiteral("%1|%2|%3").arg(message).arg(phase).arg(error);
    };

private slots:
    void initTestCase()
    {
        // A command smuggled in through a folder name would run here.
        QVERIFY(QDir::setCurrent(sandboxPath()) && QDir().mkpath("state"));
        qputenv("PATH",
                QFile::encodeName(sandboxPath() + "/bin:" VELMORA_TEST_SOURCE_DIR "/fakes/bin:") + qgetenv("PATH"));
        qputenv("FAKE_LOG", QFile::encodeName(sandboxPath() + "/fake.log"));
        qputenv("FAKE_STATE", QFile::encodeName(sandboxPath() + "/state"));
    }

    void init() { m_reports.clear(); }

    void findsTheBundle_data()
    {
        QTest::addColumn<QString>("root"); // chosen below the extraction; "=x": x handed over as the root
        QTest::addColumn<QStringList>("layout");
        QTest::addColumn<QString>("bundle"); // empty: none

        QTest::newRow("bundle beside __MACOSX")
            << "Foo.APP" << QStringList{"Foo.APP/Contents/", "__MACOSX/"} << "Foo.APP";
        QTest::newRow("one folder, a hidden file") << "R" << QStringList{"R/v.App/", ".DS_Store"} << "R/v.App";
        QTest::newRow("one folder, a visible file") << "" << QStringList{"R/v.app/", "README"} << "R/v.app";
        QTest::newRow("two folders") << "" << QStringList{"A/", "B.app/"} << "B.app";
        QTest::newRow("three levels down") << "" << QStringList{"A/B/Inner.app/", "README"} << "";
        QTest::newRow("a plain file x.app as the root") << "=x.app" << QStringList{"x.app"} << "";
    }

    void findsTheBundle()
    {
        QFETCH(QString, root);
        QFETCH(QStringList, layout);
        QFETCH(QString, bundle);
        QTemporaryDir dir;
        QVERIFY(makeLayout(dir.path(), layout));
        const QString chosen = root.startsWith('=') ? dir.filePath(root.mid(1)) : chooseSourceRoot(dir.path());
        QCOMPARE(chosen, root.isEmpty() ? dir.path() : dir.filePath(root.remove('=')));
        QCOMPARE(findNewBundle(chosen), bundle.isEmpty() ? QString() : dir.filePath(bundle));
    }

    // A folder holding Inner.app that the file system lists before B.app
    // though it sorts after it: neither a sorted listing nor a search that
    // prefers the bundles at the top finds Inner.app first.
    void findsTheBundleInListingOrder()
    {
        for (int i = 0; i < 100; ++i) {
            QTemporaryDir dir;
            const QStringList layout{"Z" + QString::number(i) + "/Inner.app/", "B.app/"};
            // Creation order decides on some file systems, the names' hashes on others.
            QVERIFY(makeLayout(dir.path(), i % 2 ? layout : QStringList{layout[1], layout[0]}));
            if (QDir(dir.path()).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Unsorted).first() != "B.app") {
                QCOMPARE(findNewBundle(dir.path()), dir.filePath(layout[0].chopped(1)));
                return;
            }
        }
        QSKIP("this file system lists B.app first whatever the other name");
    }

    void writesTheSwapScript_data()
    {
        QTest::addColumn<bool>("autoMode");
        QTest::newRow("automatic") << true;
        QTest::newRow("interactive") << false;
    }

    // Hostile values reach bash byte for byte and run nothing.
    void writesTheSwapScript()
    {
        QFETCH(bool, autoMode);
        const QString hostile = QString::fromUtf8("/Users/o'neil/$(touch x) `id`\nŞule");
        const QByteArray quoted = "'/Users/o'\\''neil/$(touch x) `id`\n\xc5\x9eule";
        const QByteArray header = "#!/bin/bash\nset +e\nUPDATER_NAME='VelmoraUpdater'\nSRC_APP=" + quoted
            + "/New.app'\nDST_APP='/Applications/Velmora.app'\nLEGACY_APP=''\nSRC_ROOT=" + quoted
            + "'\nEXPECT_VER=''\nEXPECT_ARCH='arm64'\nAUTO=" + (autoMode ? "1" : "0")
            + "\nMIN_IDLE=300\nMAX_WAIT=21600\nSTATUS=" + quoted
            + "/status'\nCANONICAL_APP='/Applications/Velmora.app'\n";
        const QByteArray script = buildSwapScript({hostile + "/New.app", "/Applications/Velmora.app", "", hostile, "",
                                                   "arm64", autoMode, hostile + "/status"});
        QCOMPARE(script.left(header.size()), header);
        // The body is encoded twice: each em dash as C3 A2 C2 80 C2 94.
        QByteArray body = swapScriptBody();
        QVERIFY(body.contains("\xe2\x80\x94"));
        QCOMPARE(script.mid(header.size()), body.replace("\xe2\x80\x94", "\xc3\xa2\xc2\x80\xc2\x94"));

        QProcess bash;
        bash.start("/bin/bash",
                   {"-c", QString::fromUtf8(header) + "printf '%s|' \"$SRC_APP\" \"$SRC_ROOT\" \"$STATUS\""});
        QVERIFY(bash.waitForFinished(10000));
        QCOMPARE(bash.readAllStandardOutput(), (hostile + "/New.app|" + hostile + '|' + hostile + "/status|").toUtf8());
    }

    void readsTheStatusWord_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<int>("verdict");
        for (const char *word : {"ok\n", " defer "})
            QTest::newRow(word) << QByteArray(word) << int(SwapVerdict::Installed);
        for (const char *word : {"fail", "failed x"})
            QTest::newRow(word) << QByteArray(word) << int(SwapVerdict::Failed);
        for (const char *word : {"OK", "Fail", "okay", ""})
            QTest::newRow(word) << QByteArray(word) << int(SwapVerdict::Undecided);
    }

    void readsTheStatusWord()
    {
        QFETCH(QByteArray, content);
        QFETCH(int, verdict);
        QCOMPARE(int(swapVerdict(content)), verdict);
    }

    void runsTheJob_data()
    {
        QTest::addColumn<Job>("job");
        const QByteArray fails = "printf 'ditto: bad' >&2; exit 1", shared;
        const QString done = said("upd_install_done"), zipFailed = translate("upd_zip_failed_detail");
        const QString bothFailed = said(zipFailed.arg("ditto: bad\nunzip: worse"), -1);
        QTest::newRow("installed; the watch reads ok") << Job{"", shared, shared, 3, done, true};
        QTest::newRow("one digit of the digest differs")
            << Job{"tampered", shared, shared, 1, said("upd_verify_failed", -1), false};
        QTest::newRow("ditto fails, unzip unpacks")
            << Job{"", fails, "exec /usr/bin/unzip -q \"$@\"", 2, said("upd_app_not_found", -1), false};
        QTest::newRow("both fail: ditto's text, a line feed, unzip's")
            << Job{"", fails, "printf 'unzip: worse' >&2; exit 9", 1, bothFailed, false};
        QTest::newRow("neither says why")
            << Job{"", "exit 1", "exit 1", 1, said(zipFailed.arg(translate("upd_unzip_missing")), -1), false};
        QTest::newRow("refused; the watch reads fail")
            << Job{"broken", shared, shared, 3, said("upd_apply_failed_kept", -1), false};
        QTest::newRow("no word in time") << Job{"one look", shared, shared, 3, said("upd_install_timeout_kept", -1),
                                                true};
        QTest::newRow("automatic mode never reads the status")
            << Job{"auto", shared, shared, 2, said("upd_applying_restart"), true};
        QTest::newRow("hostile folder names") << Job{"hostile", shared, shared, 3, done, true};
        QTest::newRow("the disk fills up under the script")
            << Job{"full disk", shared, shared, 2, said("upd_script_create_failed", -1), false};
    }

    void runsTheJob()
    {
        QFETCH(Job, job);
        const auto &[scenario, ditto, unzip, steps, outcome, swapped] = job;
        QTemporaryDir run(sandboxPath() + "/run-XXXXXX"), staging;
        const QString base = run.filePath(scenario == "hostile" ? "o'neil $(touch CANARY)\n`touch CANARY` Şule" : "a");
        const QString temp = base + "/tmp", installDir = base + "/Applications", package = temp + "/VelmoraUpdate.zip";
        const QString bin = sandboxPath() + "/bin", extraction = temp + "/VelmoraExtract";
        QVERIFY(writeBundle(installDir + "/Velmora.app", "1.0.0")
                && writeBundle(staging.filePath(ditto.isEmpty() ? "Velmora.app" : "NoBundle"), "2.0.0"));
        QVERIFY(scenario != "broken" || QFile::remove(staging.filePath("Velmora.app/Contents/MacOS/Velmora")));
        QVERIFY(writeFile(package, zipFolder(staging.path())));
        QVERIFY(ditto.isEmpty() || (writeFakeTool(bin, "ditto", ditto) && writeFakeTool(bin, "unzip", unzip)));
        // Left by an earlier run: its files, and its word.
        QVERIFY(writeFile(extraction + "/Stale/old", {}) && writeFile(temp + "/velmora_update.status", "ok\n"));
        QFile::remove(sandboxPath() + "/fake.log");
        QString digest = sha256Hex(readFile(package));
        if (scenario == "tampered")
            digest[63] = digest[63] == '0' ? '1' : '0';
        InstallJobInputs inputs{package, digest, "2.0.0", {"VelmoraUpdater", "--install-dir", installDir}};
        inputs.autoMode = scenario == "auto";
        // One look at once where no word may come: only an earlier run's could be there then.
        const bool oneLook = scenario == "one look" || scenario == "full disk";
        inputs.statusPolls = oneLook ? 1 : 200;
        inputs.statusPollIntervalMs = oneLook ? 0 : 50;
        // A file size limit fails the write part way, as a full disk does.
        rlimit limit{};
        QVERIFY(getrlimit(RLIMIT_FSIZE, &limit) == 0 && std::signal(SIGXFSZ, SIG_IGN) != SIG_ERR);
        const rlimit full{1000, limit.rlim_max};
        QVERIFY(scenario != "full disk" || setrlimit(RLIMIT_FSIZE, &full) == 0);
        qputenv("TMPDIR", QFile::encodeName(temp));
        const JobEnd end = runInstallJob(inputs, m_record);
        qputenv("TMPDIR", QFile::encodeName(sandboxPath() + "/tmp"));
        QVERIFY(setrlimit(RLIMIT_FSIZE, &limit) == 0);
        QDir(bin).removeRecursively();

        QCOMPARE(end, scenario == "auto" ? JobEnd::QuitForSwap : JobEnd::Reported);
        const QStringList before{said("upd_verifying"), said("upd_preparing", 3), said("upd_applying_restart")};
        QCOMPARE(m_reports, before.mid(0, steps) + QStringList{outcome});
        // The script removes itself when it ends; whatever it ran has run by then.
        QTRY_VERIFY_WITH_TIMEOUT(!QFile::exists(temp + "/velmora_apply_update.sh"), 20000);
        QVERIFY(!QFile::exists("CANARY"));
        QCOMPARE(readFile(installDir + "/Velmora.app/Contents/Resources/version"), swapped ? "2.0.0" : "1.0.0");
        QVERIFY(!QFile::exists(package));
        QCOMPARE(QFile::exists(extraction + "/Stale"), scenario == "tampered");
        if (!ditto.isEmpty())
            QCOMPARE(QString::fromUtf8(readFile(sandboxPath() + "/fake.log")),
                     QString("ditto -x -k %1 %2\nunzip -o %1 -d %2\n").arg(package, extraction));
    }
};

VELMORA_SANDBOX_TEST_MAIN(TestInstallPipeline)
#include "tst_installpipeline.moc"
