#include "downloader.h"
#include "httpstestserver.h"
#include "localisation.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <memory>
#include <thread>

// Every notify signal and `done`, in the order they arrive, each with the
// state at that moment.
class PropertyTrail : public QObject
{
public:
    struct Event
    {
        QString name;
        int phase;
        int progress;
        QString status;
    };

    explicit PropertyTrail(Downloader *d)
    {
        const auto record = [this, d](const char *name) {
            return [this, d, name] { events.append({name, d->phase(), d->progress(), d->status()}); };
        };
        connect(d, &Downloader::progressChanged, this, record("progress"));
        connect(d, &Downloader::statusChanged, this, record("status"));
        connect(d, &Downloader::isFinishedChanged, this, record("isFinished"));
        connect(d, &Downloader::hasErrorChanged, this, record("hasError"));
        connect(d, &Downloader::phaseChanged, this, record("phase"));
        connect(d, &Downloader::done, this, record("done"));
    }

    // Each event as a token ("phase=2", "status=upd_verifying", "done"), the
    // download's own progress reports folded into one "download".
    QStringList tokens() const;

    QList<Event> events;
};

static const char *const knownKeys[] = {
    "upd_connecting", "upd_extracting", "upd_verifying", "upd_verify_failed", "upd_preparing",
    "upd_app_not_found", "upd_applying_restart", "upd_install_done", "upd_apply_failed_kept",
    "upd_install_timeout_kept", "upd_script_create_failed", "upd_script_start_failed", "upd_unzip_missing",
};

static bool matchesTemplate(const QString &text, const char *key)
{
    const QStringList around = translate(key).split("%1");
    return around.size() == 2 && text.size() > around.at(0).size() + around.at(1).size()
        && text.startsWith(around.at(0)) && text.endsWith(around.at(1));
}

static QString statusToken(const QString &status)
{
    for (const char *key : knownKeys) {
        if (status == translate(key))
            return key;
    }
    for (const char *key : {"upd_download_error", "upd_zip_failed_detail", "upd_downloading_mb"}) {
        if (matchesTemplate(status, key))
            return key;
    }
    if (QRegularExpression("^\\d+[.,]\\d MB / \\d+[.,]\\d MB$").match(status).hasMatch())
        return "MB";
    return status;
}

QStringList PropertyTrail::tokens() const
{
    QStringList out;
    bool downloading = false;
    for (const Event &e : events) {
        QString token = e.name;
        if (e.name == "phase" || e.name == "progress")
            token += '=' + QString::number(e.name == "phase" ? e.phase : e.progress);
        else if (e.name == "status")
            token += '=' + statusToken(e.status);

        if (token == "phase=1") {
            downloading = true;
            out << "download";
            continue;
        }
        if (downloading && (e.name == "progress" || token == "status=MB" || token == "status=upd_downloading_mb"))
            continue;
        downloading = false;
        out << token;
    }
    return out;
}

class TestDownloader : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void refusesBeforeAnyRequest_data();
    void refusesBeforeAnyRequest();
    void reportsProgress_data();
    void reportsProgress();
    void cancelDuringDownload();
    void postStateQueuesToTheObjectsThread();
    void followsStateTable_data();
    void followsStateTable();

private:
    QByteArray makeZip(const QStringList &layout);
    void dropIfStalled(Downloader *d, const ScriptedResponse &response);

    HttpsTestServer m_server;
    QTemporaryDir m_scratch;
    QString m_tempLocation;
    QString m_zip;
};

static const QString anyDigest = QString(64, '0');

static QString sha256Of(const QByteArray &data)
{
    return QString::fromLatin1(QCryptographicHash::hash(data, QCryptographicHash::Sha256).toHex());
}

// Part of a body, then silence until the test drops the connection. The
// part comes in paced chunks: Qt reports no progress in the first 100 ms.
static ScriptedResponse stalledBody()
{
    ScriptedResponse stalled = ScriptedResponse::ok(HttpsTestServer::patternBody(200000));
    stalled.delivery = ScriptedResponse::Delivery::StallMidBody;
    stalled.cutAfter = 50000;
    stalled.chunkSize = 10000;
    stalled.chunkDelayMs = 150;
    return stalled;
}

void TestDownloader::initTestCase()
{
    Q_INIT_RESOURCE(updater);
    QVERIFY(m_scratch.isValid());
    QVERIFY(HttpsTestServer::trustTestCa());
    m_tempLocation = QStandardPaths::writableLocation(QStandardPaths::TempLocation);
    m_zip = QStandardPaths::findExecutable("zip");
    QVERIFY2(!m_zip.isEmpty(), "zip builds the test packages");
}

