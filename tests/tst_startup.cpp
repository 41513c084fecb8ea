// Start-up: "--help" prints the fixed usage text through the real executable,
// and the run flags, from the raw "--auto" scan made before Qt exists to the
// flags main reads (a background run never probes the tray).

#include "commandline.h"

#include <QtTest>

class TestStartup : public QObject
{
    Q_OBJECT

private slots:
    // The text is the documented contract, so it is written out on its own:
    // a stray blank or a lost line feed shows.
    void helpPrintsTheUsageText()
    {
        QProcess updater;
        updater.start(QStringLiteral(VELMORA_UPDATER_EXECUTABLE), {"--auto", "--help"});
        QVERIFY2(updater.waitForFinished(20000), "the updater did not end on --help");
        QCOMPARE(updater.exitStatus() == QProcess::NormalExit ? updater.exitCode() : -1, 0);
        QCOMPARE(updater.readAllStandardOutput(),
                 QByteArray("VelmoraUpdater [--force|--repair] [--auto] [--current X.Y.Z] [--install-dir DIR]\n\n"
                            "  Ana uygulama acilmasa bile bu ikiliyi calistirabilirsiniz.\n"
                            "  --force / --repair  En son yayinlanan paketi indirip kurar (kirik kurulum).\n"
                            "  --auto              Arka plan; uygulama aciksa kurulumu erteler.\n"
                            "  --current VER       Kurulu surum (yoksa Info.plist / registry).\n"
                            "  --install-dir DIR   Kurulum yeri (Mac: Velmora.app, Windows: exe klasoru).\n\n"
                            "Mac:\n  /Applications/Velmora.app/Contents/MacOS/VelmoraUpdater --force\n"
                            "Windows:\n  VelmoraUpdateCheck.exe --force\n"));
    }

    void runFlags_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<bool>("trayExists");
        QTest::addColumn<QString>("flags"); // the raw scan agrees on "auto"
        QTest::newRow("interactive asks for the tray") << QStringList{} << true << "probed tray";
        QTest::newRow("forced, without a tray") << QStringList{"--force"} << false << "force probed";
        QTest::newRow("--repair is a forced run") << QStringList{"--repair"} << true << "force probed tray";
        QTest::newRow("--auto never probes") << QStringList{"--auto"} << true << "auto";
        QTest::newRow("--auto anywhere") << QStringList{"--repair", "x", "--auto"} << true << "auto force";
        QTest::newRow("case matters") << QStringList{"--Auto", "--Force"} << true << "probed tray";
        QTest::newRow("--auto with a value") << QStringList{"--auto=1"} << true << "probed tray";
        QTest::newRow("--auto with one dash") << QStringList{"-auto"} << true << "probed tray";
    }

    void runFlags()
    {
        QFETCH(QStringList, arguments);
        QFETCH(bool, trayExists);
        QFETCH(QString, flags);
        int probes = 0;
        const RunFlags run
            = readRunFlags(QStringList{"VelmoraUpdater"} + arguments, [&] { return ++probes, trayExists; });
        const QString seen = QString(run.autoMode ? "auto " : "") + (run.forceMode ? "force " : "")
            + QString("probed ").repeated(probes) + (run.trayAvailable ? "tray" : "");
        QCOMPARE(seen.trimmed(), flags);

        // The program's own name is never an option, even when it reads --auto.
        QByteArrayList raw; // holds the bytes argv points to
        std::vector<const char *> argv{"--auto"};
        for (const QString &argument : arguments)
            argv.push_back((raw << argument.toUtf8()).last().constData());
        QCOMPARE(rawArgumentsRequestAutoMode(int(argv.size()), argv.data()), run.autoMode);
    }
};

QTEST_GUILESS_MAIN(TestStartup)
#include "tst_startup.moc"
