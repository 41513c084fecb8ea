// Times what a signed package costs over the SHA-256 check alone, on the same
// file: one pass that feeds SHA-256 and BLAKE2b-512 together plus the
// signature check, against QCryptographicHash::addData(QIODevice*).
//
//   signaturebench PACKAGE MINISIG PUBLIC_KEYS VERSION [RUNS]
//
// Runs both sides RUNS times (default 5), alternating, after one read that
// puts the file in the page cache, and prints each run and the medians:
//   sha256_seconds=S signed_seconds=S ratio=R verdict=0|1

#include "packagesignature.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QFile>

#include <algorithm>
#include <cstdio>

namespace {

double median(QList<double> values)
{
    std::sort(values.begin(), values.end());
    const qsizetype middle = values.size() / 2;
    return values.size() % 2 ? values.at(middle) : (values.at(middle - 1) + values.at(middle)) / 2;
}

QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments().mid(1);
    const int runs = args.size() == 5 ? args.at(4).toInt() : 5;
    if ((args.size() != 4 && args.size() != 5) || runs < 1) {
        std::fprintf(stderr, "usage: signaturebench PACKAGE MINISIG PUBLIC_KEYS VERSION [RUNS]\n");
        return 2;
    }
    const QString package = args.at(0);
    const QByteArray minisig = readAll(args.at(1));
    QList<SigningKey> keys;
    QString error;
    if (!parseSigningKeys(readAll(args.at(2)), &keys, &error)) {
        std::fprintf(stderr, "signaturebench: %s\n", qPrintable(error));
        return 1;
    }

    QFile warm(package);
    if (!warm.open(QIODevice::ReadOnly) || !QCryptographicHash(QCryptographicHash::Sha256).addData(&warm)) {
        std::fprintf(stderr, "signaturebench: cannot read %s\n", qPrintable(package));
        return 1;
    }

    QList<double> sha256Seconds;
    QList<double> signedSeconds;
    bool valid = true;
    for (int run = 0; run < runs; ++run) {
        QElapsedTimer clock;
        clock.start();
        QFile file(package);
        QCryptographicHash hash(QCryptographicHash::Sha256);
        const bool hashed = file.open(QIODevice::ReadOnly) && hash.addData(&file);
        const QByteArray digest = hash.result();
        sha256Seconds.append(clock.nsecsElapsed() / 1e9);

        clock.restart();
        const PackageDigests digests = digestPackage(package);
        const SignatureVerdict verdict
            = verifyPackageSignature(minisig, keys, package, digests, packageClaims(args.at(3)));
        signedSeconds.append(clock.nsecsElapsed() / 1e9);

        valid = valid && hashed && digests.sha256 == digest && verdict == SignatureVerdict::Valid;
        std::printf("run=%d sha256_seconds=%.4f signed_seconds=%.4f\n", run + 1, sha256Seconds.last(),
                    signedSeconds.last());
    }
    const double sha256 = median(sha256Seconds);
    const double signedTotal = median(signedSeconds);
    std::printf("sha256_seconds=%.4f signed_seconds=%.4f ratio=%.3f verdict=%d\n", sha256, signedTotal,
                signedTotal / sha256, valid);
    return valid ? 0 : 1;
}
