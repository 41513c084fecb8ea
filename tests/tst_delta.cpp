// The delta path: a delta made by the publisher's builder from two real
// packages is applied to the old bundle as unzip unpacks it, and must give
// exactly what unzip gives from the new package; every damaged delta, edited
// installed bundle or frame over the window limit is refused with its
// reason, leaves no partial bundle and writes nothing outside the output.

#include "delta.h"
#include "testfiles.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <QtEndian>

// Runs a shell command in dir with $1 set to argument; its output, or
// nothing when it failed.
static QByteArray shell(const QString &dir, const char *command, const QString &argument = {})
{
    QProcess sh;
    sh.setWorkingDirectory(dir);
    sh.start(QStringLiteral("sh"), {"-c", command, "sh", argument});
    return sh.waitForFinished(30000) && sh.exitCode() == 0 ? sh.readAllStandardOutput() + "ok" : QByteArray();
}

// Every entry's path, type, mode and link target, then every file's digest.
constexpr char listing[] = "find . -printf '%p %y %m %l\\n' | sort && find . -type f -exec sha256sum {} + | sort";
constexpr char unzip[] = "unzip -q \"$1\"";

class TestDelta : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QByteArray m_delta;
    DeltaManifest m_manifest;
    QString path(const QString &name) const { return m_dir.filePath(name); }
    QByteArray code(int size, uint seed) const
    {
        QByteArray bytes(size, Qt::Uninitialized);
        std::generate(bytes.begin(), bytes.end(), [&seed] { return char((seed = seed * 1103515245 + 12345) >> 24); });
        return bytes;
    }

