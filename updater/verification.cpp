#include "verification.h"

#include <QCryptographicHash>
#include <QFile>

bool packageMatchesDigest(const QString &packagePath, const QString &expectedSha256)
{
    if (expectedSha256.size() != 64)
        return false;
    QFile package(packagePath);
    if (!package.open(QIODevice::ReadOnly))
        return false;
    QCryptographicHash hash(QCryptographicHash::Sha256);
    if (!hash.addData(&package))
        return false;
    return QString::fromLatin1(hash.result().toHex()).toLower() == expectedSha256;
}

PackageCheck checkPackage(const InstallJobInputs &inputs)
{
    if (!inputs.requireSignature)
        return packageMatchesDigest(inputs.packagePath, inputs.expectedSha256) ? PackageCheck::Verified
                                                                               : PackageCheck::DigestMismatch;
    // One read of the package yields both the digest of the release record
    // and the one a prehashed signature covers.
    const PackageDigests digests = digestPackage(inputs.packagePath);
    if (!digests.ok || QString::fromLatin1(digests.sha256.toHex()) != inputs.expectedSha256)
        return PackageCheck::DigestMismatch;
    const SignatureVerdict verdict = verifyPackageSignature(inputs.signature, inputs.signingKeys, inputs.packagePath,
                                                            digests, packageClaims(inputs.version));
    return verdict == SignatureVerdict::Valid ? PackageCheck::Verified : PackageCheck::SignatureRefused;
}
