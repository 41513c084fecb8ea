// The Downloader on the GUI thread, against a local HTTPS server: what it
// refuses before any request, the progress it shows (the 100 ms throttle, the
// final report, an unknown length, the decimal comma), the one request it
// sends, failed downloads, cancel and close at every stage (a running install
// job is not stopped), postState's rules, and the two buttons that open the
// install place.

#include "downloader.h"
#include "httpstestserver.h"
#include "localisation.h"
#include "sandbox.h"
#include "testfiles.h"

#include <QDesktopServices>
#include <QNetworkReply>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <memory>

#include <thread>

// phase, hasError, isFinished, progress and status, as one text.
static QString state(const Downloader &d)
{
    return QStringLiteral("%1 %2 %3 %4 ").arg(d.phase()).arg(d.hasError()).arg(d.isFinished()).arg(d.progress())
        + d.status();
}

static const QString anyDigest(64, 'a');

// What a package request meets.
enum Fault {
    Proper,
    Cut,
    Stall,
    IgnoreRange,
    ShiftedRange,
    GarbledRange,
    Unsatisfiable,
    Replaced,
    ReplacedQuietly,
    Missing,
    Redirect,
    Endless
};
struct Attempt
{
    Fault fault = Proper;
    int percent = 0; // where in the package a cut or a stall comes
};
Q_DECLARE_METATYPE(QList<Attempt>)

// The shipped rules, on a test's time scale. A short stall bound is only
// for the rows about stalls: a loaded machine is slow to answer at all.
static TransferPolicy quickPolicy(qint64 maxBytes, bool shortStalls = false)
{
    return {maxBytes, shortStalls ? 1000 : 10000, {20, 20, 20, 20}};
}

// A zip of noise, which does not compress: its size is the noise's.
static QByteArray noiseZip(uint seed)
{
    QTemporaryDir dir;
    QByteArray noise(1024 * 1024 + 4097, Qt::Uninitialized);
    std::generate(noise.begin(), noise.end(),
                  [n = seed]() mutable { return char((n = n * 1103515245 + 12345) >> 16); });
    return writeFile(dir.filePath("payload.bin"), noise) ? zipFolder(dir.path()) : QByteArray();
}

class TestDownloader : public QObject
{
    Q_OBJECT

    HttpsTestServer m_server;
    QString m_temp = QStandardPaths::writableLocation(QStandardPaths::TempLocation);
    QString m_package = m_temp + "/VelmoraUpdate.zip";
    QUrl m_opened;
    QByteArray m_packages[2] = {noiseZip(1), noiseZip(2)};

public slots:
    void openUrl(const QUrl &url) { m_opened = url; }

private slots:
    void initTestCase()
    {
        QVERIFY(HttpsTestServer::trustTestCa() && m_server.start());
        m_server.setResponse("/silent.zip", ScriptedResponse::neverAnswer());
        // A test's own tools first, then the shared fakes (open records what it is asked to start).
        qputenv("PATH", QFile::encodeName(m_temp + "/bin:" VELMORA_TEST_SOURCE_DIR "/fakes/bin:") + qgetenv("PATH"));
        qputenv("FAKE_LOG", QFile::encodeName(m_temp + "/fake.log"));
        qputenv("FAKE_STATE", QFile::encodeName(m_temp));
        QVERIFY(!m_packages[0].isEmpty() && m_packages[0].size() == m_packages[1].size());
    }

    void startsOrRefuses_data()
    {
        QTest::addColumn<QString>("url");
        QTest::addColumn<QString>("digest");
        QTest::addColumn<QString>("state"); // phase, hasError, isFinished, progress, then the status's key

        const QString url = m_server.url("/silent.zip").toString();
        QTest::newRow("plain http") << "http" + url.mid(5) << anyDigest << "-1 1 1 0 upd_insecure_url_keep";
        QTest::newRow("upper-case scheme") << "HTTPS" + url.mid(5) << anyDigest << "-1 1 1 0 upd_insecure_url_keep";
        QTest::newRow("63-digit digest") << url << QString(63, 'a') << "-1 1 1 0 upd_sha_missing_keep";
        QTest::newRow("65-digit digest") << url << QString(65, 'a') << "-1 1 1 0 upd_sha_missing_keep";
        QTest::newRow("digest with blanks and capitals") << url << " " + anyDigest.toUpper() + "\t"
                                                         << "0 0 0 0 upd_connecting";
    }

