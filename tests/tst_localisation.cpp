#include "localisation.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSettings>
#include <QtTest>

static void setLanguageSetting(const QVariant &value)
{
    QSettings settings(QStringLiteral("VelmoraLabs"), QStringLiteral("Velmora"));
    if (value.isValid())
        settings.setValue(QStringLiteral("ui/language"), value);
    else
        settings.remove(QStringLiteral("ui/language"));
    settings.sync();
}

static QJsonObject shippedCatalogue()
{
    QFile file(QStringLiteral(":/updater/translations.json"));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QJsonDocument::fromJson(file.readAll()).object();
}

// The message keys the updater looks up; a key lost from the catalogue would
// show its raw name to the user.
static const char *const updaterKeys[] = {
    "upd_insecure_url_keep", "upd_sha_missing_keep", "upd_file_create_failed", "upd_connecting",
    "upd_download_error", "upd_extracting", "upd_install_done", "upd_verifying", "upd_verify_failed",
    "upd_signature_failed", "upd_zip_failed", "upd_zip_failed_detail", "upd_unzip_missing",
    "upd_downloading_mb", "upd_preparing", "upd_platform_unsupported", "upd_script_create_failed",
    "upd_script_start_failed", "upd_applying_quit", "upd_applying_restart", "upd_app_not_found",
    "upd_apply_failed_kept", "upd_install_timeout_kept", "upd_ver_net", "upd_ver_failed", "upd_ver_invalid",
    "upd_up_to_date", "upd_no_pkg_os", "upd_insecure_url", "upd_sha_unverifiable", "upd_no_update_or_pkg",
    "upd_tray_version_available", "upd_tray_title_mandatory", "upd_tray_title_available",
    "upd_tray_body_mandatory", "upd_tray_body_ready", "upd_tray_downloading", "upd_tray_install_done",
    "upd_tray_updated_title", "upd_tray_updated_body", "upd_tray_download_failed", "upd_tray_error_title",
    "upd_window_title", "upd_phase_connecting", "upd_phase_downloading", "upd_phase_extracting",
    "upd_phase_installing", "upd_phase_done", "upd_title_failed", "upd_title_done", "upd_title_loading",
    "upd_btn_close", "upd_btn_cancel", "upd_btn_open_app", "upd_btn_open_folder",
};

