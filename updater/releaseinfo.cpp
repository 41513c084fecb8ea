#include "releaseinfo.h"

#include "installlocation.h"
#include "localisation.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkReply>

ParsedVersion parseVersion(const QString &text)
{
    QString rest = text.trimmed();
    if (rest.isEmpty())
        return {};
    if (rest.startsWith(QLatin1Char('v')) || rest.startsWith(QLatin1Char('V')))
        rest.remove(0, 1);

    // A pre-release or build suffix does not make a different release:
    // 2.0.0-beta and 2.0.0+42 both compare as 2.0.0.
    for (qsizetype i = 0; i < rest.size(); ++i) {
        if (rest.at(i) == QLatin1Char('+') || rest.at(i) == QLatin1Char('-')) {
            rest.truncate(i);
            break;
        }
    }
    if (rest.isEmpty())
        return {};

    const QStringList components = rest.split(QLatin1Char('.'));
    if (components.size() > 3)
        return {};

    uint values[3] = {0, 0, 0};
    for (qsizetype i = 0; i < components.size(); ++i) {
        const QString &component = components.at(i);
        // Nine digits at most, so that every component fits a signed 32-bit
        // comparison without overflow.
        if (component.isEmpty() || component.size() > 9)
            return {};
        uint value = 0;
        for (const QChar c : component) {
            if (c < QLatin1Char('0') || c > QLatin1Char('9'))
                return {};
            value = value * 10 + uint(c.unicode() - '0');
        }
        values[i] = value;
    }

    ParsedVersion version;
    version.valid = true;
    version.major = values[0];
    version.minor = values[1];
    version.patch = values[2];
    return version;
}

PackageChoice readPackage(const QJsonObject &record, const QString &urlKey, const QString &shaKey)
{
    PackageChoice choice;
    choice.url = record.value(urlKey).toString().trimmed();
    choice.sha256 = record.value(shaKey).toString().trimmed().toLower();
    choice.packageFlag = false;
    return choice;
}

static bool isComplete(const PackageChoice &choice)
{
    return !choice.url.isEmpty() && !choice.sha256.isEmpty();
}

PackageChoice choosePackage(const QJsonObject &record, const QString &cpuArchitecture)
{
    const QString arm64Url = QStringLiteral("download_url_macos_arm64");
    const QString arm64Sha = QStringLiteral("sha256_macos_arm64");
    const QString intelUrl = QStringLiteral("download_url_macos_x86_64");
    const QString intelSha = QStringLiteral("sha256_macos_x86_64");

    const bool arm = cpuArchitecture.contains(QLatin1String("arm"));
    const PackageChoice native
        = arm ? readPackage(record, arm64Url, arm64Sha) : readPackage(record, intelUrl, intelSha);
    if (isComplete(native))
        return native;

    // An Apple processor runs the Intel build under translation, so it is a
    // usable second choice; an Intel Mac can never run the arm64 build.
    if (arm) {
        const PackageChoice intel = readPackage(record, intelUrl, intelSha);
        if (isComplete(intel))
            return intel;
    }

    // Taken as it is, even half empty: the caller refuses an incomplete pair.
    return readPackage(record, QStringLiteral("download_url_macos"), QStringLiteral("sha256_macos"));
}

static int compareVersions(const ParsedVersion &a, const ParsedVersion &b)
{
    const qint32 left[3] = {qint32(a.major), qint32(a.minor), qint32(a.patch)};
    const qint32 right[3] = {qint32(b.major), qint32(b.minor), qint32(b.patch)};
    for (int i = 0; i < 3; ++i) {
        if (left[i] != right[i])
            return left[i] < right[i] ? -1 : 1;
    }
    return 0;
}

static bool isDigestText(const QString &sha256)
{
    if (sha256.size() != 64)
        return false;
    for (const QChar c : sha256) {
        // QChar::isDigit also accepts non-Latin decimal digits; such a digest
        // then fails the comparison with the real hash at verification time.
        if (!c.isDigit() && (c < QLatin1Char('a') || c > QLatin1Char('f')))
            return false;
    }
    return true;
}

static Verdict refuse(UpdateInfo info, const QString &message)
{
    info.message = message;
    return {false, info};
}

Verdict evaluateReleaseBody(const QByteArray &body, const std::function<QString()> &installed,
                            const QString &cpuArchitecture)
{
    UpdateInfo info;

    const QJsonDocument document = QJsonDocument::fromJson(body);
    if (!document.isArray() || document.array().isEmpty())
        return refuse(info, translate("upd_ver_failed"));

    const QJsonObject record = document.array().first().toObject();
    const QString versionText = record.value(QStringLiteral("version_number")).toString();
    if (versionText.isEmpty())
        return refuse(info, translate("upd_ver_failed"));

    const ParsedVersion release = parseVersion(versionText);
    info.version = versionText;
    if (!release.valid)
        return refuse(info, translate("upd_ver_invalid").arg(versionText));

    const QString installedText = installed();
    ParsedVersion current = parseVersion(installedText);
    if (!current.valid)
        current = ParsedVersion{true, 0, 0, 0};
    if (compareVersions(release, current) <= 0)
        return refuse(info, translate("upd_up_to_date").arg(installedText));

    info.releaseNotes = record.value(QStringLiteral("release_notes")).toString();
    info.mandatory = record.value(QStringLiteral("is_mandatory")).toBool(false);

    const PackageChoice package = choosePackage(record, cpuArchitecture);
    info.downloadUrl = package.url;
    info.sha256 = package.sha256;
    info.packageFlag = package.packageFlag;

    if (info.downloadUrl.isEmpty() || info.sha256.isEmpty())
        return refuse(info, translate("upd_no_pkg_os"));
    if (!info.downloadUrl.startsWith(QLatin1String("https://")))
        return refuse(info, translate("upd_insecure_url"));
    if (!isDigestText(info.sha256))
        return refuse(info, translate("upd_sha_unverifiable"));

    return {true, info};
}

void evaluateRelease(QNetworkReply *reply, const UpdateCallback &callback)
{
    reply->deleteLater();
    if (reply->error() != QNetworkReply::NoError) {
        UpdateInfo info;
        info.message = translate("upd_ver_net");
        callback(false, info);
        return;
    }
    const Verdict verdict = evaluateReleaseBody(reply->readAll(), [] { return installedVersion(); });
    callback(verdict.ok, verdict.info);
}
