#pragma once

#include "releaseinfo.h"

#include <QByteArray>
#include <QObject>

class QNetworkAccessManager;

// Rebuilt from the scrambled block at each call; never stored or logged.
QByteArray serviceKey();
QString releaseServiceBaseUrl();

class UpdateChecker : public QObject
{
    Q_OBJECT
public:
    explicit UpdateChecker(QObject *parent = nullptr);
    // The service's origin (https://host[:port], no trailing slash) is fixed
    // at build time; tests point a checker at a local server instead.
    explicit UpdateChecker(const QString &baseUrl, QObject *parent = nullptr);

    void checkForUpdate(UpdateCallback callback);

private:
    QNetworkAccessManager *manager;
    QString baseUrl;
};