void TestDownloader::init()
{
    if (!m_server.isListening())
        QVERIFY2(m_server.start(), qPrintable(m_server.errorString()));
    m_server.clearResponses();
    m_server.clearRequests();
    QFile::remove(m_tempLocation + "/VelmoraUpdate.zip");
    QDir(m_tempLocation + "/VelmoraExtract").removeRecursively();
}

void TestDownloader::cleanup()
{
    qunsetenv("VELMORA_DEFAULT_LANGUAGE");
    qunsetenv("BASH_ENV");
}

QByteArray TestDownloader::makeZip(const QStringList &layout)
{
    QTemporaryDir staging;
    for (const QString &entry : layout) {
        QDir().mkpath(QFileInfo(staging.filePath(entry)).absolutePath());
        QFile file(staging.filePath(entry));
        if (!file.open(QIODevice::WriteOnly))
            return {};
        file.write("content of " + entry.toUtf8());
    }
    const QString archive = m_scratch.filePath("package.zip");
    QFile::remove(archive);
    QProcess zip;
    zip.setWorkingDirectory(staging.path());
    zip.start(m_zip, {"-r", "-q", archive, "."});
    if (!zip.waitForFinished(30000) || zip.exitCode() != 0)
        return {};
    QFile file(archive);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Once the download is under way the server goes down, taking the open
// connection with it; init() brings it back on a new port.
void TestDownloader::dropIfStalled(Downloader *d, const ScriptedResponse &response)
{
    if (response.delivery != ScriptedResponse::Delivery::StallMidBody)
        return;
    QTRY_COMPARE_WITH_TIMEOUT(d->phase(), 1, 10000);
    m_server.stop();
}

void TestDownloader::refusesBeforeAnyRequest_data()
{
    QTest::addColumn<QString>("scheme");
    QTest::addColumn<QString>("digest");
    QTest::addColumn<bool>("packageIsFolder");
    QTest::addColumn<QString>("key");

    QTest::newRow("plain http") << "http" << anyDigest << false << "upd_insecure_url_keep";
    QTest::newRow("upper-case scheme") << "HTTPS" << anyDigest << false << "upd_insecure_url_keep";
    QTest::newRow("blank before the scheme") << " https" << anyDigest << false << "upd_insecure_url_keep";
    QTest::newRow("63-character digest") << "https" << QString(63, 'a') << false << "upd_sha_missing_keep";
    QTest::newRow("65-character digest") << "https" << QString(65, 'a') << false << "upd_sha_missing_keep";
    QTest::newRow("blank digest") << "https" << QString("   ") << false << "upd_sha_missing_keep";
    // Root ignores permission bits, but nobody can open a folder as a file.
    QTest::newRow("package path is a folder") << "https" << anyDigest << true << "upd_file_create_failed";
}

void TestDownloader::refusesBeforeAnyRequest()
{
    QFETCH(QString, scheme);
    QFETCH(QString, digest);
    QFETCH(bool, packageIsFolder);
    QFETCH(QString, key);
    m_server.setResponse("/pkg.zip", ScriptedResponse::ok("payload"));

    const QByteArray savedTmpdir = qgetenv("TMPDIR");
    const QString blocked = m_scratch.filePath("blocked");
    if (packageIsFolder) {
        QVERIFY(QDir().mkpath(blocked + "/VelmoraUpdate.zip"));
        qputenv("TMPDIR", QFile::encodeName(blocked));
    }
    const QString url = scheme + m_server.url("/pkg.zip").toString().mid(5);
    Downloader d("2.0.0", url, digest, false);
    qputenv("TMPDIR", savedTmpdir);

    const QString package = (packageIsFolder ? blocked : m_tempLocation) + "/VelmoraUpdate.zip";
    QCOMPARE(d.packageFilePath(), package);
    QCOMPARE(d.status(), translate(key.toLatin1().constData()).arg(package));
    QCOMPARE(d.phase(), -1);
    QVERIFY(d.hasError());
    QVERIFY(d.isFinished());
    QVERIFY(!QFileInfo(package).isFile());
    QSignalSpy requests(&m_server, &HttpsTestServer::requestReceived);
    QVERIFY(!requests.wait(300));

    // The owner can still end the run, and nothing else changes.
    PropertyTrail trail(&d);
    d.cancel();
    d.close();
    QCOMPARE(trail.tokens(), (QStringList{"done", "done"}));
    QCOMPARE(QFileInfo(package).isDir(), packageIsFolder);
}

void TestDownloader::reportsProgress_data()
{
    QTest::addColumn<QString>("language");
    QTest::addColumn<qint64>("size");
    QTest::addColumn<qint64>("chunk");
    QTest::addColumn<bool>("sized");
    QTest::addColumn<QList<int>>("mustShow");
    QTest::addColumn<QString>("finalStatus");

    const qint64 mib = 1024 * 1024;
    QTest::newRow("English") << "en" << 3 * mib << mib / 2 << true << QList<int>{100} << "3.0 MB / 3.0 MB";
    QTest::newRow("Turkish") << "tr" << 3 * mib << mib / 2 << true << QList<int>{100} << "3,0 MB / 3,0 MB";
    QTest::newRow("Italian") << "it" << 3 * mib << mib / 2 << true << QList<int>{100} << "3,0 MB / 3,0 MB";
    // Chunks of 333 bytes a pause apart: 666 and 999 of 1000 truncate.
    QTest::newRow("percent truncated") << "en" << qint64(1000) << qint64(333) << true << QList<int>{66, 99, 100}
                                       << "0.0 MB / 0.0 MB";
    // Qt closes an unsized transfer with one report of received == total.
    QTest::newRow("no length") << "en" << 3 * mib << mib / 2 << false << QList<int>{} << "3.0 MB / 3.0 MB";
}

void TestDownloader::reportsProgress()
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
    m_server.setResponse("/pkg.zip", slow);
    // A wrong digest ends the run right after the download.
    Downloader d("2.0.0", m_server.url("/pkg.zip").toString(), anyDigest, false);
    PropertyTrail trail(&d);
    QTRY_VERIFY_WITH_TIMEOUT(d.isFinished(), 30000);

    QList<int> shown;
    QStringList statuses;
    const QRegularExpression figures(QString("^(\\d+)\\%1(\\d) MB / \\d+\\%1\\d MB$").arg(language == "en" ? '.' : ','));
    const QRegularExpression unsized("^Downloading \\d+\\.\\d MB\\.\\.\\.$");
    for (const PropertyTrail::Event &e : std::as_const(trail.events)) {
        if (e.phase != 1)
            continue;
        if (e.name == "progress")
            shown << e.progress;
        if (e.name != "status")
            continue;
        statuses << e.status;
        if (!sized && e.status != finalStatus) {
            QVERIFY2(unsized.match(e.status).hasMatch(), qPrintable(e.status));
            QCOMPARE(e.progress, 0);
            continue;
        }
        const QRegularExpressionMatch m = figures.match(e.status);
        QVERIFY2(m.hasMatch(), qPrintable(e.status));
        // The figure and the percentage agree, up to the rounding of the figure.
        const double received = (m.captured(1) + '.' + m.captured(2)).toDouble() * 1048576;
        const double tolerance = 1 + 0.05 * 1048576 * 100 / size;
        QVERIFY2(qAbs(received * 100 / size - e.progress) <= tolerance, qPrintable(e.status));
    }
    // The pauses between chunks let intermediate reports through.
    QVERIFY(qMax(shown.size(), statuses.size()) >= 3);
    QCOMPARE(statuses.last(), finalStatus);
    QVERIFY(std::is_sorted(shown.cbegin(), shown.cend()));
    for (int percent : mustShow)
        QVERIFY2(shown.contains(percent), qPrintable(QString::number(percent)));

    QCOMPARE(m_server.requests().size(), 1);
    const RecordedRequest request = m_server.requests().first();
    QCOMPARE(request.method, QByteArray("GET"));
    QCOMPARE(request.header("User-Agent"), QByteArray("Mozilla/5.0 VelmoraUpdater/1.0"));
    QCOMPARE(request.headerCount("Authorization"), 0);
}

