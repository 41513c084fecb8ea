#include "downloader.h"
#include "testfiles.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QThread>
#include <QThreadPool>

#include <atomic>
#include <cstdio>
#include <vector>

// The watchdog's quit or a closed window can end the application while the
// install job is still inside the hand-over: the application object is gone
// then, and with it its arguments and folder. The hand-over must still install
// where the command line said and never fall back to /Applications.
//
// QTest cannot look past the application's end, so this check has its own
// main. The swap script's first write is a fake "mkdir" that fails, so even a
// script aimed at the wrong place stops before it touches anything.

static int failures = 0;

static void check(bool ok, const char *what)
{
    std::fprintf(stderr, "%s: %s\n", ok ? "PASS" : "FAIL", what);
    if (!ok)
        ++failures;
}

int main(int argc, char *argv[])
{
    QTemporaryDir sandbox;
    if (!sandbox.isValid())
        return 1;
    const QString tmp = sandbox.filePath("tmp"), bin = sandbox.filePath("bin");
    const QString installDir = sandbox.filePath("Applications");
    QDir().mkpath(tmp);
    qputenv("TMPDIR", QFile::encodeName(tmp));
    qputenv("FAKE_LOG", QFile::encodeName(sandbox.filePath("fake.log")));
    if (!writeFakeTool(bin, "mkdir", "exit 1") || !writeFakeTool(bin, "pgrep", "exit 1")
        || !makeLayout(sandbox.path(), {"VelmoraExtract/Velmora.app/Contents/MacOS/"}))
        return 1;
    qputenv("PATH", QFile::encodeName(bin) + ':' + qgetenv("PATH"));

    const QString sourceRoot = sandbox.filePath("VelmoraExtract"), temp = sandbox.path();
    const QString scriptPath = sandbox.filePath("velmora_apply_update.sh");
    std::atomic<bool> handedOver{false}, appGoneFirst{false};
    {
        QByteArray installFlag("--install-dir"), installPath = QFile::encodeName(installDir);
        std::vector<char *> appArgv(argv, argv + argc);
        appArgv.insert(appArgv.end(), {installFlag.data(), installPath.data(), nullptr});
        int appArgc = argc + 2;
        QCoreApplication app(appArgc, appArgv.data());
        Q_INIT_RESOURCE(updater);

        // Plain HTTP is refused at once, so the download never gets under way
        // and the hand-over below is the only thing that runs.
        auto *downloader = new Downloader("2.0.0", "http://127.0.0.1:1/VelmoraUpdate.zip", QString(64, 'a'), false, &app);
        downloader->autoMode = true;
        // The application's destructor waits for the pool, so the job runs
        // in exactly the window in which the application object is gone but
        // the Downloader, its child, still lives.
        QThreadPool::globalInstance()->start([&, downloader] {
            QElapsedTimer clock;
            clock.start();
            while (QCoreApplication::instance() && clock.elapsed() < 10000)
                QThread::msleep(1);
            appGoneFirst = !QCoreApplication::instance();
            downloader->installHandOver(sourceRoot, temp);
            handedOver = true;
        });
    }
    check(appGoneFirst, "the hand-over ran after the application object was gone");
    check(handedOver, "the hand-over returned before the application's end was over");

    QElapsedTimer clock;
    clock.start();
    while (QFileInfo::exists(scriptPath) && clock.elapsed() < 20000)
        QThread::msleep(20);
    check(!QFileInfo::exists(scriptPath), "the swap script ran and removed itself");

    const QByteArray swapLog = readFile(tmp + "/velmora_update.log");
    const QByteArray expected = "dst=" + QFile::encodeName(installDir) + "/Velmora.app ";
    check(swapLog.contains(expected), "the swap script was aimed at the --install-dir folder");
    check(readFile(sandbox.filePath("fake.log")).contains("mkdir -p " + QFile::encodeName(installDir) + '\n'),
          "the script's first write went to the --install-dir folder");
    if (failures)
        std::fprintf(stderr, "swap log:\n%s\n", swapLog.constData());
    return failures ? 1 : 0;
}
