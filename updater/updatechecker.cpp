#include "updatechecker.h"

#include <QNetworkAccessManager>

QByteArray serviceKey() { return {}; }
QString releaseServiceBaseUrl() { return QStringLiteral(VELMORA_RELEASE_BASE_URL); }

UpdateChecker::UpdateChecker(QObject *parent)
    : QObject(parent)
    , manager(new QNetworkAccessManager(this))
{
}

void UpdateChecker::checkForUpdate(UpdateCallback callback)
{
    callback(false, {});
}
