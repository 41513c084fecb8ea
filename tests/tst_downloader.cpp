#include "downloader.h"
#include "httpstestserver.h"
#include "localisation.h"
#include "testfiles.h"

#include <QDir>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <memory>
#include <thread>

// Every notify signal and done, in order: "phase=2", "progress=0",
// "status=upd_verifying" (the message key whose text the status is),
// "hasError", "isFinished", "done". The download's own reports, progress and
// status in phase 1, depend on timing and are left out.
class PropertyTrail : public QObject
{
public:
    explicit PropertyTrail(Downloader *d)
    {
        connect(d, &Downloader::phaseChanged, this, [this, d] { tokens << QStringLiteral("phase=%1").arg(d->phase()); });
        connect(d, &Downloader::progressChanged, this, [this, d] {
            if (d->phase() != 1)
                tokens << QStringLiteral("progress=%1").arg(d->progress());
        });
        connect(d, &Downloader::statusChanged, this, [this, d] {
            if (d->phase() != 1)
                tokens << "status=" + keyOf(d->status());
        });
        connect(d, &Downloader::hasErrorChanged, this, [this] { tokens << "hasError"; });
        connect(d, &Downloader::isFinishedChanged, this, [this] { tokens << "isFinished"; });
        connect(d, &Downloader::done, this, [this] { tokens << "done"; });
    }

    QStringList tokens;

private:
    static QString keyOf(const QString &status)
    {
        const QVariantMap texts = updaterStrings();
        for (auto it = texts.cbegin(); it != texts.cend(); ++it) {
            if (it.value().toString() == status)
                return it.key();
        }
        for (auto it = texts.cbegin(); it != texts.cend(); ++it) {
            const QStringList around = it.value().toString().split("%1");
            if (around.size() == 2 && status.startsWith(around[0]) && status.endsWith(around[1])
                && status.size() > around[0].size() + around[1].size())
                return it.key();
        }
        return status;
    }
};

static const QString anyDigest = QString(64, '0');

// Part of a body, then silence until the test drops the connection; paced,
// as Qt reports no progress in the first 100 ms.
static ScriptedResponse stalledBody()
{
    ScriptedResponse stalled = ScriptedResponse::ok(HttpsTestServer::patternBody(200000));
    stalled.delivery = ScriptedResponse::Delivery::StallMidBody;
    stalled.stallAfter = 50000;
    stalled.chunkSize = 10000;
    stalled.chunkDelayMs = 150;
    return stalled;
}

