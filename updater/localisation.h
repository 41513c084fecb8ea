#pragma once

#include <QJsonObject>
#include <QString>
#include <QVariantMap>

// The languages the updater ships, in the order the catalogue merge uses.
QStringList supportedLanguages();

QString currentLanguage();
QString normaliseLanguageCode(const QString &text);
#include <QLocale>

// The system locale is a parameter so that tests can describe any machine.
QString systemLanguageCode(const QLocale &system = QLocale::system());

// Builds the per-language catalogue from the resource's root object:
// Turkish stays as it is, every other language falls back to English and
// then to Turkish.
QJsonObject mergeCatalogue(const QJsonObject &root);
const QJsonObject &loadCatalogue();

QString translate(const char *key);
QVariantMap updaterStrings();
QString formatDecimal(double value, int decimals);
