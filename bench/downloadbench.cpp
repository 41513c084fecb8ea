// Drives the updater's Downloader over one package and stops the moment the
// download is complete (the phase turns to 2, just before the install job
// would start), so that only the download is measured.
//
//   downloadbench [--max-mib N] URL SHA256 CA_PEM
//       prints: seconds=S bytes=B peak_rss_kib=K start_rss_kib=K0 cpu_seconds=C
//   downloadbench [--max-mib N] --watch SECONDS URL CA_PEM
//       follows a download that may never end, printing its state every
//       ten seconds and once more when it finishes, when it emits done, or
//       when SECONDS have passed
//   downloadbench --bare-http2 URL CA_PEM
//       the plainest Qt download loop instead of the Downloader (readyRead,
//       readAll, write; the same 1 MiB read buffer) with HTTP/2 allowed, to
//       show what the Downloader's choice of HTTP/1.1 avoids; prints the
//       same fields and http2=0|1, the protocol Qt actually used
//
// --max-mib sets the Downloader's package size limit (the deployment's
// default otherwise). The package file goes where the updater puts it:
// $TMPDIR/VelmoraUpdate.zip.

#include "benchsupport.h"
#include "downloader.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QStandardPaths>
#include <QTimer>

#include <cstdio>
#include <cstdlib>

static void printState(const Downloader &downloader, qint64 elapsedMs)
{
    const QFileInfo package(downloader.packageFilePath());
    std::printf("t=%.1f phase=%d progress=%d error=%d finished=%d on_disk_mib=%.1f file=%s status=\"%s\"\n",
                elapsedMs / 1000.0, downloader.phase(), downloader.progress(), downloader.hasError(),
                downloader.isFinished(), package.size() / 1048576.0, package.exists() ? "present" : "absent",
                qPrintable(downloader.status()));
    std::fflush(stdout);
}

static void printTimes(const QElapsedTimer &clock, const QString &path, long startRss, double startCpu)
{
    std::printf("seconds=%.4f bytes=%lld peak_rss_kib=%ld start_rss_kib=%ld cpu_seconds=%.3f",
                clock.nsecsElapsed() / 1e9, QFileInfo(path).size(), peakRssKib(), startRss, cpuSeconds() - startCpu);
}

static int usage()
{
    std::fprintf(stderr,
                 "usage: downloadbench [--max-mib N] URL SHA256 CA_PEM\n"
                 "       downloadbench [--max-mib N] --watch SECONDS URL CA_PEM\n"
                 "       downloadbench --bare-http2 URL CA_PEM\n");
    return 2;
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QStringList args = app.arguments().mid(1);

    int watchSeconds = 0;
    qint64 maxMib = 0;
    bool bare = false;
    while (!args.isEmpty() && args.first().startsWith(QLatin1String("--"))) {
        const QString option = args.takeFirst();
        if (option == QLatin1String("--bare-http2")) {
            bare = true;
            continue;
        }
        if (args.isEmpty())
            return usage();
        const qint64 value = args.takeFirst().toLongLong();
        if (value < 1)
            return usage();
        if (option == QLatin1String("--watch"))
            watchSeconds = int(value);
        else if (option == QLatin1String("--max-mib"))
            maxMib = value;
        else
            return usage();
    }
    const bool watch = watchSeconds > 0;
    if (args.size() != (watch || bare ? 2 : 3) || (bare && (watch || maxMib)))
        return usage();
    const QString url = args.first();
    if (!trustCa(args.last())) {
        std::fprintf(stderr, "downloadbench: cannot read the CA\n");
        return 2;
    }

    const long startRss = peakRssKib();
    const double startCpu = cpuSeconds();
    QElapsedTimer clock;
    clock.start();

    if (bare) {
        QNetworkAccessManager manager;
        QNetworkRequest request{QUrl(url)};
        request.setAttribute(QNetworkRequest::Http2AllowedAttribute, true);
        const QString path
            = QStandardPaths::writableLocation(QStandardPaths::TempLocation) + QStringLiteral("/VelmoraUpdate.zip");
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly)) {
            std::fprintf(stderr, "downloadbench: cannot write %s\n", qPrintable(path));
            return 1;
        }
        QNetworkReply *reply = manager.get(request);
        reply->setReadBufferSize(1024 * 1024);
        QObject::connect(reply, &QIODevice::readyRead, [&] { file.write(reply->readAll()); });
        QObject::connect(reply, &QNetworkReply::finished, [&] {
            file.close();
            if (reply->error() != QNetworkReply::NoError) {
                std::fprintf(stderr, "downloadbench: the download failed: %s\n", qPrintable(reply->errorString()));
                std::_Exit(1);
            }
            printTimes(clock, path, startRss, startCpu);
            std::printf(" http2=%d\n", reply->attribute(QNetworkRequest::Http2WasUsedAttribute).toBool());
            std::fflush(stdout);
            std::_Exit(0);
        });
        return app.exec();
    }

    const QString digest = watch ? QString(64, QLatin1Char('0')) : args.at(1);
    TransferPolicy policy = Downloader::defaultTransferPolicy();
    if (maxMib)
        policy.maxBytes = maxMib * 1024 * 1024;
    auto *downloader = new Downloader(QStringLiteral("0.0.0"), url, digest, false, &app, policy);

    if (watch) {
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
        QTimer::singleShot(watchSeconds * 1000, [&] {
            printState(*downloader, clock.elapsed());
            std::_Exit(0);
        });
        return app.exec();
    }

    QObject::connect(downloader, &Downloader::phaseChanged, [&] {
        if (downloader->phase() != 2)
            return;
        printTimes(clock, downloader->packageFilePath(), startRss, startCpu);
        std::printf("\n");
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
