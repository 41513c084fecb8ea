#include "downloader.h"
#include "handover.h"
#include "installlocation.h"
#include "localisation.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QHash>
#include <QProcess>
#include <QSignalSpy>
#include <QSysInfo>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <QtConcurrent/QtConcurrentRun>

#include <memory>
#include <vector>

using Layout = QStringList; // relative paths; a trailing "/" makes a directory
Q_DECLARE_METATYPE(Layout)

static const QByteArray bodyDash("\xe2\x80\x94");
static const QByteArray fileDash("\xc3\xa2\xc2\x80\xc2\x94");

static bool writeFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

static QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

static bool makeLayout(const QString &base, const Layout &layout)
{
    for (const QString &entry : layout) {
        const QString path = base + '/' + entry;
        if (!(entry.endsWith('/') ? QDir().mkpath(path) : writeFile(path, "x")))
            return false;
    }
    return true;
}

class TestHandOver : public QObject
{
    Q_OBJECT

public:
    explicit TestHandOver(const QString &sandbox) : m_sandbox(sandbox) {}

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void findsTheNewBundle_data();
    void findsTheNewBundle();
    void followsTheFileSystemListingOrder_data();
    void followsTheFileSystemListingOrder();
    void writesPreambleAndHeaderBeforeTheBody();
    void quotesEachValue_data();
    void quotesEachValue();
    void hostileValuesReachBashAsData_data();
    void hostileValuesReachBashAsData();

    void startsTheWrittenScript();
    void watchEndsOnTheStatusWord_data();
    void watchEndsOnTheStatusWord();
    void automaticModeNeverReadsTheStatus();
    void missingBundleWritesNoScript();
    void unwritableScriptIsReported();

private:
    std::unique_ptr<Downloader> makeDownloader(bool autoMode, int polls, int intervalMs);
    bool runHandOver(Downloader *downloader, const QString &sourceRoot);
    QString extractedBundle() const { return m_run->filePath("VelmoraExtract/Velmora.app"); }
    QString scriptPath() const { return m_run->filePath("velmora_apply_update.sh"); }
    QString statusPath() const { return m_run->filePath("velmora_update.status"); }

    const QString m_sandbox;
    QTcpServer m_silentServer;
    std::unique_ptr<QTemporaryDir> m_run;
};

