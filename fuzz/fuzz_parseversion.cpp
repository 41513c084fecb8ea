// Version texts come from the release service and from the main
// application's settings; neither is under the updater's control.

#include "fuzzcheck.h"
#include "releaseinfo.h"

#include <cstddef>
#include <cstdint>

// A second, deliberately plain reading of the version rules, used as the
// oracle for the real parser.
static ParsedVersion referenceParse(const QString &text)
{
    QString rest = text.trimmed();
    if (rest.isEmpty())
        return {};
    if (rest.front() == QLatin1Char('v') || rest.front() == QLatin1Char('V'))
        rest.remove(0, 1);
    for (qsizetype i = 0; i < rest.size(); ++i) {
        if (rest.at(i) == QLatin1Char('+') || rest.at(i) == QLatin1Char('-')) {
            rest.truncate(i);
            break;
        }
    }
    if (rest.isEmpty())
        return {};

    uint parts[3] = {0, 0, 0};
    int count = 0;
    QString digits;
    for (qsizetype i = 0; i <= rest.size(); ++i) {
        if (i == rest.size() || rest.at(i) == QLatin1Char('.')) {
            if (digits.isEmpty() || digits.size() > 9 || count == 3)
                return {};
            parts[count++] = digits.toUInt();
            digits.clear();
        } else if (rest.at(i) >= QLatin1Char('0') && rest.at(i) <= QLatin1Char('9')) {
            digits += rest.at(i);
        } else {
            return {};
        }
    }
    return {true, parts[0], parts[1], parts[2]};
}

static bool same(const ParsedVersion &a, const ParsedVersion &b)
{
    if (a.valid != b.valid)
        return false;
    return !a.valid || (a.major == b.major && a.minor == b.minor && a.patch == b.patch);
}

static QString describe(const QString &text, const ParsedVersion &got)
{
    return QStringLiteral("text \"%1\" gave valid=%2 %3.%4.%5")
        .arg(visible(text))
        .arg(got.valid)
        .arg(got.major)
        .arg(got.minor)
        .arg(got.patch);
}

static bool isBlank(QChar c)
{
    return c.isSpace();
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    isolateSettings();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QString text = QString::fromUtf8(reinterpret_cast<const char *>(data), qsizetype(size));
    const ParsedVersion got = parseVersion(text);

    FUZZ_CHECK(same(got, referenceParse(text)), describe(text, got));

    if (got.valid) {
        FUZZ_CHECK(got.major <= 999999999u && got.minor <= 999999999u && got.patch <= 999999999u, describe(text, got));
        const QString canonical = QStringLiteral("%1.%2.%3").arg(got.major).arg(got.minor).arg(got.patch);
        FUZZ_CHECK(same(parseVersion(canonical), got), describe(text, got) + QStringLiteral(" canonical ") + canonical);
    }

    // Surrounding white space never changes the reading.
    const QString padded = QStringLiteral(" \t") + text + QStringLiteral("\r\n ");
    FUZZ_CHECK(same(parseVersion(padded), got), describe(padded, parseVersion(padded)));

    // A leading "v" is dropped, once.
    if (!text.isEmpty() && !isBlank(text.front()) && text.front() != QLatin1Char('v')
        && text.front() != QLatin1Char('V')) {
        const QString prefixed = QLatin1Char('v') + text;
        FUZZ_CHECK(same(parseVersion(prefixed), got), describe(prefixed, parseVersion(prefixed)));
        const QString twice = QStringLiteral("vv") + text;
        FUZZ_CHECK(!parseVersion(twice).valid, describe(twice, parseVersion(twice)));
    }

    // A pre-release or build suffix is ignored, whatever it holds.
    if (got.valid && !isBlank(text.back())) {
        for (const QString &suffix :
             {QStringLiteral("-rc.1"), QStringLiteral("+build.7"), QStringLiteral("-x.y.z.w")}) {
            const QString suffixed = text + suffix;
            FUZZ_CHECK(same(parseVersion(suffixed), got), describe(suffixed, parseVersion(suffixed)));
        }
    }
    return 0;
}
