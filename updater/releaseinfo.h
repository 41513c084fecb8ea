#pragma once

#include <QJsonObject>
#include <QString>
#include <QSysInfo>

#include <functional>

class QNetworkReply;

struct UpdateInfo
{
    QString version;
    QString downloadUrl;
    QString releaseNotes;
    QString sha256;
    bool packageFlag = false;
    bool mandatory = false;
    QString message;
};

using UpdateCallback = std::function<void(bool ok, const UpdateInfo &info)>;

struct ParsedVersion
{
    bool valid = false;
    uint major = 0;
    uint minor = 0;
    uint patch = 0;
};

struct PackageChoice
{
    QString url;
    QString sha256;
    bool packageFlag = false;
};

struct Verdict
{
    bool ok = false;
    UpdateInfo info;
};

ParsedVersion parseVersion(const QString &text);
PackageChoice readPackage(const QJsonObject &record, const QString &urlKey, const QString &shaKey);
PackageChoice choosePackage(const QJsonObject &record,
                            const QString &cpuArchitecture = QSysInfo::currentCpuArchitecture());

// The evaluation from the reply's bytes on: the seam that tests and fuzzers
// drive without a network. The installed version is asked for only once the
// release's own version has been found valid, as the real run does.
Verdict evaluateReleaseBody(const QByteArray &body, const std::function<QString()> &installed,
                            const QString &cpuArchitecture = QSysInfo::currentCpuArchitecture());

void evaluateRelease(QNetworkReply *reply, const UpdateCallback &callback);
