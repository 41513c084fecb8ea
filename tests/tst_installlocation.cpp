// Where an installation goes and which stray copy it removes, and the order
// of the installed version's sources (options, the bundle's Info.plist read
// by the fake PlistBuddy within a time bound, the settings).

#include "installlocation.h"
#include "testfiles.h"

#include <QtTest>

using Place = std::tuple<QString, QString, QString, QStringList>; // appDir, dstApp, legacyApp, arguments
// arguments, the version in the bundle and in the settings, expected, seconds the tool hangs
using Sources = std::tuple<QStringList, QString, QString, QString, QString>;
Q_DECLARE_METATYPE(Place)
Q_DECLARE_METATYPE(Sources)

class TestInstallLocation : public QObject
{
    Q_OBJECT
    QTemporaryDir scratch;

private slots:
    void installPlace_data()
    {
        QTest::addColumn<Place>("place");
        const QString app = "/Applications/Velmora.app", in = "/Contents/MacOS", dl = "/u/Downloads/Velmora.app";
        const QString beside = scratch.filePath("beside");
        QVERIFY(QDir().mkpath(beside + "/Velmora.app"));
        QTest::newRow("installed in /Applications") << Place{app + in, app, "", {}};
        QTest::newRow("Gatekeeper translocation") << Place{"/x/AppTranslocation/d/Velmora.app" + in, app, "", {}};
        QTest::newRow("temporary folder") << Place{"/var/folders/T/Velmora.app" + in, app, "", {}};
        QTest::newRow("mounted disk image") << Place{"/Volumes/V/Velmora.app" + in, app, "", {}};
        QTest::newRow("Volumes only at the start") << Place{"/u/Volumes/X.app" + in, "/u/Volumes/X.app", "", {}};
        QTest::newRow("downloads copy goes") << Place{dl + in, app, dl, {}};
        QTest::newRow("renamed on the desktop") << Place{"/u/Desktop/Old.app" + in, app, "/u/Desktop/Old.app", {}};
        QTest::newRow("proper name, any case") << Place{"/u/Apps/velmora.APP" + in, "/u/Apps/velmora.APP", "", {}};
        QTest::newRow("version-stamped copy") << Place{"/A/Velmora 3.app" + in, app, "/A/Velmora 3.app", {}};
        QTest::newRow("renamed, updated in place") << Place{"/A/Notes.app" + in, "/A/Notes.app", "", {}};
        QTest::newRow("not in a bundle") << Place{"/usr/local/bin", app, "", {}};
        QTest::newRow("updater beside the bundle") << Place{beside, beside + "/Velmora.app", "", {}};
        QTest::newRow("install-dir folder") << Place{dl + in, "/opt/x/Velmora.app", "", {"--install-dir", "/opt/x"}};
        QTest::newRow("install-dir bundle, any case")
            << Place{dl + in, "/o/Foo.APP", "", {"--install-dir", "/o/Foo.APP"}};
        QTest::newRow("install-dir without a value") << Place{dl + in, app, dl, {"--install-dir", "--force"}};
    }

    void installPlace()
    {
        QFETCH(Place, place);
        const auto &[appDir, dstApp, legacyApp, arguments] = place;
        const InstallLocation location = findInstallLocation(QStringList{"VelmoraUpdater"} + arguments, appDir);
        QCOMPARE(location.dstApp + " | " + location.legacyApp, dstApp + " | " + legacyApp);
    }

    void installedVersion_data()
    {
        QTest::addColumn<Sources>("sources");
        QTest::newRow("--force beats all") << Sources{{"--force", "--current", "9"}, "1.0", "1.1", "0.0.0", ""};
        QTest::newRow("--repair beats all") << Sources{{"--repair", "--current", "9"}, "1.0", "1.1", "0.0.0", ""};
        QTest::newRow("--current, trimmed") << Sources{{"--current", " 2.4 "}, "1.0", "1.1", "2.4", ""};
        QTest::newRow("--current at the end") << Sources{{"--current"}, "1.0", "1.1", "1.0", ""};
        QTest::newRow("--current, then an option") << Sources{{"--current", "--auto"}, "1.0", "", "1.0", ""};
        QTest::newRow("bundle beats settings") << Sources{{}, "3.1.4", "2.0", "3.1.4", ""};
        QTest::newRow("hung tool: settings") << Sources{{}, "5.0", "4.0", "4.0", "5"};
        QTest::newRow("settings, trimmed") << Sources{{}, "", " 2.0.1 ", "2.0.1", ""};
        QTest::newRow("nothing known") << Sources{{}, "", "", "0.0.0", ""};
    }

    void installedVersion()
    {
        QFETCH(Sources, sources);
        const auto &[arguments, bundleVersion, settingsVersion, expected, toolHangs] = sources;
        QTemporaryDir place;
        QVERIFY(writeFile(place.filePath("Velmora.app/Contents/Info.plist"),
                          "<key>CFBundleShortVersionString</key><string>" + bundleVersion.toUtf8() + "</string>"));
        QSettings(QStringLiteral("Velmora"), QStringLiteral("VelmoraApp")).setValue("Version", settingsVersion);
        qputenv("FAKE_PLISTBUDDY_SLEEP", toolHangs.toUtf8());

        const QDeadlineTimer bound(3900);
        const QStringList all = QStringList{"VelmoraUpdater", "--install-dir", place.path()} + arguments;
        QCOMPARE(::installedVersion(all, QStringLiteral("/nowhere")), expected);
        QVERIFY2(toolHangs.isEmpty() || bound.hasExpired(), "a hung PlistBuddy was not given its 4 s");
    }
};

QTEST_GUILESS_MAIN(TestInstallLocation)
#include "tst_installlocation.moc"
