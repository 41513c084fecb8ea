// How long the GUI thread goes without running its event loop while the
// progress window downloads, verifies and unpacks a package. A 10 ms timer
// notes the longest gap between its ticks, per stage of the run.
//
//   responsivenessbench URL SHA256 CA_PEM
//       prints: connecting_ms=.. download_ms=.. verify_extract_ms=.. handover_ms=.. ticks=N
//
// Use a package without an application bundle: the hand-over then stops at
// once ("no bundle found") and nothing is installed.

#include "benchsupport.h"
#include "downloaddialog.h"
#include "downloader.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QTimer>

#include <algorithm>
#include <cstdio>

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    const QStringList args = app.arguments().mid(1);
    if (args.size() != 3 || !trustCa(args.at(2))) {
        std::fprintf(stderr, "usage: responsivenessbench URL SHA256 CA_PEM\n");
        return 2;
    }

    DownloadDialog dialog(QStringLiteral("9.9.9"), args.at(0), args.at(1), false, &app);
    dialog.show();
    Downloader *downloader = dialog.downloaderObject();

    // Index by stage: 0 connecting, 1 downloading, 2 verifying and
    // unpacking, 3 hand-over and end. A gap counts for the stage that was
    // current when it began: that is where the loop stopped turning.
    qint64 longest[4] = {0, 0, 0, 0};
    qint64 longestAt[4] = {0, 0, 0, 0};
    long ticks = 0;
    int stageAtTick = 0;
    QElapsedTimer clock;
    clock.start();
    qint64 lastTick = 0;
    QString phaseChanges;
    QObject::connect(downloader, &Downloader::phaseChanged,
                     [&] { phaseChanges += QStringLiteral(" %1@%2").arg(downloader->phase()).arg(clock.elapsed()); });
    QTimer timer;
    timer.setTimerType(Qt::PreciseTimer);
    QObject::connect(&timer, &QTimer::timeout, [&] {
        const qint64 now = clock.nsecsElapsed() / 1000;
        const qint64 gap = now - lastTick;
        if (gap > longest[stageAtTick]) {
            longest[stageAtTick] = gap;
            longestAt[stageAtTick] = lastTick / 1000;
        }
        lastTick = now;
        const int phase = downloader->phase();
        stageAtTick = phase < 0 || phase >= 3 ? 3 : phase;
        ++ticks;
    });
    timer.start(10);

    QObject::connect(downloader, &Downloader::isFinishedChanged, [&] {
        std::printf("connecting_ms=%.1f download_ms=%.1f verify_extract_ms=%.1f handover_ms=%.1f ticks=%ld "
                    "worst_at_ms=%lld,%lld,%lld,%lld phases=%s status=\"%s\"\n",
                    longest[0] / 1000.0, longest[1] / 1000.0, longest[2] / 1000.0, longest[3] / 1000.0, ticks,
                    longestAt[0], longestAt[1], longestAt[2], longestAt[3],
                    qPrintable(phaseChanges.trimmed().replace(' ', ',')), qPrintable(downloader->status()));
        std::fflush(stdout);
        app.quit();
    });
    return app.exec();
}