void TestHandOver::initTestCase()
{
    Q_INIT_RESOURCE(updater);
    // main() put the destination in the sandbox; nothing here may ever reach
    // the real /Applications, so refuse to run at all otherwise.
    QCOMPARE(findInstallLocation().dstApp, m_sandbox + "/Applications/Velmora.app");

    // The script that the hand-over starts is the real one. Its first copy
    // (ditto) is held here: the fake writes the status word a row asks for,
    // then waits for the test to let go, and fails, so the swap never gets
    // further than the sandbox's staging folder.
    const QString bin = m_sandbox + "/bin";
    QVERIFY(writeFile(bin + "/ditto", "#!/bin/sh\n"
                                      "echo \"ditto $*\" >> \"$FAKE_LOG\"\n"
                                      "[ -z \"${FAKE_STATUS_WORD+set}\" ] || printf %s \"$FAKE_STATUS_WORD\" > \"$FAKE_STATUS_FILE\"\n"
                                      "n=0\n"
                                      "while [ ! -e \"$FAKE_RELEASE\" ] && [ $n -lt 600 ]; do sleep 0.05; n=$((n + 1)); done\n"
                                      "exit 1\n"));
    QVERIFY(writeFile(bin + "/pgrep", "#!/bin/sh\necho \"pgrep $*\" >> \"$FAKE_LOG\"\nexit 1\n"));
    for (const QString &tool : {"ditto", "pgrep"})
        QVERIFY(QFile::setPermissions(bin + '/' + tool, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
    qputenv("PATH", QFile::encodeName(bin) + ':' + qgetenv("PATH"));

    // Accepts and never answers: every Downloader stays in its connecting phase.
    QVERIFY(m_silentServer.listen(QHostAddress::LocalHost, 0));
}

void TestHandOver::init()
{
    m_run = std::make_unique<QTemporaryDir>(m_sandbox + "/run-XXXXXX");
    QVERIFY(m_run->isValid());
    qputenv("FAKE_LOG", QFile::encodeName(m_run->filePath("fake.log")));
    qputenv("FAKE_RELEASE", QFile::encodeName(m_run->filePath("release")));
    qputenv("FAKE_STATUS_FILE", QFile::encodeName(statusPath()));
    qunsetenv("FAKE_STATUS_WORD");
}

// Lets a held script go and waits until it has removed itself, so that no
// script outlives its test.
void TestHandOver::cleanup()
{
    writeFile(m_run->filePath("release"), {});
    QElapsedTimer clock;
    clock.start();
    while (QFileInfo(scriptPath()).isFile() && clock.elapsed() < 20000)
        QTest::qWait(20);
    QVERIFY2(!QFileInfo(scriptPath()).isFile(), "the swap script is still running");
    m_run.reset();
}

std::unique_ptr<Downloader> TestHandOver::makeDownloader(bool autoMode, int polls, int intervalMs)
{
    const QString url = QStringLiteral("https://127.0.0.1:%1/VelmoraUpdate.zip").arg(m_silentServer.serverPort());
    auto downloader = std::make_unique<Downloader>("2.0.0", url, QString(64, 'a'), false);
    downloader->autoMode = autoMode;
    downloader->statusPolls = polls;
    downloader->statusPollIntervalMs = intervalMs;
    return downloader;
}

// True when the hand-over returned in time; every state it posted has been
// applied by then.
bool TestHandOver::runHandOver(Downloader *downloader, const QString &sourceRoot)
{
    const QString tempLocation = m_run->path();
    QFuture<void> job = QtConcurrent::run([=] { downloader->installHandOver(sourceRoot, tempLocation); });
    QElapsedTimer clock;
    clock.start();
    while (!job.isFinished() && clock.elapsed() < 30000)
        QTest::qWait(10);
    QCoreApplication::sendPostedEvents(downloader);
    return job.isFinished();
}

void TestHandOver::findsTheNewBundle_data()
{
    QTest::addColumn<Layout>("layout");
    QTest::addColumn<QString>("root");
    QTest::addColumn<QString>("bundle"); // empty: none found

    QTest::newRow("root is a bundle, suffix in upper case") << Layout{"Foo.APP/Contents/"} << "Foo.APP" << "Foo.APP";
    QTest::newRow("root is a plain file named like a bundle") << Layout{"x.app"} << "x.app" << "";
    QTest::newRow("bundle directly in the root") << Layout{"Velmora.app/Contents/", "notes.txt"} << "" << "Velmora.app";
    QTest::newRow("bundle one folder down, mixed case")
        << Layout{"Release/velmora.App/Contents/"} << "" << "Release/velmora.App";
    QTest::newRow("a file named like a bundle is not one") << Layout{"Velmora.app", "Release/Velmora.app"} << "" << "";
    QTest::newRow("three levels down is too deep") << Layout{"A/B/Inner.app/Contents/"} << "" << "";
    QTest::newRow("empty root") << Layout{} << "" << "";
}

void TestHandOver::findsTheNewBundle()
{
    QFETCH(Layout, layout);
    QFETCH(QString, root);
    QFETCH(QString, bundle);
    QTemporaryDir dir;
    QVERIFY(makeLayout(dir.path(), layout));
    QCOMPARE(findNewBundle(dir.filePath(root)), bundle.isEmpty() ? QString() : dir.filePath(bundle));
}

void TestHandOver::followsTheFileSystemListingOrder_data()
{
    QTest::addColumn<bool>("folderListedFirst");
    QTest::newRow("bundle inside an earlier folder wins over a later direct one") << true;
    QTest::newRow("direct bundle listed earlier wins over a nested one") << false;
}

// The root holds B.app and a plain folder with Inner.app inside. The folder's
// name is chosen so that the file system lists it on the wanted side of B.app
// while the alphabet puts it on the other, so that neither a sorted listing
// nor a search that prefers direct bundles can pass.
void TestHandOver::followsTheFileSystemListingOrder()
{
    QFETCH(bool, folderListedFirst);
    const QString prefix = folderListedFirst ? "Z" : "A";
    for (int i = 0; i < 500; ++i) {
        QTemporaryDir dir;
        const QString folder = prefix + QString::number(i);
        QVERIFY(makeLayout(dir.path(), {"B.app/Contents/", folder + "/Inner.app/Contents/"}));
        const QStringList listing = QDir(dir.path()).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Unsorted);
        if ((listing.indexOf(folder) < listing.indexOf("B.app")) != folderListedFirst)
            continue;
        const QString expected = folderListedFirst ? dir.filePath(folder + "/Inner.app") : dir.filePath("B.app");
        QCOMPARE(findNewBundle(dir.path()), expected);
        return;
    }
    QSKIP("this file system lists these folders in alphabetical order only");
}

void TestHandOver::writesPreambleAndHeaderBeforeTheBody()
{
    SwapScriptValues values;
    values.srcApp = "/Users/o'neil/Velmora.app";
    values.dstApp = "/Applications/Velmora.app";
    values.srcRoot = "/tmp/T/VelmoraExtract";
    values.expectArch = "arm64";
    values.autoMode = true;
    values.statusPath = "/tmp/T/velmora_update.status";
    const QByteArray header = "#!/bin/bash\n"
                              "set +e\n"
                              "UPDATER_NAME='VelmoraUpdater'\n"
                              "SRC_APP='/Users/o'\\''neil/Velmora.app'\n"
                              "DST_APP='/Applications/Velmora.app'\n"
                              "LEGACY_APP=''\n"
                              "SRC_ROOT='/tmp/T/VelmoraExtract'\n"
                              "EXPECT_VER=''\n"
                              "EXPECT_ARCH='arm64'\n"
                              "AUTO=1\n"
                              "MIN_IDLE=300\n"
                              "MAX_WAIT=21600\n"
                              "STATUS='/tmp/T/velmora_update.status'\n"
                              "CANONICAL_APP='/Applications/Velmora.app'\n";
    const QByteArray script = buildSwapScript(values);
    QCOMPARE(script.left(header.size()), header);
    QVERIFY(script.mid(header.size()).startsWith("LOG="));

    values.autoMode = false;
    QVERIFY(buildSwapScript(values).contains("\nAUTO=0\nMIN_IDLE=300\n"));
}

void TestHandOver::quotesEachValue_data()
{
    QTest::addColumn<QString>("variable");
    QTest::addColumn<QString>("value");
    QTest::addColumn<QByteArray>("line");

    QTest::newRow("single quote") << "SRC_APP" << "/Users/o'neil/Velmora.app"
                                  << QByteArray("SRC_APP='/Users/o'\\''neil/Velmora.app'");
    QTest::newRow("two quotes in a row") << "EXPECT_VER" << "1''" << QByteArray("EXPECT_VER='1'\\'''\\'''");
    QTest::newRow("spaces") << "DST_APP" << "/Volumes/Macintosh HD/My Apps/Velmora.app"
                            << QByteArray("DST_APP='/Volumes/Macintosh HD/My Apps/Velmora.app'");
    QTest::newRow("line feed") << "LEGACY_APP" << "/Users/u/Velmora\n2.app"
                               << QByteArray("LEGACY_APP='/Users/u/Velmora\n2.app'");
    QTest::newRow("non-ASCII, encoded once") << "SRC_ROOT" << "/Users/Çağrı/tmp/VelmoraExtract"
                                             << QByteArray("SRC_ROOT='/Users/Çağrı/tmp/VelmoraExtract'");
    QTest::newRow("em dash in a value, encoded once") << "STATUS" << "/Users/A — B/velmora_update.status"
                                                      << QByteArray("STATUS='/Users/A \xe2\x80\x94 B/velmora_update.status'");
    QTest::newRow("empty legacy") << "LEGACY_APP" << "" << QByteArray("LEGACY_APP=''");
    QTest::newRow("empty version") << "EXPECT_VER" << "" << QByteArray("EXPECT_VER=''");
    QTest::newRow("dollar and backslash stay literal") << "EXPECT_ARCH" << "$HOME\\" << QByteArray("EXPECT_ARCH='$HOME\\'");
}

void TestHandOver::quotesEachValue()
{
    QFETCH(QString, variable);
    QFETCH(QString, value);
    QFETCH(QByteArray, line);
    SwapScriptValues values;
    const QHash<QString, QString *> fields = {
        {"SRC_APP", &values.srcApp},         {"DST_APP", &values.dstApp},
        {"LEGACY_APP", &values.legacyApp},   {"SRC_ROOT", &values.srcRoot},
        {"EXPECT_VER", &values.expectVersion}, {"EXPECT_ARCH", &values.expectArch},
        {"STATUS", &values.statusPath},
    };
    *fields.value(variable) = value;
    const QByteArray script = buildSwapScript(values);
    QVERIFY2(script.contains('\n' + line + '\n'), script.left(script.indexOf("\nLOG=")).constData());
}

void TestHandOver::hostileValuesReachBashAsData_data()
{
    QTest::addColumn<QString>("value"); // "%1" stands for a file that must never be created

    QTest::newRow("quotes of both kinds") << "it's \"quoted\" 'twice'";
    QTest::newRow("command substitution") << "$(touch %1)";
    QTest::newRow("backticks") << "`touch %1`";
    QTest::newRow("closing quote, line feed, command") << "x'\ntouch %1\n'";
    QTest::newRow("escaped quote attempt") << "\\'; touch %1; echo '";
    QTest::newRow("variables, globs, history") << "$HOME/* ~ !! ${PATH}";
    QTest::newRow("only a quote") << "'";
    QTest::newRow("trailing line feeds") << "/Users/u\n\n";
    QTest::newRow("non-ASCII") << "/Users/Çağrı — Ünal/Velmora.app";
    QTest::newRow("empty") << "";
}

// What the header assigns is what bash holds: run it and print every value.
void TestHandOver::hostileValuesReachBashAsData()
{
    QFETCH(QString, value);
    const QString canary = m_run->filePath("canary");
    value.replace("%1", canary);

    SwapScriptValues values{value, value, value, value, value, value, false, value};
    QByteArray script = buildSwapScript(values);
    const QByteArray lastLine = "CANONICAL_APP='/Applications/Velmora.app'\n";
    script.truncate(script.lastIndexOf(lastLine) + lastLine.size());
    script += "printf '%s\\0' \"$UPDATER_NAME\" \"$SRC_APP\" \"$DST_APP\" \"$LEGACY_APP\" \"$SRC_ROOT\" "
              "\"$EXPECT_VER\" \"$EXPECT_ARCH\" \"$AUTO\" \"$STATUS\" \"$CANONICAL_APP\"\n";
    const QString file = m_run->filePath("header.sh");
    QVERIFY(writeFile(file, script));

    QProcess bash;
    bash.start("/bin/bash", {file});
    QVERIFY(bash.waitForFinished(10000));
    QCOMPARE(bash.readAllStandardError(), QByteArray());
    const QByteArray v = value.toUtf8();
    const QList<QByteArray> expected{"VelmoraUpdater", v, v, v, v, v, v, "0", v, "/Applications/Velmora.app"};
    QCOMPARE(bash.readAllStandardOutput(), expected.join('\0') + '\0');
    QVERIFY(!QFile::exists(canary));
}

void TestHandOver::startsTheWrittenScript()
{
    QVERIFY(makeLayout(m_run->path(), {"VelmoraExtract/Velmora.app/Contents/MacOS/"}));
    auto downloader = makeDownloader(false, 1, 0);
    QVERIFY(runHandOver(downloader.get(), m_run->filePath("VelmoraExtract")));

    // The started script reached its first copy with the values written.
    const QString dst = m_sandbox + "/Applications/Velmora.app";
    QTRY_VERIFY(readFile(m_run->filePath("fake.log")).contains("ditto "));
    QCOMPARE(readFile(m_run->filePath("fake.log")), ("ditto " + extractedBundle() + ' ' + dst + ".new\n").toUtf8());

    SwapScriptValues expected;
    expected.srcApp = extractedBundle();
    expected.dstApp = dst;
    expected.srcRoot = m_run->filePath("VelmoraExtract");
    expected.expectVersion = "2.0.0";
    expected.expectArch = QSysInfo::currentCpuArchitecture();
    expected.statusPath = statusPath();
    const QByteArray script = readFile(scriptPath());
    QCOMPARE(script, buildSwapScript(expected));
    const QFile::Permissions mode = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadGroup
        | QFile::ExeGroup | QFile::ReadOther | QFile::ExeOther;
    QCOMPARE(QFile::permissions(scriptPath()) & ~(QFile::ReadUser | QFile::WriteUser | QFile::ExeUser), mode);

    // Every em dash of the body is in the file encoded twice, none as it was.
    const qsizetype dashes = swapScriptBody().count(bodyDash);
    QVERIFY(dashes > 0);
    QCOMPARE(script.count(bodyDash), 0);
    QCOMPARE(script.count(fileDash), dashes);
}

void TestHandOver::watchEndsOnTheStatusWord_data()
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
    QTest::newRow("empty file") << true << QByteArray() << QByteArray("upd_install_timeout_kept");
    QTest::newRow("no file; an earlier run's ok is not read")
        << false << QByteArray() << QByteArray("upd_install_timeout_kept");
}

