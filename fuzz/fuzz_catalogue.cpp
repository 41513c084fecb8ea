// The catalogue is shared with the main application and edited by
// translators; a damaged or hostile file must still give every language a
// text wherever any fallback has one, and an empty text must never hide one.

#include "fuzzcheck.h"
#include "localisation.h"

#include <QJsonDocument>
#include <QSet>

#include <cstddef>
#include <cstdint>

static QString textOf(const QJsonObject &texts, const QString &key)
{
    return texts.value(key).toString();
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    isolateSettings();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), qsizetype(size));
    const QJsonObject root = QJsonDocument::fromJson(bytes).object();
    const QJsonObject merged = mergeCatalogue(root);

    QStringList languages = {QStringLiteral("tr"), QStringLiteral("en"), QStringLiteral("it")};
    for (const QString &code : languages)
        FUZZ_CHECK(merged.value(code).isObject(), QStringLiteral("language %1 missing").arg(code));
    for (const QString &code : root.keys()) {
        FUZZ_CHECK(merged.value(code).isObject(), QStringLiteral("language %1 dropped").arg(visible(code)));
        if (!languages.contains(code))
            languages.append(code);
    }
    FUZZ_CHECK(merged.size() == languages.size(), QStringLiteral("%1 languages").arg(merged.size()));

    const QJsonObject turkish = root.value(QLatin1String("tr")).toObject();
    const QJsonObject english = root.value(QLatin1String("en")).toObject();

    // Turkish is the last resort and stays exactly as shipped.
    FUZZ_CHECK(merged.value(QLatin1String("tr")).toObject() == turkish, QStringLiteral("Turkish changed"));

    for (const QString &code : languages) {
        if (code == QLatin1String("tr"))
            continue;
        const QJsonObject own = root.value(code).toObject();
        const QJsonObject result = merged.value(code).toObject();

        QSet<QString> expectedKeys;
        for (const QString &key : turkish.keys())
            expectedKeys.insert(key);
        for (const QString &key : english.keys()) {
            if (!textOf(english, key).isEmpty())
                expectedKeys.insert(key);
        }
        for (const QString &key : own.keys()) {
            if (!textOf(own, key).isEmpty())
                expectedKeys.insert(key);
        }
        const QStringList resultKeys = result.keys();
        FUZZ_CHECK(QSet<QString>(resultKeys.begin(), resultKeys.end()) == expectedKeys,
                   QStringLiteral("keys of %1").arg(visible(code)));

        for (const QString &key : expectedKeys) {
            const QString where = QStringLiteral("%1/%2").arg(visible(code), visible(key));
            const QString ownText = textOf(own, key);
            const QString englishText = textOf(english, key);
            if (!ownText.isEmpty())
                FUZZ_CHECK(result.value(key).toString() == ownText, where + QStringLiteral(" lost its own text"));
            else if (!englishText.isEmpty())
                FUZZ_CHECK(result.value(key).toString() == englishText,
                           where + QStringLiteral(" not filled from English"));
            else
                FUZZ_CHECK(result.value(key) == turkish.value(key), where + QStringLiteral(" not filled from Turkish"));
        }
    }
    return 0;
}
