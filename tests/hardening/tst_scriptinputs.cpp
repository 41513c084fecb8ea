// Paths travel from the file system into the swap script's header and from
// there through every step of its body. Whatever they hold, bash must treat
// them as data: a folder name with "$(...)", backticks, quotes or a line
// feed must never run as a command, and the swap must still work there.

#include "handover.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

static bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

static QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

static bool makeBundle(const QString &path, const QString &version)
{
    QDir().mkpath(path + QStringLiteral("/Contents/MacOS"));
    const QString executable = path + QStringLiteral("/Contents/MacOS/Velmora");
    if (!writeFile(executable, "#!/bin/sh\nexit 0\n"))
        return false;
    QFile::setPermissions(executable, QFile::permissions(executable) | QFile::ExeOwner | QFile::ExeGroup | QFile::ExeOther);
    return writeFile(path + QStringLiteral("/Contents/Info.plist"),
                     "<plist><dict><key>CFBundleShortVersionString</key><string>" + version.toUtf8()
                         + "</string></dict></plist>\n");
}

static QString bundleVersion(const QString &path)
{
    const QByteArray plist = readFile(path + QStringLiteral("/Contents/Info.plist"));
    const qsizetype start = plist.indexOf("<string>");
    const qsizetype end = plist.indexOf("</string>");
    if (start < 0 || end < start || !QFile::exists(path + QStringLiteral("/Contents/MacOS/Velmora")))
        return QStringLiteral("none");
    return QString::fromUtf8(plist.mid(start + 8, end - start - 8));
}

// A folder name that would run "touch CANARY" if any part of it were code.
static QString hostile(const QString &kind, const QString &canary)
{
    if (kind == QLatin1String("substitution"))
        return QStringLiteral("Mac $(touch '%1') of o'neil").arg(canary);
    if (kind == QLatin1String("backticks"))
        return QStringLiteral("`touch %1` and \"quotes\" \\").arg(canary);
    if (kind == QLatin1String("line feed"))
        return QStringLiteral("first\ntouch %1\n#").arg(canary);
    if (kind == QLatin1String("closing quote"))
        return QStringLiteral("x'; touch %1; echo '").arg(canary);
    if (kind == QLatin1String("expansions"))
        return QStringLiteral("$HOME ${IFS} * ~ !! $((6*7)) %s");
    if (kind == QLatin1String("non-ASCII"))
        return QStringLiteral("Şule Ünal アプリ");
    return {};
}

class TestScriptInputs : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        Q_INIT_RESOURCE(updater);
    }

    // The header alone is checked in tst_handover; here the whole generated
    // script, body included, swaps bundles that live under such names, with
    // the fake macOS tools of the swap scenarios.
    void swapsBundlesUnderHostileNames_data()
    {
        QTest::addColumn<QString>("kind");
        for (const char *kind : {"substitution", "backticks", "line feed", "closing quote", "expansions", "non-ASCII"})
            QTest::newRow(kind) << QString::fromLatin1(kind);
    }

    void swapsBundlesUnderHostileNames()
    {
        QFETCH(QString, kind);
        QTemporaryDir sandbox;
        QVERIFY(sandbox.isValid());
        const QString canary = sandbox.filePath(QStringLiteral("CANARY"));
        const QString base = sandbox.filePath(hostile(kind, canary));
        const QString fakes = QStringLiteral(VELMORA_TEST_SOURCE_DIR "/../swap/fakes");
        const QString state = sandbox.filePath(QStringLiteral("state"));
        const QString tmp = base + QStringLiteral("/tmp");
        QVERIFY(QDir().mkpath(state + QStringLiteral("/proc")));
        QVERIFY(QDir().mkpath(tmp));
        QVERIFY(writeFile(state + QStringLiteral("/clock"), "0\n"));

        SwapScriptValues values;
        values.srcRoot = base + QStringLiteral("/extract/") + hostile(kind, canary);
        values.srcApp = values.srcRoot + QStringLiteral("/Velmora.app");
        values.dstApp = base + QStringLiteral("/Applications/Velmora.app");
        values.legacyApp = base + QStringLiteral("/Downloads/Velmora 1.0.app");
        values.expectVersion = QStringLiteral("2.0.0");
        values.expectArch = QStringLiteral("arm64");
        values.statusPath = tmp + QStringLiteral("/velmora_update.status");
        QVERIFY(makeBundle(values.srcApp, values.expectVersion));
        QVERIFY(makeBundle(values.dstApp, QStringLiteral("1.0.0")));
        QVERIFY(makeBundle(values.legacyApp, QStringLiteral("1.0.0")));

        const QString scriptPath = tmp + QStringLiteral("/velmora_apply_update.sh");
        QVERIFY(writeFile(scriptPath, buildSwapScript(values)));

        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("PATH"), fakes + QStringLiteral("/bin:") + environment.value(QStringLiteral("PATH")));
        environment.insert(QStringLiteral("FAKE_LIB"), fakes + QStringLiteral("/fake-lib.sh"));
        environment.insert(QStringLiteral("FAKE_LOG"), sandbox.filePath(QStringLiteral("fake.log")));
        environment.insert(QStringLiteral("FAKE_STATE"), state);
        environment.insert(QStringLiteral("FAKE_LIPO_ARCHS"), QStringLiteral("arm64"));
        environment.insert(QStringLiteral("TMPDIR"), tmp);
        QProcess bash;
        bash.setProcessEnvironment(environment);
        bash.setWorkingDirectory(sandbox.path());
        bash.start(QStringLiteral("/bin/bash"), {scriptPath});
        QVERIFY(bash.waitForFinished(60000));

        const QByteArray log = readFile(tmp + QStringLiteral("/velmora_update.log"));
        QVERIFY2(readFile(values.statusPath) == "ok\n", log.constData());
        QCOMPARE(bundleVersion(values.dstApp), QStringLiteral("2.0.0"));
        QVERIFY(!QFile::exists(values.legacyApp));
        QVERIFY(!QFile::exists(values.srcRoot));
        QVERIFY(!QFile::exists(scriptPath));
        QCOMPARE(readFile(state + QStringLiteral("/launched")), QByteArray("2.0.0\n"));
        QVERIFY(!QFile::exists(canary));
    }
};

QTEST_MAIN(TestScriptInputs)
#include "tst_scriptinputs.moc"
