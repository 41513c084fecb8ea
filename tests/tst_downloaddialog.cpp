#include "downloaddialog.h"
#include "downloader.h"
#include "localisation.h"

#include <QQmlError>
#include <QQuickItem>
#include <QQuickView>
#include <QSettings>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

namespace {

const QString validDigest(64, QLatin1Char('a'));

QStringList warnings;

void recordWarnings(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    if (message.startsWith(QLatin1String("This plugin does not support")))
        return;
    if (type != QtDebugMsg && type != QtInfoMsg)
        warnings << message;
    fprintf(stderr, "%s\n", qPrintable(message));
}

QStringList warningsStartingWith(const QString &prefix)
{
    QStringList matching;
    for (const QString &line : std::as_const(warnings)) {
        if (line.startsWith(prefix))
            matching << line;
    }
    return matching;
}

// An HTTPS address on 127.0.0.1 where nothing listens: the download starts,
// stays pending until the event loop runs, then fails with a refused connection.
QString closedLocalUrl()
{
    QTcpServer probe;
    if (!probe.listen(QHostAddress::LocalHost, 0))
        return {};
    const quint16 port = probe.serverPort();
    probe.close();
    return QStringLiteral("https://127.0.0.1:%1/VelmoraUpdate.zip").arg(port);
}

// The one way to end a Downloader without an error is a complete
// installation, swap script included. To see the dialog relay that end, the
// test calls the Downloader's private setter; an explicit instantiation may
// name a private member.
struct IsFinishedSetter
{
};
auto privateMember(IsFinishedSetter);
template<auto Member, typename Tag>
struct ExposePrivate
{
    friend auto privateMember(Tag) { return Member; }
};
template struct ExposePrivate<&Downloader::setIsFinished, IsFinishedSetter>;

QQuickItem *findItem(QQuickItem *item, const QString &name)
{
    if (!item || item->objectName() == name)
        return item;
    const QList<QQuickItem *> children = item->childItems();
    for (QQuickItem *child : children) {
        if (QQuickItem *found = findItem(child, name))
            return found;
    }
    return nullptr;
}

} // namespace

class TestDownloadDialog : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void reportsABrokenViewAndCarriesOn_data();
    void reportsABrokenViewAndCarriesOn();
    void showsARefusalWithoutRelayingIt();
    void titleFollowsTheLanguage_data();
    void titleFollowsTheLanguage();
    void finishesOnDoneAndOnHiding_data();
    void finishesOnDoneAndOnHiding();
    void relaysTheEndOfTheRun_data();
    void relaysTheEndOfTheRun();
    void relaysAFailedDownloadWithItsStatus();
    void relaysProgressWithTheCurrentStatus();

private:
    static void verifyFixedWindow(QQuickView *view);
};

void TestDownloadDialog::initTestCase()
{
    Q_INIT_RESOURCE(updater);
    qInstallMessageHandler(recordWarnings);
}

void TestDownloadDialog::init()
{
    warnings.clear();
}

void TestDownloadDialog::cleanup()
{
    QSettings(QStringLiteral("VelmoraLabs"), QStringLiteral("Velmora")).remove(QStringLiteral("ui/language"));
}

void TestDownloadDialog::verifyFixedWindow(QQuickView *view)
{
    QCOMPARE(view->size(), QSize(460, 300));
    QCOMPARE(view->minimumSize(), QSize(460, 300));
    QCOMPARE(view->maximumSize(), QSize(460, 300));
}

void TestDownloadDialog::reportsABrokenViewAndCarriesOn_data()
{
    QTest::addColumn<QByteArray>("qml");
    QTest::addColumn<int>("errorCount");

    QTest::newRow("missing file") << QByteArray() << 1;
    QTest::newRow("syntax error") << QByteArray("import QtQuick 2.15\nRectangle {\n") << 1;
    // Each missing module is reported twice by the engine.
    QTest::newRow("two missing modules")
        << QByteArray("import QtQuick 2.15\nimport NoSuchModule 1.0\nimport AnotherMissing 2.0\nRectangle {}\n") << 4;
}