    void startsOrRefuses()
    {
        QFETCH(QString, url);
        QFETCH(QString, digest);
        QFETCH(QString, state);
        const bool started = state.startsWith('0');
        Downloader d("2.0.0", url, digest, false);
        QCOMPARE(::state(d), state.section(' ', 0, 3) + ' ' + translate(state.section(' ', 4).toLatin1().constData()));
        // A request under way reads into a bounded buffer.
        const QNetworkReply *reply = d.findChild<QNetworkReply *>();
        QCOMPARE(reply && reply->readBufferSize() > 0, started);
        QCOMPARE(QFileInfo(m_package).isFile(), started);

        // Both end the run at once: close changes nothing, cancel removes the
        // package and shows no error.
        QSignalSpy done(&d, &Downloader::done), error(&d, &Downloader::hasErrorChanged);
        const QString before = ::state(d);
        d.close();
        QCOMPARE(::state(d) + QString::number(done.count()), before + "1");
        d.cancel();
        QCOMPARE(done.count(), 2);
        QVERIFY(error.isEmpty() && !QFile::exists(m_package));

        // postState, queued from any thread: an error is announced every
        // time, -1000 keeps the phase, an empty message the status, and a
        // value already shown is not announced again.
        QSignalSpy status(&d, &Downloader::statusChanged), phase(&d, &Downloader::phaseChanged);
        std::thread([&d] {
            d.postState({}, -1000, true);
            d.postState("upd_custom", 3, true);
            d.postState("upd_custom", 3, false);
        }).join();
        QVERIFY(error.isEmpty());
        QTRY_COMPARE(error.count(), 2);
        QCOMPARE(status.count() + phase.count(), 2);
        QCOMPARE(d.status() + ' ' + QString::number(d.phase()), "upd_custom 3");
    }

    void reportsProgress_data()
    {
        QTest::addColumn<QString>("language");
        QTest::addColumn<int>("waitMs"); // from the request to the first of two reports
        QTest::addColumn<QList<qint64>>("reports"); // received, received, total (0: unknown)
        QTest::addColumn<QString>("shown"); // the progress values, then the status

        const qint64 mib = 1 << 20, half = 3 * mib / 2;
        QTest::newRow("English") << "en" << 150 << QList<qint64>{half, 2 * mib, 3 * mib} << "50 1.5 MB / 3.0 MB";
        QTest::newRow("Turkish") << "tr" << 150 << QList<qint64>{half, 2 * mib, 3 * mib} << "50 1,5 MB / 3,0 MB";
        QTest::newRow("truncated; the final report at once")
            << "en" << 150 << QList<qint64>{999, 1000, 1000} << "99 100 0.0 MB / 0.0 MB";
        QTest::newRow("unknown length, Italian")
            << "it" << 150 << QList<qint64>{half, 2 * mib, 0} << "Download di 1,5 MB in corso...";
        QTest::newRow("within 100 ms only the final report")
            << "en" << 0 << QList<qint64>{half, 3 * mib, 3 * mib} << "100 3.0 MB / 3.0 MB";
    }