void TestDownloader::cancelDuringDownload()
{
    m_server.setResponse("/pkg.zip", stalledBody());
    auto d = std::make_unique<Downloader>("2.0.0", m_server.url("/pkg.zip").toString(), anyDigest, false);
    QTRY_COMPARE_WITH_TIMEOUT(d->phase(), 1, 10000);
    const QString statusBefore = d->status();
    PropertyTrail trail(d.get());

    d->cancel();
    QTest::qWait(300);
    QCOMPARE(trail.tokens(), QStringList{"done"});
    QVERIFY(!QFile::exists(d->packageFilePath()));
    QVERIFY(!d->hasError());
    QVERIFY(!d->isFinished());
    QCOMPARE(d->status(), statusBefore);

    // Destroyed mid-download, a Downloader reports nothing more (no handler
    // runs on a dying object) and leaves the partial file where it is.
    d = std::make_unique<Downloader>("2.0.0", m_server.url("/pkg.zip").toString(), anyDigest, false);
    QTRY_COMPARE_WITH_TIMEOUT(d->phase(), 1, 10000);
    const QString package = d->packageFilePath();
    d.reset();
    QTest::qWait(100);
    QVERIFY(QFile::exists(package));
}

void TestDownloader::postStateQueuesToTheObjectsThread()
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
    QVERIFY(trail.events.isEmpty());
    QTRY_COMPARE(trail.tokens(), (QStringList{"hasError", "hasError", "status=upd_custom", "phase=3"}));
    QCOMPARE(d.progress(), 0);
}

