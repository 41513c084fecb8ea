// Built instead of packagesignature.cpp when libsodium is not available. Such
// a build cannot check a signature, so it never calls one valid, and it
// refuses keys rather than accept them and then ignore them.

#include "packagesignature.h"

#include <QCryptographicHash>
#include <QFile>

bool parseSigningKeys(const QByteArray &, QList<SigningKey> *, QString *error)
{
    if (error)
        *error = QStringLiteral("this build has no libsodium and cannot check package signatures; "
                                "install libsodium (Debian: libsodium-dev) and configure again");
    return false;
}

PackageDigests digestPackage(const QString &path)
{
    PackageDigests digests;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return digests;
    QCryptographicHash sha256(QCryptographicHash::Sha256);
    digests.ok = sha256.addData(&file);
    digests.sha256 = sha256.result();
    return digests;
}

TrustedClaims packageClaims(const QString &version)
{
    return {{"version", version}};
}

TrustedClaims deltaClaims(const QString &version, const QString &from)
{
    return {{"version", version}, {"from", from}, {"kind", QStringLiteral("delta")}};
}

SignatureVerdict verifyPackageSignature(const QByteArray &, const QList<SigningKey> &, const QString &,
                                        const PackageDigests &, const TrustedClaims &)
{
    return SignatureVerdict::BadSignature;
}