    // The server never answers: the only reports are the test's own, and so
    // is their timing.
    void reportsProgress()
    {
        QFETCH(QString, language);
        QFETCH(int, waitMs);
        QFETCH(QList<qint64>, reports);
        QFETCH(QString, shown);
        qputenv("VELMORA_DEFAULT_LANGUAGE", language.toLatin1());
        Downloader d("2.0.0", m_server.url("/silent.zip").toString(), anyDigest, false);
        QString seen;
        connect(&d, &Downloader::progressChanged, this, [&] { seen += QString::number(d.progress()) + ' '; });
        QNetworkReply *reply = d.findChild<QNetworkReply *>();
        QTest::qWait(waitMs);
        emit reply->downloadProgress(reports[0], reports[2]);
        emit reply->downloadProgress(reports[1], reports[2]);
        qunsetenv("VELMORA_DEFAULT_LANGUAGE");
        QCOMPARE(d.phase(), 1);
        QCOMPARE(seen + d.status(), shown);
    }

    // One package request after another meets the next of these; past the
    // list, a proper file server. The package is a zip without a bundle, so
    // a download that completes and verifies ends in "not found".
    void survivesMisbehavingServers_data()
    {
        QTest::addColumn<QList<Attempt>>("attempts");
        QTest::addColumn<int>("digestOf"); // the package the record names: 0 the first, 1 its replacement, -1 neither
        QTest::addColumn<QString>("outcome"); // the status's key, then what it mentions
        QTest::addColumn<int>("sentPercent"); // body bytes the server sent, in percent of the package; -1: any

        const QString verified = "upd_app_not_found", error = "upd_download_error";
        const auto row = [](const char *name, QList<Attempt> attempts, int digestOf, const QString &outcome,
                            int sentPercent) { QTest::newRow(name) << attempts << digestOf << outcome << sentPercent; };
        row("a cut at 40 % costs the other 60 %", {{Cut, 40}}, 0, verified, 100);
        row("a stall at 30 % is tried again", {{Stall, 30}}, 0, verified, 100);
        row("a server that ignores ranges sends it whole", {{Cut, 40}, {IgnoreRange}}, 0, verified, 140);
        row("a file replaced on the server comes whole", {{Cut, 40}, {Replaced}}, 1, verified, 140);
        row("a range that starts elsewhere: once more from zero", {{Cut, 40}, {ShiftedRange}}, 0, verified, -1);
        row("an unreadable Content-Range: once more from zero", {{Cut, 40}, {GarbledRange}}, 0, verified, -1);
        row("416: once more from zero", {{Cut, 40}, {Unsatisfiable}}, 0, verified, 140);
        row("ranges wrong twice", {{Cut, 40}, {ShiftedRange}, {ShiftedRange}}, 0, error, -1);
        row("a spliced file that fails its digest comes again whole", {{Cut, 40}, {ReplacedQuietly}}, 1, verified, 200);
        row("a second mismatch is the verification failure", {{Cut, 40}}, -1, "upd_verify_failed", 200);
        row("attempts spent: interrupted, the part kept", QList<Attempt>(5, {Stall, 10}), 0,
            "upd_download_interrupted " + translate("upd_download_stalled").arg(1), 10);
        row("HTTP 404 on the retry", {{Cut, 40}, {Missing}}, 0, error + " Not Found", -1);
        row("a redirect from HTTPS to HTTP", {{Redirect}}, 0, error + " redirect", 0);
        // An answer without a length that goes on past the limit: the updater
        // stops it, and that is an error, not the user's cancel.
        row("endless past the size limit", {{Endless}}, 0, error + ' ' + translate("upd_package_too_large").arg(2), -1);
    }