void TestHandOver::watchEndsOnTheStatusWord()
{
    QFETCH(bool, written);
    QFETCH(QByteArray, word);
    QFETCH(QByteArray, key);
    QVERIFY(writeFile(statusPath(), "ok\n"));
    if (written)
        qputenv("FAKE_STATUS_WORD", word);
    QVERIFY(makeLayout(m_run->path(), {"VelmoraExtract/Velmora.app/"}));
    auto downloader = makeDownloader(false, 100, 20);

    QVERIFY(runHandOver(downloader.get(), m_run->filePath("VelmoraExtract")));

    const bool failure = key != "upd_install_done";
    QCOMPARE(downloader->status(), translate(key.constData()));
    QCOMPARE(downloader->hasError(), failure);
    QCOMPARE(downloader->phase(), failure ? -1 : 0);
    QCOMPARE(QFile::exists(statusPath()), written);
    if (written)
        QCOMPARE(readFile(statusPath()), word);
}

// The held script writes "fail" at once. An updater that looked at the status
// file would report the failure; in automatic mode it must only say that the
// update is being applied and hand the quit to the GUI thread.
void TestHandOver::automaticModeNeverReadsTheStatus()
{
    qputenv("FAKE_STATUS_WORD", "fail\n");
    QVERIFY(makeLayout(m_run->path(), {"VelmoraExtract/Velmora.app/"}));
    auto downloader = makeDownloader(true, 500, 20);
    QThread *doneThread = nullptr;
    connect(downloader.get(), &Downloader::done, this, [&] { doneThread = QThread::currentThread(); },
            Qt::DirectConnection);
    QSignalSpy done(downloader.get(), &Downloader::done);

    QVERIFY(runHandOver(downloader.get(), m_run->filePath("VelmoraExtract")));
    QTRY_COMPARE(readFile(statusPath()), QByteArray("fail\n"));
    QTest::qWait(100);

    QCOMPARE(done.count(), 1);
    QCOMPARE(doneThread, QThread::currentThread());
    QCOMPARE(downloader->status(), translate("upd_applying_restart"));
    QVERIFY(!downloader->hasError());
    QCOMPARE(downloader->phase(), 0);
    QVERIFY(readFile(scriptPath()).contains("\nAUTO=1\n"));
    QVERIFY(readFile(m_run->filePath("fake.log")).contains("pgrep -x VelmoraUpdater\n"));
}

