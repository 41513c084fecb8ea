// Drives the updater's Downloader over one package and stops the moment the
// download is complete (the phase turns to 2, just before the install job
// would start), so that only the download is measured.
//
//   downloadbench URL SHA256 CA_PEM
//       prints: seconds=S bytes=B peak_rss_kib=K start_rss_kib=K0 cpu_seconds=C
//   downloadbench --watch SECONDS URL CA_PEM
//       follows a download that may never end, printing its state every
//       ten seconds and once more when it finishes, when it emits done, or
//       when SECONDS have passed
//
// The package file goes where the updater puts it: $TMPDIR/VelmoraUpdate.zip.

#include "benchsupport.h"
#include "downloader.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QTimer>

#include <cstdio>
#include <cstdlib>

static void printState(const Downloader &downloader, qint64 elapsedMs)
{
    std::printf("t=%.1f phase=%d progress=%d error=%d finished=%d on_disk_mib=%.1f status=\"%s\"\n",
                elapsedMs / 1000.0, downloader.phase(), downloader.progress(), downloader.hasError(),
                downloader.isFinished(), QFileInfo(downloader.packageFilePath()).size() / 1048576.0,
                qPrintable(downloader.status()));
    std::fflush(stdout);
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments().mid(1);

    const bool watch = !args.isEmpty() && args.first() == QLatin1String("--watch");
    if ((watch && args.size() != 4) || (!watch && args.size() != 3)) {
        std::fprintf(stderr, "usage: downloadbench URL SHA256 CA_PEM | downloadbench --watch SECONDS URL CA_PEM\n");
        return 2;
    }
    const QString url = watch ? args.at(2) : args.at(0);
    const QString digest = watch ? QString(64, QLatin1Char('0')) : args.at(1);
    if (!trustCa(watch ? args.at(3) : args.at(2))) {
        std::fprintf(stderr, "downloadbench: cannot read the CA\n");
        return 2;
    }

    const long startRss = peakRssKib();
    const double startCpu = cpuSeconds();
    QElapsedTimer clock;
    clock.start();
    auto *downloader = new Downloader(QStringLiteral("0.0.0"), url, digest, false, &app);

    if (watch) {
        const int seconds = args.at(1).toInt();
        auto *ticker = new QTimer(&app);
        QObject::connect(ticker, &QTimer::timeout, [&] { printState(*downloader, clock.elapsed()); });
        ticker->start(10000);
        QObject::connect(downloader, &Downloader::isFinishedChanged, [&] {
            printState(*downloader, clock.elapsed());
            std::_Exit(0);
        });
        // A download that ends through the cancel path emits done and never
        // finishes: say so, or the watch would report it as still running.
        QObject::connect(downloader, &Downloader::done, [&] {
            std::printf("done emitted without finishing (the cancel path)\n");
            printState(*downloader, clock.elapsed());
            std::_Exit(0);
        });
        QTimer::singleShot(seconds * 1000, [&] {
            printState(*downloader, clock.elapsed());
            std::_Exit(0);
        });
        return app.exec();
    }

    QObject::connect(downloader, &Downloader::phaseChanged, [&] {
        if (downloader->phase() != 2)
            return;
        const double seconds = clock.nsecsElapsed() / 1e9;
        std::printf("seconds=%.4f bytes=%lld peak_rss_kib=%ld start_rss_kib=%ld cpu_seconds=%.3f\n", seconds,
                    QFileInfo(downloader->packageFilePath()).size(), peakRssKib(), startRss, cpuSeconds() - startCpu);
        std::fflush(stdout);
        // The install job must not run: leave before it is scheduled.
        std::_Exit(0);
    });
    QObject::connect(downloader, &Downloader::isFinishedChanged, [&] {
        std::fprintf(stderr, "downloadbench: the download failed: %s\n", qPrintable(downloader->status()));
        std::_Exit(1);
    });
    return app.exec();
}
