// One update end to end: 1.0.0 installed, 2.0.0 on a local HTTPS server, the
// real download, verification, extraction, hand-over and swap script into the
// sandbox's install folder, with the shared fake macOS tools (PlistBuddy at
// its own path, in a private mount namespace). Every phase is shown in
// order, and nothing of the run is left behind.

#include "downloader.h"
#include "httpstestserver.h"
#include "localisation.h"
#include "sandbox.h"
#include "testfiles.h"

#include <QTemporaryDir>
#include <QTest>

class TestFullUpdate : public QObject
{
    Q_OBJECT

private slots:
    void updatesTheInstalledBundle()
    {
        QVERIFY2(QFileInfo("/usr/libexec/PlistBuddy").isExecutable(), "run under tests/fakes/private-mounts");
        const QString temp = sandboxPath() + "/tmp", bundle = sandboxPath() + "/Applications/Velmora.app";
        qputenv("PATH", VELMORA_TEST_SOURCE_DIR "/fakes/bin:" + qgetenv("PATH"));
        qputenv("FAKE_STATE", QFile::encodeName(temp));
        QTemporaryDir staging;
        QVERIFY(writeBundle(bundle, "1.0.0") && writeBundle(staging.filePath("Velmora.app"), "2.0.0"));
        const QByteArray package = zipFolder(staging.path());
        HttpsTestServer server;
        QVERIFY(HttpsTestServer::trustTestCa() && server.start());
        server.setResponse("/VelmoraUpdate.zip", ScriptedResponse::ok(package, "application/zip"));

        // The digest as a release record may give it: capitals, a blank.
        Downloader d("2.0.0", server.url("/VelmoraUpdate.zip").toString(), sha256Hex(package).toUpper() + ' ', false);
        d.statusPollIntervalMs = 50;
        QList<int> phases;
        connect(&d, &Downloader::phaseChanged, this, [&] { phases << d.phase(); });
        QTRY_VERIFY_WITH_TIMEOUT(d.isFinished(), 60000);
        QCOMPARE(phases, (QList<int>{1, 2, 3, 4}));
        QCOMPARE(d.status(), translate("upd_install_done"));
        QCOMPARE(readFile(bundle + "/Contents/Resources/version"), QByteArray("2.0.0"));
        // The swap script removes itself, its staged copy and the extraction.
        QTRY_VERIFY_WITH_TIMEOUT(!QFile::exists(temp + "/velmora_apply_update.sh"), 20000);
        QVERIFY(!QFile::exists(temp + "/VelmoraUpdate.zip") && QDir(temp + "/VelmoraExtract").isEmpty());
    }
};

VELMORA_SANDBOX_TEST_MAIN(TestFullUpdate)
#include "tst_fullupdate.moc"
