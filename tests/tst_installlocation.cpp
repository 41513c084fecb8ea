#include "installlocation.h"

#include <QElapsedTimer>
#include <QSettings>
#include <QTemporaryDir>
#include <QtTest>

static const QString canonical = QStringLiteral("/Applications/Velmora.app");
static const QStringList noArguments{QStringLiteral("VelmoraUpdater")};

static QStringList withArguments(const QStringList &arguments)
{
    return noArguments + arguments;
}

static void writeBundle(const QString &bundle, const QString &version)
{
    QVERIFY(QDir().mkpath(bundle + QStringLiteral("/Contents/MacOS")));
    QFile plist(bundle + QStringLiteral("/Contents/Info.plist"));
    QVERIFY(plist.open(QIODevice::WriteOnly));
    plist.write("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
                "\t<key>CFBundleShortVersionString</key>\n\t<string>"
                + version.toUtf8() + "</string>\n</dict>\n</plist>\n");
}

class TestInstallLocation : public QObject
{
    Q_OBJECT

private slots:
    void argumentQueries_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<bool>("hasCurrent");
        QTest::addColumn<QString>("currentValue");
        QTest::newRow("value") << QStringList{"--current", "2.4.1"} << true << "2.4.1";
        QTest::newRow("value trimmed") << QStringList{"--current", "  2.4.1 "} << true << "2.4.1";
        QTest::newRow("first occurrence wins") << QStringList{"--current", "1", "--current", "2"} << true << "1";
        QTest::newRow("last element") << QStringList{"--current"} << true << "";
        QTest::newRow("empty value") << QStringList{"--current", ""} << true << "";
        QTest::newRow("blank value") << QStringList{"--current", "   "} << true << "";
        QTest::newRow("dash-led value") << QStringList{"--current", "-x"} << true << "";
        QTest::newRow("followed by an option") << QStringList{"--current", "--auto"} << true << "";
        QTest::newRow("upper case name") << QStringList{"--CURRENT", "2.0"} << false << "";
        QTest::newRow("equals form") << QStringList{"--current=2.0"} << false << "";
        QTest::newRow("absent") << QStringList{"--force"} << false << "";
    }

    void argumentQueries()
    {
        QFETCH(QStringList, arguments);
        QFETCH(bool, hasCurrent);
        QFETCH(QString, currentValue);
        const QStringList all = withArguments(arguments);
        QCOMPARE(hasArgument(QStringLiteral("--current"), all), hasCurrent);
        QCOMPARE(argumentValue(QStringLiteral("--current"), all), currentValue);
    }

    void installPlaceFromRunningDirectory_data()
    {
        QTest::addColumn<QString>("applicationDir");
        QTest::addColumn<QString>("dstApp");
        QTest::addColumn<QString>("legacyApp");
        QTest::newRow("installed in /Applications")
            << "/Applications/Velmora.app/Contents/MacOS" << canonical << "";
        QTest::newRow("Gatekeeper translocation")
            << "/private/var/folders/xy/T/AppTranslocation/ABC/d/Velmora.app/Contents/MacOS" << canonical << "";
        QTest::newRow("temporary folder")
            << "/var/folders/xy/T/Velmora.app/Contents/MacOS" << canonical << "";
        QTest::newRow("temporary items")
            << "/Users/u/TemporaryItems/Velmora.app/Contents/MacOS" << canonical << "";
        QTest::newRow("mounted disk image")
            << "/Volumes/Velmora/Velmora.app/Contents/MacOS" << canonical << "";
        QTest::newRow("volumes only at the start")
            << "/Users/u/Volumes/Velmora.app/Contents/MacOS" << "/Users/u/Volumes/Velmora.app" << "";
        QTest::newRow("downloads")
            << "/Users/u/Downloads/Velmora.app/Contents/MacOS" << canonical << "/Users/u/Downloads/Velmora.app";
        QTest::newRow("desktop, renamed")
            << "/Users/u/Desktop/Old.app/Contents/MacOS" << canonical << "/Users/u/Desktop/Old.app";
        QTest::newRow("documents")
            << "/Users/u/Documents/Velmora.app/Contents/MacOS" << canonical << "/Users/u/Documents/Velmora.app";
        QTest::newRow("user folders are case-sensitive")
            << "/Users/u/downloads/Velmora.app/Contents/MacOS" << "/Users/u/downloads/Velmora.app" << "";
        QTest::newRow("proper name in another place, any case")
            << "/Users/u/Apps/velmora.APP/Contents/MacOS" << "/Users/u/Apps/velmora.APP" << "";
        QTest::newRow("version-stamped name")
            << "/Applications/Velmora 3.0.app/Contents/MacOS" << canonical << "/Applications/Velmora 3.0.app";
        QTest::newRow("version-stamped, lower case")
            << "/opt/velmora-2.4.1.App/Contents/MacOS" << canonical << "/opt/velmora-2.4.1.App";
        QTest::newRow("renamed bundle is updated in place")
            << "/Applications/Notes.app/Contents/MacOS" << "/Applications/Notes.app" << "";
        QTest::newRow("not inside a bundle")
            << "/usr/local/bin" << canonical << "";
        QTest::newRow("MacOS folder is case-sensitive")
            << "/Applications/Velmora.app/Contents/macos" << canonical << "";
    }

    void installPlaceFromRunningDirectory()
    {
        QFETCH(QString, applicationDir);
        QFETCH(QString, dstApp);
        QFETCH(QString, legacyApp);
        const InstallLocation location = findInstallLocation(noArguments, applicationDir);
        QCOMPARE(location.dstApp, dstApp);
        QCOMPARE(location.legacyApp, legacyApp);
    }

    void updaterBesideTheBundle()
    {
        QTemporaryDir dir;
        QVERIFY(QDir().mkpath(dir.path() + QStringLiteral("/Velmora.app")));
        const InstallLocation location = findInstallLocation(noArguments, dir.path());
        QCOMPARE(location.dstApp, dir.path() + QStringLiteral("/Velmora.app"));
        QVERIFY(location.legacyApp.isEmpty());

        // A plain file of that name is no bundle.
        QTemporaryDir other;
        QFile file(other.path() + QStringLiteral("/Velmora.app"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        QCOMPARE(findInstallLocation(noArguments, other.path()).dstApp, canonical);
    }

    void installDirOverridesEverything_data()
    {
        QTest::addColumn<QString>("value");
        QTest::addColumn<QString>("dstApp");
        QTest::newRow("folder") << "/opt/x" << "/opt/x/Velmora.app";
        QTest::newRow("folder with trailing slash") << "/opt/x/" << "/opt/x/Velmora.app";
        QTest::newRow("bundle, any case") << "/opt/x/Foo.APP" << "/opt/x/Foo.APP";
        QTest::newRow("relative folder") << "rel" << QDir::current().absoluteFilePath("rel") + "/Velmora.app";
        QTest::newRow("blanks around") << "  /opt/y  " << "/opt/y/Velmora.app";
    }

    void installDirOverridesEverything()
    {
        QFETCH(QString, value);
        QFETCH(QString, dstApp);
        // Even from a user folder, where a legacy copy would otherwise be named.
        const InstallLocation location = findInstallLocation(withArguments({"--install-dir", value}),
                                                             "/Users/u/Downloads/Velmora.app/Contents/MacOS");
        QCOMPARE(location.dstApp, dstApp);
        QVERIFY(location.legacyApp.isEmpty());
    }

    void installDirWithoutValueIsIgnored()
    {
        const InstallLocation location = findInstallLocation(withArguments({"--install-dir", "--force"}),
                                                             "/Users/u/Downloads/Velmora.app/Contents/MacOS");
        QCOMPARE(location.dstApp, canonical);
        QCOMPARE(location.legacyApp, QStringLiteral("/Users/u/Downloads/Velmora.app"));
    }

    void init()
    {
        qunsetenv("FAKE_PLISTBUDDY_SLEEP");
        qunsetenv("FAKE_PLISTBUDDY_FAIL");
        QSettings(QStringLiteral("Velmora"), QStringLiteral("VelmoraApp")).clear();
    }

    void installedVersionSources_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("bundleVersion"); // empty: no bundle at all
        QTest::addColumn<QString>("settingsVersion");
        QTest::addColumn<QString>("expected");
        QTest::newRow("force ignores everything")
            << QStringList{"--force", "--current", "9.9.9"} << "1.0.0" << "1.1" << "0.0.0";
        QTest::newRow("repair with current")
            << QStringList{"--repair", "--current", "9.9.9"} << "1.0.0" << "" << "0.0.0";
        QTest::newRow("current given") << QStringList{"--current", " 2.4.1 "} << "1.0.0" << "" << "2.4.1";
        QTest::newRow("current without value falls through")
            << QStringList{"--current"} << "1.0.0" << "" << "1.0.0";
        QTest::newRow("dash-led current falls through")
            << QStringList{"--current", "-x"} << "1.0.0" << "" << "1.0.0";
        QTest::newRow("bundle wins over settings") << QStringList{} << "3.1.4" << "2.0" << "3.1.4";
        QTest::newRow("no bundle, settings") << QStringList{} << "" << " 2.0.1 " << "2.0.1";
        QTest::newRow("settings word is passed on") << QStringList{} << "" << "unknown" << "unknown";
        QTest::newRow("nothing known") << QStringList{} << "" << "" << "0.0.0";
    }

    void installedVersionSources()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, bundleVersion);
        QFETCH(QString, settingsVersion);
        QFETCH(QString, expected);
        QVERIFY2(QFileInfo(QStringLiteral("/usr/libexec/PlistBuddy")).isExecutable(),
                 "run this test through with-fake-plistbuddy.sh");

        QTemporaryDir place;
        if (!bundleVersion.isEmpty())
            writeBundle(place.path() + QStringLiteral("/Velmora.app"), bundleVersion);
        if (!settingsVersion.isEmpty())
            QSettings(QStringLiteral("Velmora"), QStringLiteral("VelmoraApp")).setValue("Version", settingsVersion);

        const QStringList all = withArguments(arguments + QStringList{"--install-dir", place.path()});
        QCOMPARE(installedVersion(all, QStringLiteral("/nowhere")), expected);
    }

    void brokenToolFallsBackToSettings_data()
    {
        QTest::addColumn<QByteArray>("fault");
        QTest::newRow("tool fails") << QByteArray("FAKE_PLISTBUDDY_FAIL");
        QTest::newRow("tool hangs") << QByteArray("FAKE_PLISTBUDDY_SLEEP");
    }

    void brokenToolFallsBackToSettings()
    {
        QFETCH(QByteArray, fault);
        QTemporaryDir place;
        writeBundle(place.path() + QStringLiteral("/Velmora.app"), QStringLiteral("5.0"));
        QSettings(QStringLiteral("Velmora"), QStringLiteral("VelmoraApp")).setValue("Version", "4.0");
        qputenv(fault.constData(), "30");
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(installedVersion(withArguments({"--install-dir", place.path()}), QStringLiteral("/nowhere")),
                 QStringLiteral("4.0"));
        // Bounds, not a benchmark: a hung tool was given its four seconds and no more.
        if (fault.endsWith("SLEEP"))
            QVERIFY2(clock.elapsed() >= 3900 && clock.elapsed() < 20000, qPrintable(QString::number(clock.elapsed())));
    }

    void readsTheBundleGivenWithoutTrailingSlash()
    {
        QTemporaryDir place;
        writeBundle(place.path() + QStringLiteral("/Velmora.app"), QStringLiteral("7.7.7"));
        QCOMPARE(readInstalledVersion(place.path() + QStringLiteral("/Velmora.app")), QStringLiteral("7.7.7"));
        QCOMPARE(readInstalledVersion(QString()), QString());
        QCOMPARE(readInstalledVersion(place.path() + QStringLiteral("/Missing.app")), QString());
    }
};

QTEST_GUILESS_MAIN(TestInstallLocation)
#include "tst_installlocation.moc"
