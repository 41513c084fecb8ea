#include "downloader.h"
#include "installlocation.h"
#include "localisation.h"

#include "httpstestserver.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QSysInfo>
#include <QTemporaryDir>
#include <QTest>

#include <memory>
#include <vector>

// An update from the package on the server to the swapped bundle, with the
// real download, verification, extraction, hand-over and swap script. Only
// the macOS tools are fakes, PlistBuddy at its absolute path included (the
// test runs in a private mount namespace, see with-fake-plistbuddy.sh).

static bool writeFile(const QString &path, const QByteArray &content, bool executable = false)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        return false;
    file.close();
    return !executable
        || file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadGroup
                               | QFile::ExeGroup | QFile::ReadOther | QFile::ExeOther);
}

static QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// A bundle as the swap script checks it: an executable and an Info.plist
// with the short version (none when version is empty).
static bool makeBundle(const QString &path, const QString &version)
{
    QByteArray plist = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
                       "\t<key>CFBundleExecutable</key>\n\t<string>Velmora</string>\n";
    if (!version.isEmpty())
        plist += "\t<key>CFBundleShortVersionString</key>\n\t<string>" + version.toUtf8() + "</string>\n";
    plist += "</dict>\n</plist>\n";
    return writeFile(path + "/Contents/Info.plist", plist)
        && writeFile(path + "/Contents/MacOS/Velmora", "#!/bin/sh\necho Velmora " + version.toUtf8() + "\n", true)
        && writeFile(path + "/Contents/Resources/version.txt", version.toUtf8());
}

// What is installed at path: the version its Info.plist names, "none" when
// there is no bundle with an executable.
static QString installedBundle(const QString &path)
{
    if (!QFileInfo(path + "/Contents/MacOS/Velmora").isExecutable())
        return "none";
    return QString::fromUtf8(readFile(path + "/Contents/Resources/version.txt"));
}

class TestFullUpdate : public QObject
{
    Q_OBJECT

public:
    explicit TestFullUpdate(const QString &sandbox) : m_sandbox(sandbox) {}

private slots:
    void initTestCase();
    void init();
    void cleanupTestCase();

    void updatesTheInstalledBundle_data();
    void updatesTheInstalledBundle();

private:
    QByteArray zipOf(const QString &folder);
    QString fakeLog() const { return QString::fromUtf8(readFile(m_sandbox + "/fake.log")); }
    QString swapLog() const { return QString::fromUtf8(readFile(m_temp + "/velmora_update.log")); }

    const QString m_sandbox;
    QString m_temp;
    QString m_installed;
    QString m_zip;
    HttpsTestServer m_server;
};

void TestFullUpdate::initTestCase()
{
    Q_INIT_RESOURCE(updater);
    QCOMPARE(findInstallLocation().dstApp, m_sandbox + "/Applications/Velmora.app");
    m_installed = m_sandbox + "/Applications/Velmora.app";
    m_temp = QStandardPaths::writableLocation(QStandardPaths::TempLocation);
    QVERIFY(m_temp.startsWith(m_sandbox));

    // Without the fake the script reads no version and lets any package pass.
    QVERIFY2(QFileInfo("/usr/libexec/PlistBuddy").isExecutable(),
             "run through tests/with-fake-plistbuddy.sh, which mounts the fake PlistBuddy");
    m_zip = QStandardPaths::findExecutable("zip");
    if (m_zip.isEmpty() || QStandardPaths::findExecutable("unzip").isEmpty())
        QSKIP("zip and unzip are needed to build and unpack the package");

    // The macOS tools, each recording its call. ditto does what the updater
    // and the script ask of it: unpack the package, or copy a bundle.
    const QString bin = m_sandbox + "/bin";
    const QByteArray record = "#!/bin/sh\necho \"${0##*/} $*\" >> \"$FAKE_LOG\"\n";
    QVERIFY(writeFile(bin + "/ditto", record + "if [ \"$1\" = -x ]; then exec unzip -q -o \"$3\" -d \"$4\"; fi\n"
                                                "exec cp -R \"$1\" \"$2\"\n", true));
    QVERIFY(writeFile(bin + "/open", record + "exit \"${FAKE_OPEN_RC:-0}\"\n", true));
    QVERIFY(writeFile(bin + "/lipo", record + "echo \"$FAKE_LIPO_ARCHS\"\n", true));
    QVERIFY(writeFile(bin + "/pgrep", record + "exit 1\n", true));
    for (const QString &tool : {"osascript", "ioreg", "xattr", "pkill", "killall"})
        QVERIFY(writeFile(bin + '/' + tool, record, true));
    qputenv("PATH", QFile::encodeName(bin) + ':' + qgetenv("PATH"));
    qputenv("FAKE_LOG", QFile::encodeName(m_sandbox + "/fake.log"));
    qputenv("FAKE_LIPO_ARCHS", QSysInfo::currentCpuArchitecture().toUtf8());

    QVERIFY(HttpsTestServer::trustTestCa());
    QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
}

void TestFullUpdate::init()
{
    QDir(m_sandbox + "/Applications").removeRecursively();
    QVERIFY(makeBundle(m_installed, "1.0.0"));
    QDir(m_temp + "/VelmoraExtract").removeRecursively();
    for (const char *name : {"velmora_update.log", "velmora_update.status", "VelmoraUpdate.zip"})
        QFile::remove(m_temp + '/' + name);
    QFile::remove(m_sandbox + "/fake.log");
    qunsetenv("FAKE_OPEN_RC");
}

