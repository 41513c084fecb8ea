// Applies a delta the way the install worker does and reports what it cost.
//
//   deltabench DELTA INSTALLED_BUNDLE OUTPUT_DIR
//
// Prints: seconds=S cpu_seconds=C peak_rss_kib=K ok=0|1 reason="…". OUTPUT_DIR must be an
// empty folder; the new bundle is left in it as OUTPUT_DIR/Velmora.app.

#include "benchsupport.h"
#include "delta.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <cstdio>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments().mid(1);
    if (args.size() != 3) {
        std::fprintf(stderr, "usage: deltabench DELTA INSTALLED_BUNDLE OUTPUT_DIR\n");
        return 2;
    }
    const double cpuBefore = cpuSeconds();
    QElapsedTimer clock;
    clock.start();
    const DeltaResult result = applyDelta(args.at(0), args.at(1), args.at(2));
    std::printf("seconds=%.4f cpu_seconds=%.3f peak_rss_kib=%ld ok=%d reason=\"%s\"\n", clock.nsecsElapsed() / 1e9,
                cpuSeconds() - cpuBefore, peakRssKib(), result.ok, qPrintable(result.reason));
    return result.ok ? 0 : 1;
}
