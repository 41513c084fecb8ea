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