class TestDownloader : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        Q_INIT_RESOURCE(updater);
        QVERIFY(m_scratch.isValid());
        QVERIFY(HttpsTestServer::trustTestCa());
        m_tmpdir = qgetenv("TMPDIR");
        m_tempLocation = QStandardPaths::writableLocation(QStandardPaths::TempLocation);
    }

    void init()
    {
        // A fresh server per case: a case may stop it to drop its connection.
        m_server = std::make_unique<HttpsTestServer>();
        QVERIFY2(m_server->start(), qPrintable(m_server->errorString()));
        m_server->setResponse("/pkg.zip", ScriptedResponse::ok("payload"));
        QFile::remove(m_tempLocation + "/VelmoraUpdate.zip");
        QDir(m_tempLocation + "/VelmoraExtract").removeRecursively();
    }

    void cleanup()
    {
        qputenv("TMPDIR", m_tmpdir);
        qunsetenv("VELMORA_DEFAULT_LANGUAGE");
        qunsetenv("BASH_ENV");
    }

    void refusesBeforeAnyRequest_data()
    {
        QTest::addColumn<QString>("scheme");
        QTest::addColumn<QString>("digest");
        QTest::addColumn<QString>("key");

        QTest::newRow("plain http") << "http" << anyDigest << "upd_insecure_url_keep";
        QTest::newRow("upper-case scheme") << "HTTPS" << anyDigest << "upd_insecure_url_keep";
        QTest::newRow("blank before the scheme") << " https" << anyDigest << "upd_insecure_url_keep";
        QTest::newRow("63-character digest") << "https" << QString(63, 'a') << "upd_sha_missing_keep";
        QTest::newRow("65-character digest") << "https" << QString(65, 'a') << "upd_sha_missing_keep";
        // Nobody can open a folder as a file, not even root.
        QTest::newRow("package path is a folder") << "https" << anyDigest << "upd_file_create_failed";
    }

    void refusesBeforeAnyRequest()
    {
        QFETCH(QString, scheme);
        QFETCH(QString, digest);
        QFETCH(QString, key);
        const bool blocked = key == "upd_file_create_failed";
        const QString temp = blocked ? m_scratch.filePath("blocked") : m_tempLocation;
        if (blocked) {
            QVERIFY(QDir().mkpath(temp + "/VelmoraUpdate.zip"));
            qputenv("TMPDIR", QFile::encodeName(temp));
        }
        QSignalSpy requests(m_server.get(), &HttpsTestServer::requestReceived);
        Downloader d("2.0.0", scheme + m_server->url("/pkg.zip").toString().mid(5), digest, false);

        const QString package = temp + "/VelmoraUpdate.zip";
        QCOMPARE(d.status(), translate(key.toLatin1().constData()).arg(package));
        QCOMPARE(d.phase(), -1);
        QVERIFY(d.hasError() && d.isFinished());
        // The owner can still end the run, and nothing else changes.
        PropertyTrail trail(&d);
        d.cancel();
        d.close();
        QCOMPARE(trail.tokens, (QStringList{"done", "done"}));
        QCOMPARE(QFileInfo(package).isDir(), blocked);
        QVERIFY(!QFileInfo(package).isFile());
        QVERIFY(!requests.wait(300));
    }

    void reportsProgress_data()
    {
        QTest::addColumn<QString>("language");
        QTest::addColumn<qint64>("size");
        QTest::addColumn<qint64>("chunk");
        QTest::addColumn<bool>("sized");
        QTest::addColumn<QList<int>>("mustShow"); // without a length: exactly these
        QTest::addColumn<QString>("finalStatus");

        const qint64 mib = 1024 * 1024;
        QTest::newRow("English") << "en" << 3 * mib << mib / 2 << true << QList<int>{100} << "3.0 MB / 3.0 MB";
        QTest::newRow("Turkish") << "tr" << 3 * mib << mib / 2 << true << QList<int>{100} << "3,0 MB / 3,0 MB";
        QTest::newRow("Italian") << "it" << 3 * mib << mib / 2 << true << QList<int>{100} << "3,0 MB / 3,0 MB";
        // 666 and 999 of 1000 bytes truncate.
        QTest::newRow("percent truncated") << "en" << qint64(1000) << qint64(333) << true << QList<int>{66, 99, 100}
                                           << "0.0 MB / 0.0 MB";
        // Qt closes an unsized transfer with one report of received == total.
        QTest::newRow("no length") << "en" << 3 * mib << mib / 2 << false << QList<int>{100} << "3.0 MB / 3.0 MB";
    }

    void reportsProgress()
    {
        QFETCH(QString, language);
        QFETCH(qint64, size);
        QFETCH(qint64, chunk);
        QFETCH(bool, sized);
        QFETCH(QList<int>, mustShow);
        QFETCH(QString, finalStatus);
        qputenv("VELMORA_DEFAULT_LANGUAGE", language.toLatin1());

        ScriptedResponse slow = ScriptedResponse::ok(HttpsTestServer::patternBody(size));
        slow.contentLength = sized;
        slow.chunkSize = chunk;
        slow.chunkDelayMs = 200;
        m_server->setResponse("/pkg.zip", slow);
        // A wrong digest ends the run right after the download.
        Downloader d("2.0.0", m_server->url("/pkg.zip").toString(), anyDigest, false);
        QList<int> shown, atStatus;
        QStringList statuses;
        connect(&d, &Downloader::progressChanged, this, [&] { shown << d.progress(); });
        connect(&d, &Downloader::statusChanged, this, [&] {
            if (d.phase() == 1) {
                statuses << d.status();
                atStatus << d.progress();
            }
        });
        QTRY_VERIFY_WITH_TIMEOUT(d.isFinished(), 30000);

        shown.removeLast(); // the extraction starts again from 0
        // The pauses between chunks let intermediate reports through.
        QVERIFY(qMax(shown.size(), statuses.size()) >= 3);
        QCOMPARE(statuses.last(), finalStatus);
        const QChar separator = language == "en" ? '.' : ',';
        const QRegularExpression pattern(sized ? QString("^(\\d+)\\%1(\\d) MB / \\d+\\%1\\d MB$").arg(separator)
                                               : QString("^Downloading \\d+\\.\\d MB\\.\\.\\.$"));
        for (int i = 0; i < statuses.size() - (sized ? 0 : 1); ++i) {
            const QRegularExpressionMatch figures = pattern.match(statuses[i]);
            QVERIFY2(figures.hasMatch(), qPrintable(statuses[i]));
            // The figure and the percentage agree, up to the rounding of the figure.
            const double received = (figures.captured(1) + '.' + figures.captured(2)).toDouble() * 1048576;
            QVERIFY2(!sized || qAbs(received * 100 / size - atStatus[i]) <= 1 + 0.05 * 1048576 * 100 / size,
                     qPrintable(statuses[i]));
        }
        QVERIFY(std::is_sorted(shown.cbegin(), shown.cend()));
        for (int percent : mustShow)
            QVERIFY2(shown.contains(percent), qPrintable(QString::number(percent)));
        if (!sized)
            QCOMPARE(shown, mustShow);

        QCOMPARE(m_server->requests().size(), 1);
        QCOMPARE(m_server->requests().first().header("User-Agent"), QByteArray("Mozilla/5.0 VelmoraUpdater/1.0"));
        QCOMPARE(m_server->requests().first().header("Authorization"), QByteArray());
    }

    void cancelDuringDownload()
    {
        m_server->setResponse("/pkg.zip", stalledBody());
        auto d = std::make_unique<Downloader>("2.0.0", m_server->url("/pkg.zip").toString(), anyDigest, false);
        QTRY_COMPARE_WITH_TIMEOUT(d->phase(), 1, 10000);
        const QString statusBefore = d->status();
        PropertyTrail trail(d.get());

        d->cancel();
        QTest::qWait(300);
        QCOMPARE(trail.tokens, QStringList{"done"});
        QVERIFY(!QFile::exists(d->packageFilePath()));
        QVERIFY(!d->hasError() && !d->isFinished());
        QCOMPARE(d->status(), statusBefore);

        // Destroyed mid-download, a Downloader runs no handler on itself while
        // dying, so the partial file stays where it is.
        d = std::make_unique<Downloader>("2.0.0", m_server->url("/pkg.zip").toString(), anyDigest, false);
        QTRY_COMPARE_WITH_TIMEOUT(d->phase(), 1, 10000);
        const QString package = d->packageFilePath();
        d.reset();
        QTest::qWait(100);
        QVERIFY(QFile::exists(package));
    }

    void postStateQueuesToTheObjectsThread()
    {
        Downloader d("2.0.0", "http://127.0.0.1:9/pkg.zip", anyDigest, false);
        PropertyTrail trail(&d);
        std::thread worker([&d] {
            d.postState({}, -1000, true);
            d.postState({}, -1000, true); // an error already shown is announced again
            d.postState("upd_custom", -1000, false);
            d.postState({}, 3, false);
            d.postState("upd_custom", 3, false);
        });
        worker.join();
        QVERIFY(trail.tokens.isEmpty());
        QTRY_COMPARE(trail.tokens, (QStringList{"hasError", "hasError", "status=upd_custom", "phase=3"}));
    }

    void followsStateTable_data()
    {
        QTest::addColumn<QString>("scenario");
        QTest::addColumn<QStringList>("expected");
        QTest::addColumn<QString>("mentions"); // part of the network layer's error text

        const QStringList verifying{"phase=1", "phase=2", "status=upd_extracting", "progress=0", "status=upd_verifying"};
        const QStringList failed{"hasError", "phase=-1"};
        const QStringList handedOver = verifying + QStringList{"phase=3", "status=upd_preparing", "status=upd_applying_restart"};
        // Qt ends even an error reply with a progress report.
        const QStringList downloadFailed =
            QStringList{"phase=1"} + failed + QStringList{"status=upd_download_error", "isFinished"};

        QTest::newRow("automatic install") << "auto"
            << handedOver + QStringList{"done", "phase=4", "status=upd_install_done", "progress=100", "isFinished"} << "";
        QTest::newRow("interactive install") << "interactive"
            << handedOver + QStringList{"status=upd_install_done", "phase=4", "progress=100", "isFinished"} << "";
        QTest::newRow("HTTP 404") << "404" << downloadFailed << "Not Found";
        QTest::newRow("connection dropped mid-body") << "dropped" << downloadFailed << "";
        QTest::newRow("redirect from https to http") << "insecure redirect" << downloadFailed << "";
        QTest::newRow("digest mismatch") << "mismatch"
            << verifying + failed + QStringList{"status=upd_verify_failed", "isFinished"} << "";
        QTest::newRow("archive cannot be extracted") << "corrupt"
            << verifying + failed + QStringList{"status=upd_zip_failed_detail", "isFinished"} << "";
        QTest::newRow("no bundle in the archive") << "no bundle"
            << verifying + QStringList{"phase=3", "status=upd_preparing"} + failed
                   + QStringList{"status=upd_app_not_found", "isFinished"} << "";
    }

    void followsStateTable()
    {
        QFETCH(QString, scenario);
        QFETCH(QStringList, expected);
        QFETCH(QString, mentions);

        QByteArray package = scenario == "corrupt" ? QByteArray("PK\003\004 not really a zip archive")
            : zipLayout({scenario == "no bundle" ? "Payload/readme.txt" : "Velmora.app/Contents/MacOS/Velmora"});
        QVERIFY(!package.isEmpty());
        // Blanks and upper case in the release record's digest do not matter.
        const QString digest = scenario == "mismatch" ? anyDigest : sha256Hex(package).toUpper() + "  ";

        ScriptedResponse response = ScriptedResponse::ok(package);
        if (scenario == "404")
            response = ScriptedResponse::error(404);
        if (scenario == "dropped")
            response = stalledBody();
        if (scenario == "insecure redirect")
            response = ScriptedResponse::redirect("http://127.0.0.1:9/pkg.zip");
        m_server->setResponse("/pkg.zip", response);

        // The swap script must not run here: bash reads BASH_ENV first, and that
        // file ends it at once, reporting success to the interactive watch.
        QVERIFY(writeFile(m_scratch.filePath("bash_env"), "printf 'ok\\n' > \"$TMPDIR/velmora_update.status\"\nexit 0\n"));
        qputenv("BASH_ENV", QFile::encodeName(m_scratch.filePath("bash_env")));

        Downloader d("2.0.0", m_server->url("/pkg.zip").toString(), digest, false);
        d.autoMode = scenario == "auto";
        d.statusPollIntervalMs = 20;
        QCOMPARE(d.phase(), 0);
        QCOMPARE(d.status(), translate("upd_connecting"));
        PropertyTrail trail(&d);
        if (scenario == "dropped") {
            QTRY_COMPARE_WITH_TIMEOUT(d.phase(), 1, 10000);
            m_server->stop();
        }
        QTRY_VERIFY_WITH_TIMEOUT(d.isFinished(), 30000);
        QTest::qWait(100); // nothing may follow isFinished
        QVERIFY2(trail.tokens == expected,
                 qPrintable("\n   got: " + trail.tokens.join(' ') + "\nwanted: " + expected.join(' ')));
        QVERIFY2(d.status().contains(mentions), qPrintable(d.status()));
        QVERIFY(!QFile::exists(d.packageFilePath()));
        QCOMPARE(m_server->requests().size(), 1);
    }

private:
    QTemporaryDir m_scratch;
    QByteArray m_tmpdir;
    QString m_tempLocation;
    std::unique_ptr<HttpsTestServer> m_server;
};

QTEST_MAIN(TestDownloader)
#include "tst_downloader.moc"