    void survivesMisbehavingServers()
    {
        QFETCH(QList<Attempt>, attempts);
        QFETCH(int, digestOf);
        QFETCH(QString, outcome);
        QFETCH(int, sentPercent);
        HttpsTestServer server;
        QVERIFY(server.start());
        const qint64 size = m_packages[0].size();
        QByteArray body = m_packages[0], etag = "\"one\"";
        int served = 0;
        server.setHandler("/VelmoraUpdate.zip", [&](const RecordedRequest &request) {
            const Attempt attempt = attempts.value(served++);
            if (attempt.fault == Replaced || attempt.fault == ReplacedQuietly) {
                body = m_packages[1];
                etag = attempt.fault == Replaced ? "\"two\"" : etag;
            }
            ScriptedResponse answer = ScriptedResponse::file(request, body, etag);
            const qint64 first = body.size() - answer.body.size(), stop = size * attempt.percent / 100 - first;
            const QByteArray wrongFirst = QByteArray::number(first + 1);
            switch (attempt.fault) {
            case Cut:
                answer.cutAfter = qMax<qint64>(0, stop);
                break;
            case Stall:
                answer.stallAfter = qMax<qint64>(0, stop);
                break;
            case IgnoreRange:
                return ScriptedResponse::ok(body);
            case ShiftedRange:
                return ScriptedResponse{
                    206,
                    {{"Content-Range",
                      "bytes " + wrongFirst + "-" + QByteArray::number(size - 1) + "/" + QByteArray::number(size)}},
                    body.mid(first + 1)};
            case GarbledRange:
                answer.headers = {{"Content-Range", "bytes " + QByteArray::number(first) + "-end/all"}};
                break;
            case Unsatisfiable:
                return ScriptedResponse{416, {}, {}};
            case Missing:
                return ScriptedResponse::error(404);
            case Redirect:
                return ScriptedResponse::redirect("http://127.0.0.1:9/x.zip");
            case Endless:
                answer = ScriptedResponse::ok(QByteArray(3 * size, 'x'));
                answer.contentLength = false;
                break;
            default:
                break;
            }
            return answer;
        });
        const QString digest = digestOf < 0 ? QString(64, '0') : sha256Hex(m_packages[digestOf]);
        const bool stalls = std::any_of(attempts.cbegin(), attempts.cend(), [](Attempt a) { return a.fault == Stall; });
        Downloader d("2.0.0", server.url("/VelmoraUpdate.zip").toString(), digest, false, nullptr,
                     quickPolicy(2 * size, stalls));
        QTRY_VERIFY_WITH_TIMEOUT(d.isFinished(), 20000);

        const QString key = outcome.section(' ', 0, 0), mentions = outcome.section(' ', 1);
        QVERIFY2(::state(d).startsWith("-1 1 1 ")
                     && d.status().startsWith(translate(key.toLatin1()).section("%1", 0, 0))
                     && d.status().contains(mentions),
                 qPrintable(::state(d)));
        qint64 sent = 0;
        for (const RecordedRequest &request : server.requests()) {
            sent += request.bodySent;
            // The package host sees plain GETs: no key of the release service,
            // and never a compressed answer.
            QCOMPARE(request.method + ' ' + request.target, QByteArray("GET /VelmoraUpdate.zip"));
            QCOMPARE(request.header("User-Agent") + ' ' + request.header("Accept-Encoding"),
                     QByteArray("Mozilla/5.0 VelmoraUpdater/1.0 identity"));
            QCOMPARE(request.header("apikey") + request.header("Authorization"), QByteArray());
        }
        QVERIFY(server.requests().first().header("Range").isEmpty());
        // A byte either way for each piece the percentages cut.
        QVERIFY2(sentPercent < 0 || qAbs(sent - size * sentPercent / 100) <= 3, qPrintable(QString::number(sent)));
        // Only an interrupted download leaves its part for the next run.
        QCOMPARE(QFile::exists(m_package), key == "upd_download_interrupted");
        QFile::remove(m_package);
        QFile::remove(m_package + ".partial");
    }

    void resumesOnlyTheSameRelease_data()
    {
        QTest::addColumn<QString>("secondVersion");
        QTest::addColumn<int>("sentPercent");
        QTest::newRow("the same release continues where the last run stopped") << "2.0.0" << 100;
        QTest::newRow("another release starts afresh") << "2.0.1" << 140;
    }

