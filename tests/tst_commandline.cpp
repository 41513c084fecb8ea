#include "commandline.h"

#include <QProcess>
#include <QtTest>

// The usage text as the documentation promises it, written out independently
// of the program's own copy so that a stray blank or a lost line feed shows.
static QByteArray expectedUsage()
{
    const char *const lines[] = {
        "VelmoraUpdater [--force|--repair] [--auto] [--current X.Y.Z] [--install-dir DIR]",
        "",
        "  Ana uygulama acilmasa bile bu ikiliyi calistirabilirsiniz.",
        "  --force / --repair  En son yayinlanan paketi indirip kurar (kirik kurulum).",
        "  --auto              Arka plan; uygulama aciksa kurulumu erteler.",
        "  --current VER       Kurulu surum (yoksa Info.plist / registry).",
        "  --install-dir DIR   Kurulum yeri (Mac: Velmora.app, Windows: exe klasoru).",
        "",
        "Mac:",
        "  /Applications/Velmora.app/Contents/MacOS/VelmoraUpdater --force",
        "Windows:",
        "  VelmoraUpdateCheck.exe --force",
    };
    QByteArray text;
    for (const char *line : lines)
        text += QByteArray(line) + '\n';
    return text;
}

struct Run
{
    int exitCode = -1;
    QProcess::ExitStatus exitStatus = QProcess::CrashExit;
    QByteArray out;
    QByteArray err;
};

static Run runUpdater(const QStringList &arguments)
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral(VELMORA_UPDATER_EXECUTABLE), arguments);
    Run run;
    if (!process.waitForFinished(30000)) {
        process.kill();
        process.waitForFinished();
        return run;
    }
    run.exitCode = process.exitCode();
    run.exitStatus = process.exitStatus();
    run.out = process.readAllStandardOutput();
    run.err = process.readAllStandardError();
    return run;
}

class TestCommandLine : public QObject
{
    Q_OBJECT

private slots:
    void usageTextIsTwelveLinesWithAlignedDescriptions()
    {
        const QByteArray usage = usageText();
        QCOMPARE(usage, expectedUsage());
        const QList<QByteArray> lines = usage.split('\n');
        QCOMPARE(lines.size(), 13); // twelve lines, each ended by a line feed
        for (int i = 3; i <= 6; ++i)
            QCOMPARE(lines.at(i).at(21) == ' ' && lines.at(i).at(22) != ' ', true);
    }

    void printsUsageAndExitsZero_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("--help") << QStringList{"--help"};
        QTest::newRow("-h") << QStringList{"-h"};
        QTest::newRow("--help with --force") << QStringList{"--force", "--help"};
        QTest::newRow("--help with --auto") << QStringList{"--auto", "--help"};
        QTest::newRow("-h after unknown options") << QStringList{"--whatever", "x", "-h"};
    }

    void printsUsageAndExitsZero()
    {
        QFETCH(QStringList, arguments);
        const Run run = runUpdater(arguments);
        QCOMPARE(run.exitStatus, QProcess::NormalExit);
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.out, expectedUsage());
    }

    // Near misses are ignored like any unknown argument: the run goes on to the
    // release check and still ends with status 0. The installed version is
    // given as the highest there can be, so that even a release service that
    // happens to answer finds nothing to install.
    void nearMissesAreNotOptions_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("-help") << QStringList{"-help"};
        QTest::newRow("--HELP") << QStringList{"--HELP"};
        QTest::newRow("--help=1") << QStringList{"--help=1"};
    }

    void nearMissesAreNotOptions()
    {
        QFETCH(QStringList, arguments);
        const Run run = runUpdater(arguments + QStringList{"--current", "999999999.999999999.999999999"});
        QCOMPARE(run.exitStatus, QProcess::NormalExit);
        QCOMPARE(run.exitCode, 0);
        QVERIFY2(!run.out.contains("VelmoraUpdater ["), run.out.constData());
    }

    void preScanFindsOnlyTheExactAutoOption_data()
    {
        QTest::addColumn<QList<QByteArray>>("arguments");
        QTest::addColumn<bool>("automatic");
        QTest::newRow("alone") << QList<QByteArray>{"--auto"} << true;
        QTest::newRow("last of several") << QList<QByteArray>{"--force", "x", "--auto"} << true;
        QTest::newRow("upper case") << QList<QByteArray>{"--AUTO"} << false;
        QTest::newRow("capitalised") << QList<QByteArray>{"--Auto"} << false;
        QTest::newRow("with a value") << QList<QByteArray>{"--auto=1"} << false;
        QTest::newRow("single dash") << QList<QByteArray>{"-auto"} << false;
        QTest::newRow("trailing blank") << QList<QByteArray>{"--auto "} << false;
        QTest::newRow("no arguments") << QList<QByteArray>{} << false;
    }

    void preScanFindsOnlyTheExactAutoOption()
    {
        QFETCH(QList<QByteArray>, arguments);
        QFETCH(bool, automatic);
        // The program name itself is never an option, even when it reads --auto.
        std::vector<const char *> argv{"--auto"};
        for (const QByteArray &argument : arguments)
            argv.push_back(argument.constData());
        QCOMPARE(rawArgumentsRequestAutoMode(int(argv.size()), argv.data()), automatic);
    }
};

QTEST_GUILESS_MAIN(TestCommandLine)
#include "tst_commandline.moc"