private slots:
    void initTestCase()
    {
        // Old and new differ in every way a release can: a patched engine,
        // a moved file, new files (one of 300 KB, sent whole), an empty
        // file, an empty read-only folder, modes, framework links, and a
        // link beside a folder of nearly the same name.
        const QString old = path("old/Velmora.app/Contents/"), next = path("new/Velmora.app/Contents/");
        QVERIFY(writeBundle(path("old/Velmora.app"), "1.0.0") && writeBundle(path("new/Velmora.app"), "2.0.0"));
        const QByteArray engine = code(100000, 1);
        QVERIFY(writeFile(old + "MacOS/engine", engine, true)
                && writeFile(next + "MacOS/engine", engine.left(40000) + "patch" + engine.mid(40100), true));
        QVERIFY(writeFile(old + "Resources/old-name.txt", "moved, not changed")
                && writeFile(next + "Resources/Sub/new-name.txt", "moved, not changed"));
        QVERIFY(writeFile(old + "Resources/private.txt", "kept") && writeFile(next + "Resources/private.txt", "kept"));
        QVERIFY(QFile::setPermissions(old + "Resources/private.txt", QFile::ReadOwner | QFile::WriteOwner)
                && QFile::setPermissions(next + "Resources/private.txt", QFile::ReadOwner | QFile::WriteOwner));
        QVERIFY(writeFile(next + "Resources/big.bin", code(300000, 2)) && writeFile(next + "Resources/zz.txt", "new")
                && writeFile(next + "Resources/empty.txt", "") && writeFile(next + "aab/f", "inside"));
        QVERIFY(QDir().mkpath(next + "Resources/Empty")
                && QFile::setPermissions(next + "Resources/Empty", QFile::ReadOwner | QFile::ExeOwner));
        for (const QString &contents : {old, next}) {
            QVERIFY(writeFile(contents + "Frameworks/F.framework/Versions/A/F", "library"));
            QVERIFY(QFile::link("A", contents + "Frameworks/F.framework/Versions/Current")
                    && QFile::link("Versions/Current/F", contents + "Frameworks/F.framework/F"));
        }
        QVERIFY(QDir().mkpath(path("escape")) && QFile::link(path("escape"), next + "aaa"));
        QVERIFY(writeFile(path("old.zip"), zipFolder(path("old")))
                && writeFile(path("new.zip"), zipFolder(path("new"))));

        QProcess builder;
        builder.start(QStringLiteral(VELMORA_TEST_SOURCE_DIR "/../scripts/make-delta"),
                      {path("old.zip"), path("new.zip"), path("good.delta"), "--jobs", "1"});
        QVERIFY2(builder.waitForFinished(60000) && builder.exitCode() == 0, builder.readAllStandardError());
        m_delta = readFile(path("good.delta"));
        QString error;
        QVERIFY2(readDeltaManifest(reinterpret_cast<const uchar *>(m_delta.constData()), m_delta.size(), {},
                                   &m_manifest, &error),
                 qPrintable(error));
        QVERIFY(QDir().mkpath(path("reference")) && !shell(path("reference"), unzip, path("new.zip")).isEmpty());
    }

    void apply_data()
    {
        // damage, to the delta: "payload:P", "sha:P" or "window:P" (of entry P), "cut", "FROM=TO";
        // edit, to the installed bundle: "edit:P" rewrites P, "link:P" makes it a link;
        // reason: a part of it; empty: accepted and equal to the unzipped package.
        QTest::addColumn<QString>("damage");
        QTest::addColumn<QString>("edit");
        QTest::addColumn<QString>("reason");
        const auto row = [](const char *name, const char *damage, const char *edit, const char *reason) {
            QTest::newRow(name) << QString::fromUtf8(damage) << QString::fromUtf8(edit) << QString::fromUtf8(reason);
        };
        row("builds what unzip gives", "", "", "");
        row("refuses an edited base", "", "edit:Contents/MacOS/engine", "differs from");
        row("refuses a base that became a link", "", "link:Contents/MacOS/engine", "is not the file");
        row("refuses an edited unchanged file", "", "edit:Contents/Resources/private.txt",
            "does not match its SHA-256");
        row("refuses a frame that does not decode", "payload:Contents/MacOS/engine", "", "cannot decode");
        row("refuses a result that is not the manifest's", "sha:Contents/Resources/zz.txt", "",
            "does not match its SHA-256");
        row("refuses an absolute path", "Contents/Resources/zz.txt=/tmp/velmora-delta-zz.txt", "", "escaping path");
        row("refuses a path out of the bundle", "Contents/Resources/zz.txt=Contents/../../../zz.txtx", "",
            "escaping path");
        row("refuses a write through a link", "Contents/aab/f=Contents/aaa/f", "", "not inside a folder");
        row("refuses a window over the limit", "window:Contents/Resources/big.bin", "", "window over the limit");
        row("refuses a truncated delta", "cut", "", "do not add up");
    }

    void apply()
    {
        QFETCH(QString, damage);
        QFETCH(QString, edit);
        QFETCH(QString, reason);

        QTemporaryDir run;
        QVERIFY(QDir().mkpath(run.filePath("installed")) && QDir().mkpath(run.filePath("out")));
        QVERIFY(!shell(run.filePath("installed"), unzip, path("old.zip")).isEmpty());
        const QString installed = run.filePath("installed/Velmora.app");
        const QString edited = installed + '/' + edit.section(':', 1);
        QByteArray bytes = readFile(edited);
        if (edit.startsWith("edit:")) // the same size: only the digest can tell
            QVERIFY(writeFile(edited, bytes.replace(0, 1, "~")));
        if (edit.startsWith("link:"))
            QVERIFY(QFile::rename(edited, edited + ".real") && QFile::link(edited + ".real", edited));

        QByteArray delta = m_delta;
        const QByteArray target = damage.section(':', 1).toUtf8();
        for (const DeltaEntry &entry : std::as_const(m_manifest.entries)) {
            if (target.isEmpty() || entry.path != target)
                continue;
            if (damage.startsWith("window:")) {
                // Its header asks for 256 MiB, one byte more in the frame: a
                // single-segment frame with a 4-byte size gets a window byte.
                const qint64 at = entry.payloadOffset + 4, length = delta.indexOf(entry.sha256) + 32;
                QCOMPARE(uchar(delta[at]), uchar(0xa4)); // single segment, checksum, 4-byte size
                delta[at] = char(delta[at] & ~0x20);
                delta.insert(at + 1, char(18 << 3));
                for (const qint64 field : {length, qint64(24)})
                    qToLittleEndian(qFromLittleEndian<quint64>(delta.constData() + field) + 1, delta.data() + field);
            } else if (damage.startsWith("payload:"))
                delta[entry.payloadOffset + entry.payloadSize / 2]
                    = ~delta[entry.payloadOffset + entry.payloadSize / 2];
            else
                delta[delta.indexOf(entry.sha256)] = ~entry.sha256[0];
        }
        if (damage == "cut")
            delta.chop(1);
        if (damage.contains('=')) {
            const QByteArray from = damage.section('=', 0, 0).toUtf8(), to = damage.section('=', 1).toUtf8();
            QVERIFY(from.size() == to.size() && delta.count(from) == 1);
            delta.replace(from, to);
        }
        QVERIFY(writeFile(run.filePath("delta"), delta));

        const DeltaResult result = applyDelta(run.filePath("delta"), installed, run.filePath("out"));
        QVERIFY(QDir(path("escape")).isEmpty() && !QFile::exists("/tmp/velmora-delta-zz.txt"));
        if (reason.isEmpty()) {
            QVERIFY2(result.ok, qPrintable(result.reason));
            QCOMPARE(shell(run.filePath("out"), listing), shell(path("reference"), listing));
            return;
        }
        QVERIFY(!result.ok);
        QVERIFY2(result.reason.contains(reason), qPrintable(result.reason));
        QVERIFY(!QFile::exists(run.filePath("out/Velmora.app")));
    }
};

QTEST_GUILESS_MAIN(TestDelta)
#include "tst_delta.moc"