void TestDownloader::followsStateTable_data()
{
    QTest::addColumn<QString>("scenario");
    QTest::addColumn<QStringList>("expected");
    QTest::addColumn<QString>("mentions"); // part of the network layer's error text

    const QStringList verifying{"download", "phase=2", "status=upd_extracting", "progress=0", "status=upd_verifying"};
    const QStringList failed{"hasError", "phase=-1"};
    const QStringList handedOver = verifying + QStringList{"phase=3", "status=upd_preparing", "status=upd_applying_restart"};
    // Qt ends even an error reply with a report of received == total.
    const QStringList downloadFailed = QStringList{"download"} + failed + QStringList{"status=upd_download_error", "isFinished"};

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

void TestDownloader::followsStateTable()
{
    QFETCH(QString, scenario);
    QFETCH(QStringList, expected);
    QFETCH(QString, mentions);

    QByteArray package = makeZip({"Velmora.app/Contents/MacOS/Velmora", "Velmora.app/Contents/Info.plist"});
    QVERIFY(!package.isEmpty());
    // Blanks and upper case in the release record's digest do not matter.
    QString digest = sha256Of(package).toUpper() + "  ";
    if (scenario == "mismatch")
        digest = anyDigest;
    if (scenario == "corrupt")
        package = "PK\003\004 not really a zip archive";
    if (scenario == "no bundle")
        package = makeZip({"Payload/readme.txt"});
    if (scenario == "corrupt" || scenario == "no bundle")
        digest = sha256Of(package);

    ScriptedResponse response = ScriptedResponse::ok(package);
    if (scenario == "404")
        response = ScriptedResponse::error(404);
    if (scenario == "dropped")
        response = stalledBody();
    if (scenario == "insecure redirect")
        response = ScriptedResponse::redirect("http://127.0.0.1:9/pkg.zip");
    m_server.setResponse("/pkg.zip", response);

    // The swap script must not run here: bash reads BASH_ENV first, and that
    // file ends it at once, reporting success to the interactive watch.
    const QString bashEnv = m_scratch.filePath("bash_env");
    QFile env(bashEnv);
    QVERIFY(env.open(QIODevice::WriteOnly));
    env.write("printf 'ok\\n' > \"$TMPDIR/velmora_update.status\"\nexit 0\n");
    env.close();
    qputenv("BASH_ENV", QFile::encodeName(bashEnv));

    Downloader d("2.0.0", m_server.url("/pkg.zip").toString(), digest, false);
    d.autoMode = scenario == "auto";
    d.statusPollIntervalMs = 20;
    QCOMPARE(d.phase(), 0);
    QCOMPARE(d.status(), translate("upd_connecting"));
    QCOMPARE(d.progress(), 0);
    QVERIFY(!d.hasError());
    QVERIFY(!d.isFinished());

    PropertyTrail trail(&d);
    dropIfStalled(&d, response);
    QTRY_VERIFY_WITH_TIMEOUT(d.isFinished(), 30000);
    QTest::qWait(100); // nothing may follow isFinished
    const QStringList tokens = trail.tokens();
    QVERIFY2(tokens == expected, qPrintable("\n   got: " + tokens.join(' ') + "\nwanted: " + expected.join(' ')));
    QVERIFY2(d.status().contains(mentions), qPrintable(d.status()));
    QVERIFY(!QFile::exists(d.packageFilePath()));
    QCOMPARE(m_server.requests().size(), 1);
}

QTEST_MAIN(TestDownloader)
#include "tst_downloader.moc"