void TestDownloadDialog::reportsABrokenViewAndCarriesOn()
{
    QFETCH(QByteArray, qml);
    QFETCH(int, errorCount);

    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString path = dir.filePath(QStringLiteral("download.qml"));
    if (!qml.isNull()) {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(qml);
    }
    const QUrl source = QUrl::fromLocalFile(path);

    DownloadDialog dialog(QStringLiteral("2.0.0"), QStringLiteral("http://example.invalid/p.zip"), validDigest,
                          false, nullptr, source);
    QQuickView *view = dialog.window();

    const QList<QQmlError> errors = view->errors();
    QCOMPARE(errors.size(), errorCount);
    QStringList expected;
    for (const QQmlError &error : errors)
        expected << QStringLiteral("[DownloadDialog] QML error: ") + error.toString();
    QCOMPARE(warningsStartingWith(QStringLiteral("[DownloadDialog] QML error:")), expected);
    QCOMPARE(warningsStartingWith(QStringLiteral("[DownloadDialog] Source URL:")),
             QStringList{QStringLiteral("[DownloadDialog] Source URL: ") + source.toString()});
    // The source line closes the report.
    QCOMPARE(warningsStartingWith(QStringLiteral("[DownloadDialog]")).last(),
             QStringLiteral("[DownloadDialog] Source URL: ") + source.toString());

    QVERIFY(!view->rootObject());
    QCOMPARE(view->title(), QStringLiteral("Velmora Update"));
    verifyFixedWindow(view);

    // The empty window still ends the run when it goes away.
    QSignalSpy finished(&dialog, &DownloadDialog::finished);
    dialog.show();
    QVERIFY(QTest::qWaitForWindowExposed(view));
    view->hide();
    QCOMPARE(finished.count(), 1);
}

void TestDownloadDialog::showsARefusalWithoutRelayingIt()
{
    DownloadDialog dialog(QStringLiteral("2.0.0"), QStringLiteral("http://127.0.0.1:9/p.zip"), validDigest, false);
    QSignalSpy failed(&dialog, &DownloadDialog::downloadFailed);
    QSignalSpy complete(&dialog, &DownloadDialog::downloadComplete);
    QSignalSpy finished(&dialog, &DownloadDialog::finished);
    dialog.show();
    dialog.raise();
    dialog.requestActivate();
    QQuickView *view = dialog.window();
    QVERIFY(QTest::qWaitForWindowExposed(view));
    QTest::qWait(50);

    QCOMPARE(view->status(), QQuickView::Ready);
    QVERIFY2(warnings.isEmpty(), qPrintable(warnings.join(QLatin1String(" | "))));
    verifyFixedWindow(view);

    // The refusal happened inside the Downloader's constructor, before the
    // dialog listened: the view shows it, the signals stay quiet.
    Downloader *downloader = dialog.downloaderObject();
    QVERIFY(downloader->hasError());
    QVERIFY(downloader->isFinished());
    QCOMPARE(downloader->status(), translate("upd_insecure_url_keep"));
    QCOMPARE(failed.count(), 0);
    QCOMPARE(complete.count(), 0);
    QCOMPARE(finished.count(), 0);

    QQuickItem *root = view->rootObject();
    QCOMPARE(findItem(root, QStringLiteral("title"))->property("text").toString(),
             QStringLiteral("Installation Failed"));
    QCOMPARE(findItem(root, QStringLiteral("statusText"))->property("text").toString(), downloader->status());
    QCOMPARE(findItem(root, QStringLiteral("versionText"))->property("text").toString(), QStringLiteral("v2.0.0"));
    QCOMPARE(findItem(root, QStringLiteral("firstButtonText"))->property("text").toString(),
             QStringLiteral("Close"));
}

void TestDownloadDialog::titleFollowsTheLanguage_data()
{
    QTest::addColumn<QString>("language");
    QTest::addColumn<QString>("title");

    QTest::newRow("it") << "it" << QStringLiteral("Aggiornamento Velmora");
    QTest::newRow("tr") << "tr" << QStringLiteral("Velmora Güncellemesi");
    QTest::newRow("en") << "en" << QStringLiteral("Velmora Update");
}

void TestDownloadDialog::titleFollowsTheLanguage()
{
    QFETCH(QString, language);
    QFETCH(QString, title);

    QSettings(QStringLiteral("VelmoraLabs"), QStringLiteral("Velmora")).setValue(QStringLiteral("ui/language"), language);
    DownloadDialog dialog(QStringLiteral("2.0.0"), QStringLiteral("http://127.0.0.1:9/p.zip"), validDigest, false);
    QCOMPARE(dialog.window()->title(), title);
    // The view's texts come from the same language.
    QCOMPARE(findItem(dialog.window()->rootObject(), QStringLiteral("firstButtonText"))->property("text").toString(),
             translate("upd_btn_close"));
}

