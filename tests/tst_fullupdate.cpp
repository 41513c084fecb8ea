#include "downloader.h"
#include "httpstestserver.h"
#include "installlocation.h"
#include "localisation.h"
#include "sandbox.h"
#include "testfiles.h"

#include <QDir>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QSysInfo>
#include <QTemporaryDir>
#include <QTest>

// An update from the package on the server to the swapped bundle, with the
// real download, verification, extraction, hand-over and swap script. Only
// the macOS tools are fakes, PlistBuddy at its absolute path included (the
// test runs in a private mount namespace, see with-fake-plistbuddy.sh).

// A bundle as the swap script checks it: an executable and an Info.plist
// with the short version.
static bool makeBundle(const QString &path, const QString &version)
{
    const QByteArray plist = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
                             "\t<key>CFBundleExecutable</key>\n\t<string>Velmora</string>\n"
                             "\t<key>CFBundleShortVersionString</key>\n\t<string>" + version.toUtf8() + "</string>\n"
                             "</dict>\n</plist>\n";
    return writeFile(path + "/Contents/Info.plist", plist)
        && writeFile(path + "/Contents/MacOS/Velmora", "#!/bin/sh\necho Velmora " + version.toUtf8() + "\n", true)
        && writeFile(path + "/Contents/Resources/version.txt", version.toUtf8());
}

// What is installed at path: its version, "none" without an executable.
static QString installedBundle(const QString &path)
{
    if (!QFileInfo(path + "/Contents/MacOS/Velmora").isExecutable())
        return "none";
    return QString::fromUtf8(readFile(path + "/Contents/Resources/version.txt"));
}

