#include "downloaddialog.h"
#include "downloader.h"
#include "downloaderaccess.h"
#include "localisation.h"
#include "testfiles.h"
#include "warnings.h"

#include <QQmlError>
#include <QQuickItem>
#include <QQuickView>
#include <QSettings>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QtTest>

namespace {

const QString validDigest(64, QLatin1Char('a'));
const QString refusedUrl = QStringLiteral("http://127.0.0.1:9/p.zip");

// An HTTPS address on 127.0.0.1 where nothing listens: the download starts,
// stays pending until the event loop runs, then fails.
QString closedLocalUrl()
{
    QTcpServer probe;
    return probe.listen(QHostAddress::LocalHost, 0)
        ? QStringLiteral("https://127.0.0.1:%1/VelmoraUpdate.zip").arg(probe.serverPort())
        : QString();
}

QString textOf(DownloadDialog &dialog, const char *name)
{
    return dialog.window()->rootObject()->findChild<QQuickItem *>(name)->property("text").toString();
}

} // namespace

class TestDownloadDialog : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        Q_INIT_RESOURCE(updater);
        recordWarnings();
    }

    void init()
    {
        recordedWarnings().clear();
        QSettings("VelmoraLabs", "Velmora").remove("ui/language");
    }

    void reportsABrokenViewAndCarriesOn()
    {
        QTemporaryDir dir;
        // Each missing module is reported twice by the engine.
        QVERIFY(writeFile(dir.filePath("download.qml"), "import QtQuick 2.15\nimport NoSuchModule 1.0\n"
                                                        "import AnotherMissing 2.0\nRectangle {}\n"));
        const QUrl source = QUrl::fromLocalFile(dir.filePath("download.qml"));
        QSettings("VelmoraLabs", "Velmora").setValue("ui/language", "tr");
        DownloadDialog dialog("2.0.0", refusedUrl, validDigest, false, nullptr, source);
        QQuickView *view = dialog.window();

        QStringList expected;
        for (const QQmlError &error : view->errors())
            expected << "[DownloadDialog] QML error: " + error.toString();
        QCOMPARE(expected.size(), 4);
        expected << "[DownloadDialog] Source URL: " + source.toString();
        QCOMPARE(recordedWarnings().filter("[DownloadDialog]"), expected);

        QVERIFY(!view->rootObject());
        QCOMPARE(view->title(), QStringLiteral("Velmora Güncellemesi"));
        QCOMPARE(view->size(), QSize(460, 300));
        QCOMPARE(view->minimumSize(), QSize(460, 300));
        QCOMPARE(view->maximumSize(), QSize(460, 300));
    }

    void showsARefusalWithoutRelayingIt()
    {
        DownloadDialog dialog("2.0.0", refusedUrl, validDigest, false);
        QSignalSpy failed(&dialog, &DownloadDialog::downloadFailed);
        QSignalSpy complete(&dialog, &DownloadDialog::downloadComplete);
        QSignalSpy finished(&dialog, &DownloadDialog::finished);
        dialog.show();
        QVERIFY(QTest::qWaitForWindowExposed(dialog.window()));
        QTest::qWait(50);

        QVERIFY2(recordedWarnings().isEmpty(), qPrintable(recordedWarnings().join(" | ")));
        // The refusal happened inside the Downloader's constructor, before the
        // dialog listened: the view shows it, the signals stay quiet.
        QCOMPARE(textOf(dialog, "title"), QStringLiteral("Installation Failed"));
        QCOMPARE(textOf(dialog, "statusText"), translate("upd_insecure_url_keep"));
        QCOMPARE(failed.count() + complete.count() + finished.count(), 0);
    }

    void finishesOnDoneAndOnHiding_data()
    {
        QTest::addColumn<bool>("hide");
        QTest::newRow("the downloader is done") << false;
        QTest::newRow("the window is closed mid-download") << true;
    }

    void finishesOnDoneAndOnHiding()
    {
        QFETCH(bool, hide);
        DownloadDialog dialog("2.0.0", closedLocalUrl(), validDigest, false);
        QSignalSpy finished(&dialog, &DownloadDialog::finished);
        QSignalSpy done(dialog.downloaderObject(), &Downloader::done);
        dialog.show();
        QVERIFY(QTest::qWaitForWindowExposed(dialog.window()));
        QCOMPARE(finished.count(), 0);

        if (hide)
            dialog.window()->close();
        else
            emit dialog.downloaderObject()->done();
        QCOMPARE(finished.count(), 1);
        // Closing the window ends the run; it does not cancel the download.
        QCOMPARE(done.count(), hide ? 0 : 1);
    }

    void relaysTheEndOfTheRun_data()
    {
        QTest::addColumn<QString>("url");
        QTest::addColumn<bool>("succeeded");
        QTest::addColumn<int>("complete");
        QTest::addColumn<int>("failed");

        QTest::newRow("refused run announced as finished") << refusedUrl << false << 0 << 1;
        QTest::newRow("announcement while still running") << closedLocalUrl() << false << 0 << 0;
        QTest::newRow("finished without an error") << closedLocalUrl() << true << 1 << 0;
    }

    void relaysTheEndOfTheRun()
    {
        QFETCH(QString, url);
        QFETCH(bool, succeeded);
        QFETCH(int, complete);
        QFETCH(int, failed);

        DownloadDialog dialog("2.0.0", url, validDigest, false);
        Downloader *downloader = dialog.downloaderObject();
        QSignalSpy completeSpy(&dialog, &DownloadDialog::downloadComplete);
        QSignalSpy failedSpy(&dialog, &DownloadDialog::downloadFailed);

        // No event loop runs here, so the pending download cannot interfere.
        if (succeeded)
            finishWithoutError(downloader);
        else
            emit downloader->isFinishedChanged();

        QCOMPARE(completeSpy.count(), complete);
        QCOMPARE(failedSpy.count(), failed);
        if (failed)
            QCOMPARE(failedSpy.first().first().toString(), downloader->status());
    }

    void relaysProgressWithTheCurrentStatus()
    {
        DownloadDialog dialog("2.0.0", refusedUrl, validDigest, false);
        QSignalSpy progress(&dialog, &DownloadDialog::progressChanged);
        emit dialog.downloaderObject()->progressChanged();
        QCOMPARE(progress.count(), 1);
        QCOMPARE(progress.first().at(0).toInt(), 0);
        QCOMPARE(progress.first().at(1).toString(), translate("upd_insecure_url_keep"));
    }
};

QTEST_MAIN(TestDownloadDialog)
#include "tst_downloaddialog.moc"
