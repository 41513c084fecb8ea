// Times the updater's own verification against the plainest use of Qt's
// hashing on the same file.
//
//   verifybench updater SHA256   hashes $TMPDIR/VelmoraUpdate.zip with
//                                Downloader::verifyChecksum
//   verifybench bare FILE        hashes FILE with QCryptographicHash::addData(QIODevice*)
//
// Both print: seconds=S ok=0|1 (bare: the digest instead of ok).

#include "benchsupport.h"
#include "downloader.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QElapsedTimer>

#include <cstdio>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments().mid(1);
    if (args.size() != 2) {
        std::fprintf(stderr, "usage: verifybench updater SHA256 | verifybench bare FILE\n");
        return 2;
    }

    QElapsedTimer clock;
    if (args.first() == QLatin1String("updater")) {
        // A plain-HTTP address is refused before any file or request is made,
        // which leaves a Downloader that only knows its digest and package path.
        Downloader downloader(QStringLiteral("0.0.0"), QStringLiteral("http://refused.invalid/"), args.at(1), false);
        clock.start();
        const bool ok = downloader.verifyChecksum();
        std::printf("seconds=%.4f ok=%d\n", clock.nsecsElapsed() / 1e9, ok);
        return ok ? 0 : 1;
    }

    QFile file(args.at(1));
    if (!file.open(QIODevice::ReadOnly))
        return 1;
    clock.start();
    QCryptographicHash hash(QCryptographicHash::Sha256);
    hash.addData(&file);
    const QByteArray digest = hash.result().toHex();
    std::printf("seconds=%.4f digest=%s\n", clock.nsecsElapsed() / 1e9, digest.constData());
    return 0;
}
