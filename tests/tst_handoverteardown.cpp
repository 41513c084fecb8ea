// A hand-over still running when the application object is gone (the
// watchdog's quit, a window closed mid-install) installs where the command
// line said at start, never in /Applications.
//
// QTest cannot look past the application's end, so the hand-over runs while
// ~QCoreApplication waits for the thread pool, and the verdict is the exit
// status. The swap script's first write is a fake mkdir that fails, so even
// a script aimed at the wrong place changes nothing.

#include "downloader.h"
#include "sandbox.h"
#include "testfiles.h"

#include <QCoreApplication>
#include <QFile>
#include <QThread>
#include <QThreadPool>

#include <atomic>

static std::atomic<bool> aimedAtInstallDir{false};

int main(int argc, char *argv[])
{
    runInSandbox(argc, argv, [] {
        const QString temp = sandboxPath() + "/tmp";
        qputenv("FAKE_LOG", QFile::encodeName(temp + "/fake.log"));
        qputenv("PATH", QFile::encodeName(temp + "/bin:") + qgetenv("PATH"));
        writeFakeTool(temp + "/bin", "mkdir", "exit 1");
        writeBundle(temp + "/VelmoraExtract/Velmora.app", "2.0.0");
        // Refused at once: the hand-over below is all that runs.
        auto *downloader = new Downloader("2.0.0", "http://127.0.0.1:9/x.zip", QString(64, 'a'), false, qApp);
        QThreadPool::globalInstance()->start([=] {
            for (int i = 0; QCoreApplication::instance() && i < 10000; ++i)
                QThread::msleep(1);
            const bool appGone = !QCoreApplication::instance();
            // Returns once the script has written its failure.
            downloader->installHandOver(temp + "/VelmoraExtract", temp);
            const QByteArray mkdir = "mkdir -p " + QFile::encodeName(sandboxPath()) + "/Applications\n";
            aimedAtInstallDir = appGone && readFile(temp + "/fake.log").contains(mkdir);
        });
        return new QObject;
    });
    qInfo("%s: a hand-over after the application's end aims at --install-dir", aimedAtInstallDir ? "PASS" : "FAIL");
    return aimedAtInstallDir ? 0 : 1;
}