void TestFullUpdate::cleanupTestCase()
{
    m_server.stop();
}

QByteArray TestFullUpdate::zipOf(const QString &folder)
{
    const QString archive = m_sandbox + "/package.zip";
    QFile::remove(archive);
    QProcess zip;
    zip.setWorkingDirectory(folder);
    zip.start(m_zip, {"-r", "-q", "-y", archive, "."});
    if (!zip.waitForFinished(30000) || zip.exitCode() != 0)
        return {};
    return readFile(archive);
}

void TestFullUpdate::updatesTheInstalledBundle_data()
{
    QTest::addColumn<QString>("packaged");    // version of the bundle in the package; empty: no bundle
    QTest::addColumn<bool>("digestMatches");
    QTest::addColumn<bool>("autoMode");
    QTest::addColumn<int>("openRc");
    QTest::addColumn<QByteArray>("key");      // the status at the end of the run
    QTest::addColumn<QString>("installed");   // version installed afterwards
    QTest::addColumn<QString>("logLine");     // a line of the swap log; empty: the script never ran

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

void TestFullUpdate::updatesTheInstalledBundle()
{
    QFETCH(QString, packaged);
    QFETCH(bool, digestMatches);
    QFETCH(bool, autoMode);
    QFETCH(int, openRc);
    QFETCH(QByteArray, key);
    QFETCH(QString, installed);
    QFETCH(QString, logLine);

    QTemporaryDir staging;
    QVERIFY(packaged.isEmpty() ? makeBundle(staging.filePath("Release/Velmora"), "2.0.0")
                               : makeBundle(staging.filePath("Velmora.app"), packaged));
    const QByteArray package = zipOf(staging.path());
    QVERIFY(!package.isEmpty());
    QByteArray digest = QCryptographicHash::hash(package, QCryptographicHash::Sha256).toHex().toUpper();
    if (!digestMatches)
        digest[0] = digest.at(0) == 'A' ? 'B' : 'A';
    m_server.setResponse("/VelmoraUpdate.zip", ScriptedResponse::ok(package, "application/zip"));
    if (openRc != 0)
        qputenv("FAKE_OPEN_RC", QByteArray::number(openRc));

    Downloader downloader("2.0.0", m_server.url("/VelmoraUpdate.zip").toString(), QString::fromLatin1(digest), false);
    downloader.autoMode = autoMode;
    downloader.statusPollIntervalMs = 100;
    QSignalSpy done(&downloader, &Downloader::done);
    QTRY_VERIFY_WITH_TIMEOUT(downloader.isFinished(), 60000);

    QCOMPARE(downloader.status(), translate(key.constData()));
    const bool failed = key != "upd_install_done";
    QCOMPARE(downloader.hasError(), failed);
    QCOMPARE(downloader.phase(), failed ? -1 : 4);
    QCOMPARE(done.count(), autoMode ? 1 : 0);

    const QString script = m_temp + "/velmora_apply_update.sh";
    if (logLine.isEmpty()) {
        QVERIFY(!QFile::exists(script));
        QVERIFY(!QFile::exists(m_temp + "/velmora_update.log"));
    } else {
        // The automatic run did not wait for the outcome; the script reports
        // it all the same.
        QTRY_VERIFY_WITH_TIMEOUT(!QFile::exists(script), 30000);
        QCOMPARE(readFile(m_temp + "/velmora_update.status"), failed ? QByteArray("fail\n") : QByteArray("ok\n"));
        QVERIFY2(swapLog().contains("] " + logLine.replace("%1", m_installed) + '\n'), qPrintable(swapLog()));
        QVERIFY(!QFile::exists(m_temp + "/VelmoraExtract/Velmora.app"));
        QVERIFY(!QFile::exists(m_installed + ".new"));
        QVERIFY(!QFile::exists(m_installed + ".old"));
    }
    QCOMPARE(installedBundle(m_installed), installed);
    QVERIFY(!QFile::exists(m_temp + "/VelmoraUpdate.zip"));

    // Relaunched only where an interactive run swapped; never in automatic
    // mode, as the application was not running.
    const bool swapped = !logLine.isEmpty() && !packaged.startsWith("3");
    QCOMPARE(fakeLog().contains("open " + m_installed + '\n'), swapped && !autoMode);
}

// The swap script installs into whatever findInstallLocation() answers from
// the command line, so the application object is given "--install-dir" into
// a private sandbox whoever starts this binary; TMPDIR, which the download,
// the extraction and the script's log follow, points there too.
int main(int argc, char *argv[])
{
    QTemporaryDir sandbox;
    if (!sandbox.isValid())
        qFatal("cannot create the sandbox");
    QDir().mkpath(sandbox.filePath("tmp"));
    qputenv("TMPDIR", QFile::encodeName(sandbox.filePath("tmp")));

    QByteArray installDir = QFile::encodeName(sandbox.filePath("Applications"));
    QByteArray installFlag("--install-dir");
    std::vector<char *> appArgv(argv, argv + argc);
    appArgv.push_back(installFlag.data());
    appArgv.push_back(installDir.data());
    appArgv.push_back(nullptr);
    int appArgc = argc + 2;
    QCoreApplication app(appArgc, appArgv.data());

    TestFullUpdate test(sandbox.path());
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_fullupdate.moc"
