#include "releaseinfo.h"

#include <QNetworkReply>

ParsedVersion parseVersion(const QString &) { return {}; }
PackageChoice readPackage(const QJsonObject &, const QString &, const QString &) { return {}; }
PackageChoice choosePackage(const QJsonObject &, const QString &) { return {}; }
Verdict evaluateReleaseBody(const QByteArray &, const std::function<QString()> &, const QString &) { return {}; }
void evaluateRelease(QNetworkReply *reply, const UpdateCallback &callback)
{
    reply->deleteLater();
    callback(false, {});
}