class TestLocalisation : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        Q_INIT_RESOURCE(updater);
    }

    void init()
    {
        setLanguageSetting({});
        qunsetenv("VELMORA_DEFAULT_LANGUAGE");
    }

    void normalisesCodes_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("code");
        QTest::newRow("blanks and case") << " IT " << "it";
        QTest::newRow("english") << "en" << "en";
        QTest::newRow("turkish") << "TR" << "tr";
        QTest::newRow("unknown is turkish") << "de" << "tr";
        QTest::newRow("region is not cut") << "en-US" << "tr";
        QTest::newRow("underscore region") << "en_GB" << "tr";
        QTest::newRow("empty") << "" << "tr";
    }

    void normalisesCodes()
    {
        QFETCH(QString, text);
        QFETCH(QString, code);
        QCOMPARE(normaliseLanguageCode(text), code);
    }

    void settingDecidesBeforeEnvironment_data()
    {
        QTest::addColumn<QVariant>("setting");
        QTest::addColumn<QByteArray>("environment");
        QTest::addColumn<QString>("code");
        QTest::newRow("setting with blanks and case") << QVariant(" IT ") << QByteArray("en") << "it";
        QTest::newRow("unknown setting") << QVariant("de") << QByteArray("en") << "tr";
        QTest::newRow("empty setting still counts") << QVariant("") << QByteArray("it") << "tr";
        QTest::newRow("no setting, environment") << QVariant() << QByteArray("EN") << "en";
        QTest::newRow("no setting, unknown environment") << QVariant() << QByteArray("fr") << "tr";
    }

    void settingDecidesBeforeEnvironment()
    {
        QFETCH(QVariant, setting);
        QFETCH(QByteArray, environment);
        QFETCH(QString, code);
        setLanguageSetting(setting);
        qputenv("VELMORA_DEFAULT_LANGUAGE", environment);
        QCOMPARE(currentLanguage(), code);
    }

    void systemLanguage_data()
    {
        QTest::addColumn<QString>("locale");
        QTest::addColumn<QString>("code");
        QTest::newRow("swiss italian") << "it_CH" << "it";
        QTest::newRow("german") << "de_DE" << "en";
        QTest::newRow("turkish") << "tr" << "tr";
        QTest::newRow("english") << "en_GB" << "en";
        QTest::newRow("unknown is english") << "C" << "en";
    }

    void systemLanguage()
    {
        QFETCH(QString, locale);
        QFETCH(QString, code);
        QCOMPARE(systemLanguageCode(QLocale(locale)), code);
    }

    void environmentStandsInForTheSystem()
    {
        qputenv("VELMORA_DEFAULT_LANGUAGE", "it");
        QCOMPARE(systemLanguageCode(QLocale(QStringLiteral("tr"))), QStringLiteral("it"));
        qputenv("VELMORA_DEFAULT_LANGUAGE", "pt");
        QCOMPARE(systemLanguageCode(QLocale(QStringLiteral("it"))), QStringLiteral("tr"));
    }

    void mergeFillsGapsButNeverTurkish()
    {
        const QJsonObject root = QJsonDocument::fromJson(R"({
            "tr": {"k_all": "tr-all", "k_tr_only": "tr-only", "k_en_empty": "tr-x", "k_tr_empty": ""},
            "en": {"k_all": "en-all", "k_en_empty": "", "k_tr_empty": "en-y", "k_en_only": "en-only"},
            "it": {"k_all": "it-all", "k_en_only": ""},
            "de": {"k_all": "de-all"}
        })").object();
        const QJsonObject merged = mergeCatalogue(root);
        QCOMPARE(merged.keys().size(), 4);
        const QJsonObject tr = merged.value("tr").toObject();
        const QJsonObject en = merged.value("en").toObject();
        const QJsonObject it = merged.value("it").toObject();
        const QJsonObject de = merged.value("de").toObject();

        QCOMPARE(tr.value("k_en_only").toString(), QString()); // Turkish is never filled
        QCOMPARE(tr.value("k_tr_empty").toString(), QString());
        QCOMPARE(en.value("k_en_empty").toString(), QStringLiteral("tr-x")); // English falls back to Turkish
        QCOMPARE(it.value("k_tr_only").toString(), QStringLiteral("tr-only"));
        QCOMPARE(it.value("k_en_empty").toString(), QStringLiteral("tr-x"));
        QCOMPARE(it.value("k_en_only").toString(), QStringLiteral("en-only")); // empty Italian is no text
        QCOMPARE(it.value("k_tr_empty").toString(), QStringLiteral("en-y"));
        QCOMPARE(it.value("k_all").toString(), QStringLiteral("it-all"));
        QCOMPARE(de.value("k_all").toString(), QStringLiteral("de-all"));
        QCOMPARE(de.value("k_en_only").toString(), QStringLiteral("en-only"));
    }

    void mergeSurvivesDamagedCatalogues_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::newRow("not json") << QByteArray("{ nope");
        QTest::newRow("language not an object") << QByteArray(R"({"tr": "x", "en": 3})");
        QTest::newRow("texts not strings") << QByteArray(R"({"en": {"upd_btn_close": 5, "upd_x": null}})");
    }

    void mergeSurvivesDamagedCatalogues()
    {
        QFETCH(QByteArray, json);
        const QJsonObject merged = mergeCatalogue(QJsonDocument::fromJson(json).object());
        for (const char *code : {"tr", "en", "it"}) {
            QVERIFY(merged.contains(QLatin1String(code)));
            QVERIFY(merged.value(QLatin1String(code)).toObject().value("upd_btn_close").toString().isEmpty());
        }
    }

    void shippedCatalogueHasEveryTextInEveryLanguage()
    {
        const QJsonObject root = shippedCatalogue();
        QVERIFY2(!root.isEmpty(), "the catalogue resource is missing from the build");
        for (const char *code : {"tr", "en", "it"}) {
            const QJsonObject texts = root.value(QLatin1String(code)).toObject();
            int updaterTexts = 0;
            for (auto it = texts.constBegin(); it != texts.constEnd(); ++it)
                updaterTexts += it.key().startsWith(QLatin1String("upd_"));
            QCOMPARE(updaterTexts, int(std::size(updaterKeys)));
            for (const char *key : updaterKeys)
                QVERIFY2(!texts.value(QLatin1String(key)).toString().trimmed().isEmpty(),
                         qPrintable(QStringLiteral("%1/%2").arg(QLatin1String(code), QLatin1String(key))));
        }
    }

    // The rows switch languages: a language cached at the first call would show.
    void translatesInTheCurrentLanguage_data()
    {
        QTest::addColumn<QString>("language");
        QTest::addColumn<QByteArray>("key");
        QTest::addColumn<QString>("text");
        QTest::newRow("it window title") << "it" << QByteArray("upd_window_title") << "Aggiornamento Velmora";
        QTest::newRow("en tray keeps its dash")
            << "en" << QByteArray("upd_tray_version_available") << QString::fromUtf8("Velmora — Version %1 available");
        QTest::newRow("tr accents")
            << "tr" << QByteArray("upd_download_error") << QString::fromUtf8("İndirme hatası: %1");
        QTest::newRow("unknown key is returned") << "en" << QByteArray("upd_nonexistent") << "upd_nonexistent";
    }

    void translatesInTheCurrentLanguage()
    {
        QFETCH(QString, language);
        QFETCH(QByteArray, key);
        QFETCH(QString, text);
        setLanguageSetting(language);
        QCOMPARE(translate(key.constData()), text);
    }

    void stringsForTheViewAreTheUpdaterTextsOnly()
    {
        setLanguageSetting("it");
        const QVariantMap strings = updaterStrings();
        QCOMPARE(strings.size(), int(std::size(updaterKeys)));
        QCOMPARE(strings.value("upd_btn_cancel").toString(), QStringLiteral("Annulla"));
        for (auto it = strings.constBegin(); it != strings.constEnd(); ++it)
            QCOMPARE(it.value().toString(), translate(it.key().toLatin1().constData()));
    }

    void decimalSeparatorFollowsLanguage_data()
    {
        QTest::addColumn<QString>("language");
        QTest::addColumn<double>("value");
        QTest::addColumn<int>("decimals");
        QTest::addColumn<QString>("text");
        QTest::newRow("tr") << "tr" << 12.5 << 1 << "12,5";
        QTest::newRow("it") << "it" << 12.5 << 1 << "12,5";
        QTest::newRow("en") << "en" << 12.5 << 1 << "12.5";
        QTest::newRow("rounding") << "en" << 0.96 << 1 << "1.0";
        QTest::newRow("no grouping") << "it" << 1234.25 << 2 << "1234,25";
    }

    void decimalSeparatorFollowsLanguage()
    {
        QFETCH(QString, language);
        QFETCH(double, value);
        QFETCH(int, decimals);
        QFETCH(QString, text);
        setLanguageSetting(language);
        QCOMPARE(formatDecimal(value, decimals), text);
    }

    void firstLookupFromManyThreadsLoadsOnce()
    {
        setLanguageSetting("en");
        QList<QString> results(8);
        QList<QThread *> threads;
        for (int i = 0; i < results.size(); ++i)
            threads << QThread::create([&results, i] { results[i] = translate("upd_btn_open_folder"); });
        for (QThread *thread : threads)
            thread->start();
        for (QThread *thread : threads) {
            thread->wait();
            delete thread;
        }
        for (const QString &result : results)
            QCOMPARE(result, QStringLiteral("Open Folder"));
    }
};

QTEST_GUILESS_MAIN(TestLocalisation)
#include "tst_localisation.moc"
