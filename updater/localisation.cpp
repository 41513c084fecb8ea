#include "localisation.h"

#include <QFile>
#include <QJsonDocument>
#include <QLocale>
#include <QSettings>

QStringList supportedLanguages()
{
    return {QStringLiteral("tr"), QStringLiteral("en"), QStringLiteral("it")};
}

QString normaliseLanguageCode(const QString &text)
{
    const QString code = text.trimmed().toLower();
    // Anything unrecognised speaks Turkish, the main application's own default.
    return supportedLanguages().contains(code) ? code : QStringLiteral("tr");
}

QString systemLanguageCode(const QLocale &system)
{
    const QByteArray fromEnvironment = qgetenv("VELMORA_DEFAULT_LANGUAGE");
    if (!fromEnvironment.isEmpty())
        return normaliseLanguageCode(QString::fromLocal8Bit(fromEnvironment));

    const QStringList uiLanguages = system.uiLanguages();
    const QLocale locale = uiLanguages.isEmpty() ? system : QLocale(uiLanguages.first());
    switch (locale.language()) {
    case QLocale::Italian:
        return QStringLiteral("it");
    case QLocale::Turkish:
        return QStringLiteral("tr");
    default:
        return QStringLiteral("en");
    }
}

QString currentLanguage()
{
    // A fresh reader each time: the user may switch the main application's
    // language while the updater runs, and the worker thread looks texts up too.
    const QSettings settings(QStringLiteral("VelmoraLabs"), QStringLiteral("Velmora"));
    const QString key = QStringLiteral("ui/language");
    if (settings.contains(key))
        return normaliseLanguageCode(settings.value(key).toString());
    return systemLanguageCode();
}

static void insertNonEmpty(QJsonObject &target, const QJsonObject &source)
{
    for (auto it = source.constBegin(); it != source.constEnd(); ++it) {
        const QString text = it.value().toString();
        if (!text.isEmpty())
            target.insert(it.key(), text);
    }
}

QJsonObject mergeCatalogue(const QJsonObject &root)
{
    const QJsonObject turkish = root.value(QStringLiteral("tr")).toObject();
    const QJsonObject english = root.value(QStringLiteral("en")).toObject();

    QJsonObject fallback = turkish;
    insertNonEmpty(fallback, english);

    QStringList languages = supportedLanguages();
    for (const QString &code : root.keys()) {
        if (!languages.contains(code))
            languages.append(code);
    }

    QJsonObject catalogue;
    for (const QString &code : languages) {
        // Turkish is the last resort and is never filled from another language.
        QJsonObject texts = code == QLatin1String("tr") ? turkish : fallback;
        insertNonEmpty(texts, root.value(code).toObject());
        catalogue.insert(code, texts);
    }
    return catalogue;
}

const QJsonObject &loadCatalogue()
{
    // One thread-safe initialisation: the worker thread may be the first caller.
    static const QJsonObject catalogue = [] {
        QJsonObject root;
        QFile file(QStringLiteral(":/updater/translations.json"));
        if (file.open(QIODevice::ReadOnly))
            root = QJsonDocument::fromJson(file.readAll()).object();
        return mergeCatalogue(root);
    }();
    return catalogue;
}

QString translate(const char *key)
{
    const QJsonObject &catalogue = loadCatalogue();
    const QString text = catalogue.value(currentLanguage()).toObject().value(QLatin1String(key)).toString();
    return text.isEmpty() ? QString::fromUtf8(key) : text;
}

QVariantMap updaterStrings()
{
    const QJsonObject texts = loadCatalogue().value(currentLanguage()).toObject();
    QVariantMap strings;
    for (auto it = texts.constBegin(); it != texts.constEnd(); ++it) {
        if (it.key().startsWith(QLatin1String("upd_")))
            strings.insert(it.key(), it.value().toString());
    }
    return strings;
}

QString formatDecimal(double value, int decimals)
{
    QString text = QString::number(value, 'f', decimals);
    const QString language = currentLanguage();
    if (language == QLatin1String("tr") || language == QLatin1String("it"))
        text.replace(QLatin1Char('.'), QLatin1Char(','));
    return text;
}
