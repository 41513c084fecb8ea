// Which language the updater speaks, the texts and numbers handed out in it,
// and that every message key the code or the view names has a text in each
// shipped language. (The catalogue merge is held by fuzz/fuzz_catalogue.)

#include "localisation.h"
#include "testfiles.h"

#include <QtTest>

using Choice = std::tuple<QVariant, QString, QString, QString>; // setting, environment, system locale, code
Q_DECLARE_METATYPE(Choice)

static void setLanguage(const QVariant &code)
{
    QSettings settings(QStringLiteral("VelmoraLabs"), QStringLiteral("Velmora"));
    code.isValid() ? settings.setValue("ui/language", code) : settings.remove("ui/language");
}

class TestLocalisation : public QObject
{
    Q_OBJECT

private slots:
    // A row with a system locale asks what the system path makes of that
    // machine; the others ask for the current language.
    void languageChoice_data()
    {
        QTest::addColumn<Choice>("choice");
        QTest::newRow("setting, blanks and case") << Choice{" IT ", "en", "", "it"};
        QTest::newRow("unknown setting is Turkish") << Choice{"de", "en", "", "tr"};
        QTest::newRow("empty setting still decides") << Choice{"", "it", "", "tr"};
        QTest::newRow("no setting: environment") << Choice{{}, "EN", "", "en"};
        QTest::newRow("unknown environment is Turkish") << Choice{{}, "fr", "", "tr"};
        QTest::newRow("environment before the system") << Choice{{}, "it", "tr_TR", "it"};
        QTest::newRow("Italian system") << Choice{{}, "", "it_CH", "it"};
        QTest::newRow("Turkish system") << Choice{{}, "", "tr", "tr"};
        QTest::newRow("other system is English") << Choice{{}, "", "de_DE", "en"};
    }

    void languageChoice()
    {
        QFETCH(Choice, choice);
        const auto &[setting, environment, systemLocale, code] = choice;
        setLanguage(setting);
        qputenv("VELMORA_DEFAULT_LANGUAGE", environment.toUtf8());
        QCOMPARE(systemLocale.isEmpty() ? currentLanguage() : systemLanguageCode(QLocale(systemLocale)), code);
    }

    // The rows switch languages: a language cached at the first call shows.
    void textsFollowTheLanguage_data()
    {
        QTest::addColumn<QString>("language");
        QTest::addColumn<QStringList>("seen"); // a text, the same for the view, a decimal
        QTest::newRow("Italian") << QString("it") << QStringList{"Annulla", "Annulla", "12,5"};
        QTest::newRow("English") << QString("en") << QStringList{"Cancel", "Cancel", "12.5"};
        QTest::newRow("Turkish") << QString("tr") << QStringList{"İptal", "İptal", "12,5"};
    }

    void textsFollowTheLanguage()
    {
        QFETCH(QString, language);
        QFETCH(QStringList, seen);
        setLanguage(language);
        const QVariantMap view = updaterStrings();
        const QStringList got{translate("upd_btn_cancel"), view["upd_btn_cancel"].toString(), formatDecimal(12.5, 1)};
        QCOMPARE(got, seen);
        QCOMPARE(view.keys(), view.keys().filter(QRegularExpression("^upd_")));
        QCOMPARE(translate("upd_nonexistent"), QStringLiteral("upd_nonexistent"));
    }

    // A key misspelt anywhere, or missing from one language, would show its
    // raw name to the user.
    void everyKeyInUseHasATextInEveryLanguage()
    {
        const QByteArray catalogue = readFile(":/updater/translations.json");
        const QDir updater(QStringLiteral(VELMORA_TEST_SOURCE_DIR "/../updater"));
        QString code = readFile(updater.filePath("qml/download.qml"));
        for (const QString &file : updater.entryList({"*.cpp"}))
            code += readFile(updater.filePath(file));
        QVERIFY(code.contains("upd.upd_btn_cancel") && code.contains("translate(\"upd_"));
        QSet<QString> keys; // in use, or in any language
        const QRegularExpression key("\\bupd_[a-z0-9_]+");
        for (const QRegularExpressionMatch &match : key.globalMatch(code + catalogue))
            keys << match.captured();
        const QJsonObject root = QJsonDocument::fromJson(catalogue).object();
        for (const QString language : {"tr", "en", "it"}) {
            for (const QString &key : keys)
                QVERIFY2(!root[language][key].toString().trimmed().isEmpty(), qPrintable(language + '/' + key));
        }
    }
};

QTEST_GUILESS_MAIN(TestLocalisation)
#include "tst_localisation.moc"
