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
#include <QTest>

#include <thread>

// phase, hasError, isFinished, progress and status, as one text.
static QString state(const Downloader &d)
{
    return QStringLiteral("%1 %2 %3 %4 ").arg(d.phase()).arg(d.hasError()).arg(d.isFinished()).arg(d.progress())
        + d.status();
}

static const QString anyDigest(64, 'a');

class TestDownloader : public QObject
{
    Q_OBJECT

    HttpsTestServer m_server;
    QString m_temp = QStandardPaths::writableLocation(QStandardPaths::TempLocation);
    QString m_package = m_temp + "/VelmoraUpdate.zip";
    QUrl m_opened;

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

    void downloadFails_data()
    {
        QTest::addColumn<ScriptedResponse>("response");
        QTest::addColumn<QString>("mentions"); // in the error text
        QTest::addColumn<qint64>("limit");
        QTest::newRow("HTTP 404") << ScriptedResponse::error(404) << "Not Found" << qint64(0);
        QTest::newRow("redirect from HTTPS to HTTP")
            << ScriptedResponse::redirect("http://127.0.0.1:9/x.zip") << "redirect" << qint64(0);
        // An answer without a length that goes on past the limit: the updater
        // stops it, and that is an error, not the user's cancel.
        ScriptedResponse endless = ScriptedResponse::ok(QByteArray(3 << 20, 'x'));
        endless.contentLength = false;
        QTest::newRow("endless answer past the size limit")
            << endless << translate("upd_package_too_large").arg(1) << qint64(1 << 20);
    }

    void downloadFails()
    {
        QFETCH(ScriptedResponse, response);
        QFETCH(QString, mentions);
        QFETCH(qint64, limit);
        HttpsTestServer server;
        QVERIFY(server.start());
        server.setResponse("/VelmoraUpdate.zip", response);
        Downloader d("2.0.0", server.url("/VelmoraUpdate.zip").toString(), anyDigest, false);
        if (limit)
            d.maxPackageBytes = limit;
        QTRY_VERIFY_WITH_TIMEOUT(d.isFinished(), 15000);
        const QString error = translate("upd_download_error").arg("");
        QVERIFY2(::state(d).startsWith("-1 1 1 ") && d.status().startsWith(error) && d.status().contains(mentions),
                 qPrintable(::state(d)));
        QVERIFY(!QFile::exists(m_package));
        // The package host sees one plain GET: no key of the release service.
        QCOMPARE(server.requests().size(), 1);
        const RecordedRequest request = server.requests().first();
        QCOMPARE(request.method + ' ' + request.target, QByteArray("GET /VelmoraUpdate.zip"));
        QCOMPARE(request.header("User-Agent"), QByteArray("Mozilla/5.0 VelmoraUpdater/1.0"));
        QCOMPARE(request.header("apikey") + request.header("Authorization"), QByteArray());
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