void TestDownloadDialog::finishesOnDoneAndOnHiding_data()
{
    QTest::addColumn<QString>("event");

    QTest::newRow("the downloader is done") << "done";
    QTest::newRow("the view's close button") << "close";
    QTest::newRow("the window is closed mid-download") << "hide";
}

void TestDownloadDialog::finishesOnDoneAndOnHiding()
{
    QFETCH(QString, event);

    const QString url = closedLocalUrl();
    QVERIFY(!url.isEmpty());
    DownloadDialog dialog(QStringLiteral("2.0.0"), url, validDigest, false);
    Downloader *downloader = dialog.downloaderObject();
    QSignalSpy finished(&dialog, &DownloadDialog::finished);
    QSignalSpy done(downloader, &Downloader::done);

    dialog.show();
    QVERIFY(QTest::qWaitForWindowExposed(dialog.window()));
    QCOMPARE(finished.count(), 0);

    if (event == QLatin1String("done")) {
        emit downloader->done();
    } else if (event == QLatin1String("close")) {
        downloader->close();
    } else {
        dialog.window()->close();
        // Closing the window ends the run; it does not cancel the download.
        QCOMPARE(done.count(), 0);
    }
    QCOMPARE(finished.count(), 1);
}

void TestDownloadDialog::relaysTheEndOfTheRun_data()
{
    QTest::addColumn<QString>("url");
    QTest::addColumn<bool>("finishWithoutError");
    QTest::addColumn<int>("complete");
    QTest::addColumn<int>("failed");

    QTest::newRow("refused run announced as finished") << "http://127.0.0.1:9/p.zip" << false << 0 << 1;
    QTest::newRow("announcement while still running") << closedLocalUrl() << false << 0 << 0;
    QTest::newRow("finished without an error") << closedLocalUrl() << true << 1 << 0;
}

void TestDownloadDialog::relaysTheEndOfTheRun()
{
    QFETCH(QString, url);
    QFETCH(bool, finishWithoutError);
    QFETCH(int, complete);
    QFETCH(int, failed);

    DownloadDialog dialog(QStringLiteral("2.0.0"), url, validDigest, false);
    Downloader *downloader = dialog.downloaderObject();
    QSignalSpy completeSpy(&dialog, &DownloadDialog::downloadComplete);
    QSignalSpy failedSpy(&dialog, &DownloadDialog::downloadFailed);

    // No event loop runs here, so the pending download cannot interfere.
    if (finishWithoutError)
        (downloader->*privateMember(IsFinishedSetter{}))(true);
    else
        emit downloader->isFinishedChanged();

    QCOMPARE(completeSpy.count(), complete);
    QCOMPARE(failedSpy.count(), failed);
    if (failed)
        QCOMPARE(failedSpy.first().first().toString(), downloader->status());
}

void TestDownloadDialog::relaysAFailedDownloadWithItsStatus()
{
    const QString url = closedLocalUrl();
    QVERIFY(!url.isEmpty());
    DownloadDialog dialog(QStringLiteral("2.0.0"), url, validDigest, false);
    QSignalSpy failed(&dialog, &DownloadDialog::downloadFailed);
    QSignalSpy complete(&dialog, &DownloadDialog::downloadComplete);

    QVERIFY(failed.wait(10000));
    QCOMPARE(failed.count(), 1);
    QCOMPARE(complete.count(), 0);
    Downloader *downloader = dialog.downloaderObject();
    // The balloon and the window tell the same story.
    QCOMPARE(failed.first().first().toString(), downloader->status());
    QVERIFY(downloader->status().startsWith(QStringLiteral("Download error: ")));
    QCOMPARE(findItem(dialog.window()->rootObject(), QStringLiteral("statusText"))->property("text").toString(),
             downloader->status());
}

void TestDownloadDialog::relaysProgressWithTheCurrentStatus()
{
    DownloadDialog dialog(QStringLiteral("2.0.0"), QStringLiteral("http://127.0.0.1:9/p.zip"), validDigest, false);
    QSignalSpy progress(&dialog, &DownloadDialog::progressChanged);
    QCOMPARE(progress.count(), 0);

    emit dialog.downloaderObject()->progressChanged();
    QCOMPARE(progress.count(), 1);
    QCOMPARE(progress.first().at(0).toInt(), 0);
    QCOMPARE(progress.first().at(1).toString(), translate("upd_insecure_url_keep"));
}

QTEST_MAIN(TestDownloadDialog)
#include "tst_downloaddialog.moc"