    // The first run is cut at 40 % on every attempt and gives up; the second
    // meets a proper server.
    void resumesOnlyTheSameRelease()
    {
        QFETCH(QString, secondVersion);
        QFETCH(int, sentPercent);
        HttpsTestServer server;
        QVERIFY(server.start());
        const QByteArray package = m_packages[0];
        server.setHandler("/VelmoraUpdate.zip", [&](const RecordedRequest &request) {
            ScriptedResponse answer = ScriptedResponse::file(request, package, "\"one\"");
            if (server.requests().size() <= 5)
                answer.cutAfter = qMax<qint64>(0, package.size() * 4 / 10 - (package.size() - answer.body.size()));
            return answer;
        });
        const QString url = server.url("/VelmoraUpdate.zip").toString(), digest = sha256Hex(package);
        auto first
            = std::make_unique<Downloader>("2.0.0", url, digest, false, nullptr, quickPolicy(2 * package.size()));
        QTRY_VERIFY_WITH_TIMEOUT(first->isFinished(), 20000);
        QVERIFY2(first->status().startsWith(translate("upd_download_interrupted").section("%1", 0, 0)),
                 qPrintable(first->status()));
        first.reset();

        Downloader second(secondVersion, url, digest, false, nullptr, quickPolicy(2 * package.size()));
        QTRY_VERIFY_WITH_TIMEOUT(second.isFinished(), 20000);
        QCOMPARE(second.status(), translate("upd_app_not_found"));
        qint64 sent = 0;
        for (const RecordedRequest &request : server.requests())
            sent += request.bodySent;
        QVERIFY2(qAbs(sent - package.size() * sentPercent / 100) <= 3, qPrintable(QString::number(sent)));
        QCOMPARE(server.requests().at(5).header("If-Range"), QByteArray(sentPercent == 100 ? "\"one\"" : ""));
        QVERIFY(!QFile::exists(m_package) && !QFile::exists(m_package + ".partial"));
    }

    // ditto holds the job until the test lets it go, then unpacks nothing, so
    // the job ends at the hand-over. The digest comes in capitals between blanks.
    void cancelLeavesTheInstallJobRunning()
    {
        QVERIFY(writeFakeTool(m_temp + "/bin", "ditto",
                              "touch \"$4.held\"; n=0\n"
                              "while [ ! -e \"$4.go\" ] && [ $n -lt 600 ]; do /bin/sleep 0.05; n=$((n + 1)); done"));
        m_server.setResponse("/VelmoraUpdate.zip", ScriptedResponse::ok("package"));
        const QString digest = " " + sha256Hex("package").toUpper() + " ";
        Downloader d("2.0.0", m_server.url("/VelmoraUpdate.zip").toString(), digest, false);
        QList<int> phases;
        connect(&d, &Downloader::phaseChanged, this, [&] { phases << d.phase(); });
        QSignalSpy done(&d, &Downloader::done);
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(m_temp + "/VelmoraExtract.held"), 15000);

        d.cancel();
        QCOMPARE(done.count(), 1);
        QVERIFY(!QFile::exists(m_package) && writeFile(m_temp + "/VelmoraExtract.go", {}));
        QTRY_VERIFY_WITH_TIMEOUT(d.isFinished(), 15000);
        QFile::remove(m_temp + "/bin/ditto");
        QCOMPARE(d.status(), translate("upd_app_not_found"));
        QCOMPARE(phases, (QList<int>{1, 2, 3, -1}));
        QCOMPARE(done.count(), 1);
    }

    void opensTheInstallPlace()
    {
        Downloader d("2.0.0", "http://127.0.0.1:9/x.zip", anyDigest, false);
        QDesktopServices::setUrlHandler("file", this, "openUrl");
        d.openInstallDir();
        QDesktopServices::unsetUrlHandler("file");
        d.openInstalledApp();
        QCOMPARE(m_opened, QUrl::fromLocalFile(sandboxPath() + "/Applications"));
        const QByteArray bundle = QFile::encodeName(sandboxPath() + "/Applications/Velmora.app");
        QTRY_VERIFY(readFile(m_temp + "/fake.log").endsWith(" open " + bundle + '\n'));
    }
};

VELMORA_SANDBOX_TEST_MAIN(TestDownloader)
#include "tst_downloader.moc"