void TestHandOver::missingBundleWritesNoScript()
{
    QVERIFY(makeLayout(m_run->path(), {"VelmoraExtract/Release/Velmora/Contents/", "VelmoraExtract/Velmora.app"}));
    auto downloader = makeDownloader(false, 1, 0);
    QSignalSpy done(downloader.get(), &Downloader::done);

    QVERIFY(runHandOver(downloader.get(), m_run->filePath("VelmoraExtract")));

    QCOMPARE(downloader->status(), translate("upd_app_not_found"));
    QCOMPARE(downloader->phase(), -1);
    QVERIFY(downloader->hasError());
    QVERIFY(!QFile::exists(scriptPath()));
    QVERIFY(!QFile::exists(m_run->filePath("fake.log")));
    QCOMPARE(done.count(), 0);
}

void TestHandOver::unwritableScriptIsReported()
{
    QVERIFY(makeLayout(m_run->path(), {"VelmoraExtract/Velmora.app/", "velmora_apply_update.sh/"}));
    QVERIFY(writeFile(statusPath(), "ok\n"));
    auto downloader = makeDownloader(false, 1, 0);

    QVERIFY(runHandOver(downloader.get(), m_run->filePath("VelmoraExtract")));

    QCOMPARE(downloader->status(), translate("upd_script_create_failed"));
    QCOMPARE(downloader->phase(), -1);
    QVERIFY(downloader->hasError());
    QVERIFY(!QFile::exists(statusPath()));
    QVERIFY(!QFile::exists(m_run->filePath("fake.log")));
}

// The started swap script is the real one, and it installs into whatever
// findInstallLocation() answers from the command line. The application object
// is therefore given "--install-dir" into a private sandbox, whoever starts
// this binary and however; TMPDIR, which the script's log follows, points
// there too. QTest sees only the arguments it understands.
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

    TestHandOver test(sandbox.path());
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_handover.moc"