class TestFullUpdate : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        Q_INIT_RESOURCE(updater);
        m_installed = sandboxPath() + "/Applications/Velmora.app";
        QCOMPARE(findInstallLocation().dstApp, m_installed);
        m_temp = QStandardPaths::writableLocation(QStandardPaths::TempLocation);
        QVERIFY(m_temp.startsWith(sandboxPath()));
        // Without the fake the script reads no version and lets any package pass.
        QVERIFY2(QFileInfo("/usr/libexec/PlistBuddy").isExecutable(),
                 "run through tests/with-fake-plistbuddy.sh, which mounts the fake PlistBuddy");

        // ditto does what the updater and the script ask of it: unpack the
        // package, or copy a bundle.
        const QString bin = sandboxPath() + "/bin";
        QVERIFY(writeFakeTool(bin, "ditto", "if [ \"$1\" = -x ]; then exec unzip -q -o \"$3\" -d \"$4\"; fi\n"
                                            "exec cp -R \"$1\" \"$2\""));
        QVERIFY(writeFakeTool(bin, "open", "exit \"${FAKE_OPEN_RC:-0}\""));
        QVERIFY(writeFakeTool(bin, "lipo", "echo \"$FAKE_LIPO_ARCHS\""));
        QVERIFY(writeFakeTool(bin, "pgrep", "exit 1"));
        for (const QString &tool : {"osascript", "ioreg", "xattr", "pkill", "killall"})
            QVERIFY(writeFakeTool(bin, tool, {}));
        qputenv("PATH", QFile::encodeName(bin) + ':' + qgetenv("PATH"));
        qputenv("FAKE_LOG", QFile::encodeName(sandboxPath() + "/fake.log"));
        qputenv("FAKE_LIPO_ARCHS", QSysInfo::currentCpuArchitecture().toUtf8());

        QVERIFY(HttpsTestServer::trustTestCa());
        QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    }

    void init()
    {
        QDir(sandboxPath() + "/Applications").removeRecursively();
        QVERIFY(makeBundle(m_installed, "1.0.0"));
        QDir(m_temp + "/VelmoraExtract").removeRecursively();
        for (const char *name : {"velmora_update.log", "velmora_update.status", "VelmoraUpdate.zip"})
            QFile::remove(m_temp + '/' + name);
        QFile::remove(sandboxPath() + "/fake.log");
        qunsetenv("FAKE_OPEN_RC");
    }

    void updatesTheInstalledBundle_data()
    {
        QTest::addColumn<QString>("packaged");  // version of the bundle in the package; empty: no bundle
        QTest::addColumn<bool>("digestMatches");
        QTest::addColumn<bool>("autoMode");
        QTest::addColumn<int>("openRc");
        QTest::addColumn<QByteArray>("key");    // the status at the end of the run
        QTest::addColumn<QString>("installed"); // version installed afterwards
        QTest::addColumn<QString>("logLine");   // a line of the swap log; empty: the script never ran

        const QString dash = QString::fromUtf8("\xc3\xa2\xc2\x80\xc2\x94"); // how the script writes its dashes
        QTest::newRow("interactive update swaps and relaunches")
            << "2.0.0" << true << false << 0 << QByteArray("upd_install_done") << "2.0.0" << "swap ok -> %1 (2.0.0)";
        QTest::newRow("automatic update swaps without relaunching")
            << "2.0.0" << true << true << 0 << QByteArray("upd_install_done") << "2.0.0" << "swap ok -> %1 (2.0.0)";
        QTest::newRow("digest mismatch stops before extraction")
            << "2.0.0" << false << false << 0 << QByteArray("upd_verify_failed") << "1.0.0" << "";
        QTest::newRow("package without a bundle") << "" << true << false << 0 << QByteArray("upd_app_not_found") << "1.0.0"
                                                  << "";
        QTest::newRow("script refuses another version")
            << "3.0.0" << true << false << 0 << QByteArray("upd_apply_failed_kept") << "1.0.0"
            << "version mismatch: expected 2.0.0, package holds 3.0.0 " + dash + " abort";
        QTest::newRow("new bundle that will not open is rolled back")
            << "2.0.0" << true << false << 1 << QByteArray("upd_apply_failed_kept") << "1.0.0"
            << "open failed " + dash + " rolled back";
    }

    void updatesTheInstalledBundle()
    {
        QFETCH(QString, packaged);
        QFETCH(bool, digestMatches);
        QFETCH(bool, autoMode);
        QFETCH(int, openRc);
        QFETCH(QByteArray, key);
        QFETCH(QString, installed);
        QFETCH(QString, logLine);

        QTemporaryDir staging;
        QVERIFY(makeBundle(staging.filePath(packaged.isEmpty() ? "Release/Velmora" : "Velmora.app"),
                           packaged.isEmpty() ? "2.0.0" : packaged));
        const QByteArray package = zipFolder(staging.path());
        QVERIFY(!package.isEmpty());
        QString digest = sha256Hex(package).toUpper();
        if (!digestMatches)
            digest[0] = digest.at(0) == 'A' ? 'B' : 'A';
        m_server.setResponse("/VelmoraUpdate.zip", ScriptedResponse::ok(package, "application/zip"));
        if (openRc != 0)
            qputenv("FAKE_OPEN_RC", QByteArray::number(openRc));

        Downloader downloader("2.0.0", m_server.url("/VelmoraUpdate.zip").toString(), digest, false);
        downloader.autoMode = autoMode;
        downloader.statusPollIntervalMs = 100;
        QSignalSpy done(&downloader, &Downloader::done);
        QTRY_VERIFY_WITH_TIMEOUT(downloader.isFinished(), 60000);

        QCOMPARE(downloader.status(), translate(key.constData()));
        const bool failed = key != "upd_install_done";
        QCOMPARE(downloader.hasError(), failed);
        QCOMPARE(downloader.phase(), failed ? -1 : 4);
        QCOMPARE(done.count(), autoMode ? 1 : 0);

        const QString swapLog = m_temp + "/velmora_update.log";
        if (logLine.isEmpty()) {
            QVERIFY(!QFile::exists(m_temp + "/velmora_apply_update.sh"));
            QVERIFY(!QFile::exists(swapLog));
        } else {
            // The automatic run did not wait for the outcome; the script reports
            // it all the same.
            QTRY_VERIFY_WITH_TIMEOUT(!QFile::exists(m_temp + "/velmora_apply_update.sh"), 30000);
            QCOMPARE(readFile(m_temp + "/velmora_update.status"), failed ? QByteArray("fail\n") : QByteArray("ok\n"));
            QVERIFY2(readFile(swapLog).contains(("] " + logLine.replace("%1", m_installed) + '\n').toUtf8()),
                     readFile(swapLog).constData());
            QVERIFY(!QFile::exists(m_temp + "/VelmoraExtract/Velmora.app"));
            QVERIFY(!QFile::exists(m_installed + ".new"));
            QVERIFY(!QFile::exists(m_installed + ".old"));
        }
        QCOMPARE(installedBundle(m_installed), installed);
        QVERIFY(!QFile::exists(m_temp + "/VelmoraUpdate.zip"));

        // Relaunched only where an interactive run swapped; never in automatic
        // mode, as the application was not running.
        const bool swapped = !logLine.isEmpty() && !packaged.startsWith("3");
        QCOMPARE(readFile(sandboxPath() + "/fake.log").contains(("open " + m_installed + '\n').toUtf8()),
                 swapped && !autoMode);
    }

private:
    QString m_temp;
    QString m_installed;
    HttpsTestServer m_server;
};

VELMORA_SANDBOX_TEST_MAIN(TestFullUpdate)
#include "tst_fullupdate.moc"
