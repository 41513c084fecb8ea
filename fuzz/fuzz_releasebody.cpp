// The release record is the one input an attacker on the service side
// controls completely. Whatever it holds, a verdict of "install" must carry
// an HTTPS address, a well-formed digest from the same package pair, and a
// version strictly newer than the installed one.
//
// Input layout: byte 0 picks the processor (bit 0 set: "arm64", else
// "x86_64"); the bytes up to the first line feed are the installed version;
// everything after it is the reply body.

#include "fuzzcheck.h"
#include "releaseinfo.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <cstddef>
#include <cstdint>

static bool isDigestCharacter(QChar c)
{
    return c.isDigit() || (c >= QLatin1Char('a') && c <= QLatin1Char('f'));
}

static qint64 compareVersions(const ParsedVersion &a, const ParsedVersion &b)
{
    if (a.major != b.major)
        return qint64(a.major) - qint64(b.major);
    if (a.minor != b.minor)
        return qint64(a.minor) - qint64(b.minor);
    return qint64(a.patch) - qint64(b.patch);
}

// The pairs a machine of this kind may be given; an Intel Mac never gets
// the arm64 package.
static QStringList allowedPairs(const QString &arch)
{
    if (arch.contains(QLatin1String("arm")))
        return {QStringLiteral("macos_arm64"), QStringLiteral("macos_x86_64"), QStringLiteral("macos")};
    return {QStringLiteral("macos_x86_64"), QStringLiteral("macos")};
}

// Outside the extern "C" function: the macro declares a C++ function.
static void loadResources()
{
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    isolateSettings();
    loadResources();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const QString arch = (data[0] & 1) ? QStringLiteral("arm64") : QStringLiteral("x86_64");
    const QByteArray rest(reinterpret_cast<const char *>(data) + 1, qsizetype(size - 1));
    const qsizetype lineEnd = rest.indexOf('\n');
    const QString installed = QString::fromUtf8(lineEnd < 0 ? rest : rest.left(lineEnd));
    const QByteArray body = lineEnd < 0 ? QByteArray() : rest.mid(lineEnd + 1);

    int installedAsked = 0;
    const Verdict verdict = evaluateReleaseBody(
        body,
        [&] {
            ++installedAsked;
            return installed;
        },
        arch);
    const UpdateInfo &info = verdict.info;
    const QString seen
        = QStringLiteral("arch %1 installed \"%2\" -> ok=%3 version \"%4\" url \"%5\" sha \"%6\" message \"%7\"")
              .arg(arch, visible(installed))
              .arg(verdict.ok)
              .arg(visible(info.version), visible(info.downloadUrl), visible(info.sha256), visible(info.message));

    FUZZ_CHECK(verdict.ok == info.message.isEmpty(), seen);
    FUZZ_CHECK(installedAsked <= 1, seen);
    FUZZ_CHECK(!info.packageFlag, seen);
    if (installedAsked)
        FUZZ_CHECK(parseVersion(info.version).valid, seen);
    if (!verdict.ok)
        return 0;

    FUZZ_CHECK(info.downloadUrl.startsWith(QLatin1String("https://")), seen);
    FUZZ_CHECK(info.sha256.size() == 64, seen);
    for (QChar c : info.sha256)
        FUZZ_CHECK(isDigestCharacter(c), seen);

    // Never a downgrade or a reinstall of the same version.
    const ParsedVersion release = parseVersion(info.version);
    ParsedVersion current = parseVersion(installed);
    if (!current.valid)
        current = ParsedVersion{true, 0, 0, 0};
    FUZZ_CHECK(release.valid && installedAsked == 1, seen);
    FUZZ_CHECK(compareVersions(release, current) > 0, seen);

    // Address and digest come from one published pair, never mixed.
    const QJsonArray records = QJsonDocument::fromJson(body).array();
    FUZZ_CHECK(!records.isEmpty(), seen);
    const QJsonObject record = records.first().toObject();
    FUZZ_CHECK(record.value(QLatin1String("version_number")).toString() == info.version, seen);
    bool fromOnePair = false;
    for (const QString &pair : allowedPairs(arch)) {
        const QString url = record.value(QLatin1String("download_url_") + pair).toString().trimmed();
        const QString sha = record.value(QLatin1String("sha256_") + pair).toString().trimmed().toLower();
        if (url == info.downloadUrl && sha == info.sha256)
            fromOnePair = true;
    }
    FUZZ_CHECK(fromOnePair, seen);
    return 0;
}
