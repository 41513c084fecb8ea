#include "downloaddialog.h"
#include "downloader.h"
#include "downloaderaccess.h"
#include "testfiles.h"
#include "updateoutcome.h"

#include <QAbstractButton>
#include <QApplication>
#include <QBuffer>
#include <QElapsedTimer>
#include <QMessageBox>
#include <QQuickView>
#include <QStyle>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

#include <functional>

namespace {

class QuitCounter : public QObject
{
public:
    int quits = 0;
    bool eventFilter(QObject *, QEvent *event) override
    {
        quits += event->type() == QEvent::Quit;
        return false;
    }
};

struct Run
{
    bool quitDuringCall = false; // quit requested before handleUpdateOutcome returned
    bool endedByItself = false;  // the loop ended before the test's own time limit
};

QApplication *application()
{
    return static_cast<QApplication *>(QCoreApplication::instance());
}

template<typename T>
T *appChild()
{
    return application()->findChild<T *>(QString(), Qt::FindDirectChildrenOnly);
}

UpdateTrayIcon *trayIcon()
{
    return qobject_cast<UpdateTrayIcon *>(appChild<QSystemTrayIcon>());
}

int visibleWindows()
{
    const QWindowList windows = QGuiApplication::topLevelWindows();
    return int(std::count_if(windows.cbegin(), windows.cend(), [](QWindow *w) { return w->isVisible(); }));
}

QImage iconImage(const QIcon &icon)
{
    return icon.pixmap(16, 16).toImage().convertToFormat(QImage::Format_ARGB32);
}

QByteArray pngData(const QColor &colour)
{
    QImage image(16, 16, QImage::Format_ARGB32);
    image.fill(colour);
    QBuffer buffer;
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return buffer.data();
}

} // namespace

class TestUpdateOutcome : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        Q_INIT_RESOURCE(updater);
        qputenv("VELMORA_DEFAULT_LANGUAGE", "en");
        QVERIFY(silentServer.listen(QHostAddress::LocalHost, 0));
    }

    void init()
    {
        childrenBefore = application()->children();
        // Never connected to quit: only whether the outcome stops it matters.
        checkWatchdog = new QTimer;
        checkWatchdog->start(60000);
    }

    void cleanup()
    {
        // Everything a run creates hangs on the application; drop it so that the
        // next case starts with an empty tree and no pending download.
        const QObjectList children = application()->children();
        for (QObject *child : children) {
            if (!childrenBefore.contains(child))
                delete child;
        }
        delete checkWatchdog;
    }

    void nothingToInstall_data()
    {
        QTest::addColumn<bool>("autoMode");
        QTest::addColumn<bool>("forceMode");
        QTest::addColumn<QString>("message");
        QTest::addColumn<QString>("shown"); // the message box's text; empty: no box

        QTest::newRow("interactive") << false << false << "No newer release" << "";
        QTest::newRow("automatic") << true << false << "No newer release" << "";
        QTest::newRow("automatic and forced") << true << true << "No newer release" << "";
        QTest::newRow("forced: the check's reason") << false << true << "The release service is unreachable."
                                                    << "The release service is unreachable.";
        QTest::newRow("forced, no reason given") << false << true << ""
                                                 << "No update, or no package has been published for this platform.";
    }

    void nothingToInstall()
    {
        QFETCH(bool, autoMode);
        QFETCH(bool, forceMode);
        QFETCH(QString, message);
        QFETCH(QString, shown);
        UpdateInfo info;
        info.message = message;

        QString box;
        QTimer boxFinder;
        connect(&boxFinder, &QTimer::timeout, this, [&] {
            auto *found = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
            if (!found)
                return;
            boxFinder.stop();
            box = QStringList{found->windowTitle(), found->text()}.join('|');
            QCOMPARE(found->standardButtons(), QMessageBox::StandardButtons(QMessageBox::Ok));
            QCOMPARE(found->icon(), QMessageBox::Information);
            QVERIFY(!found->parentWidget());
            QVERIFY2(checkWatchdog->isActive(), "the check watchdog stays armed behind the box");
            found->button(QMessageBox::Ok)->click();
        });
        boxFinder.start(20);
        int windowsAfterCall = -1;
        const Run run = runOutcome({!autoMode, autoMode, forceMode}, false, info, 10000,
                                   [&] { windowsAfterCall = visibleWindows(); });

        QCOMPARE(box, shown.isEmpty() ? QString() : "Velmora|" + shown);
        QVERIFY2(run.quitDuringCall, "the run ends as soon as nothing is to be done");
        QVERIFY(run.endedByItself);
        QCOMPARE(windowsAfterCall, 0);
        QVERIFY(!appChild<QSystemTrayIcon>() && !appChild<Downloader>() && !appChild<DownloadDialog>());
        QVERIFY(checkWatchdog->isActive());
    }

    void automaticRun_data()
    {
        QTest::addColumn<QString>("url"); // empty: a download that stays pending
        QTest::addColumn<QString>("event");
        QTest::addColumn<bool>("quitDuringCall");
        QTest::addColumn<bool>("ends");

        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost, 0));
        const QString refusedByHost = QStringLiteral("https://127.0.0.1:%1/VelmoraUpdate.zip").arg(closed.serverPort());
        QTest::newRow("package refused before the download") << "http://127.0.0.1:9/VelmoraUpdate.zip" << "" << true << true;
        QTest::newRow("download refused by the host") << refusedByHost << "" << false << true;
        QTest::newRow("done") << "" << "done" << false << true;
        // The swap script quits the run through done; a finish alone does not.
        QTest::newRow("finished without error") << "" << "success" << false << false;
    }

    void automaticRun()
    {
        QFETCH(QString, url);
        QFETCH(QString, event);
        QFETCH(bool, quitDuringCall);
        QFETCH(bool, ends);

        int windowsAfterCall = -1;
        const Run run = runOutcome({false, true, false}, true, release(url), ends ? 10000 : 500, [&] {
            windowsAfterCall = visibleWindows();
            Downloader *downloader = appChild<Downloader>();
            if (downloader && event == "done")
                emit downloader->done();
            if (downloader && event == "success")
                finishWithoutError(downloader);
        });

        QCOMPARE(run.quitDuringCall, quitDuringCall);
        QCOMPARE(run.endedByItself, ends);
        auto *downloader = appChild<Downloader>();
        QVERIFY(downloader);
        QVERIFY(downloader->autoMode);
        QCOMPARE(downloader->version(), QStringLiteral("2.4.0"));
        QVERIFY(!checkWatchdog->isActive());
        QCOMPARE(windowsAfterCall, 0);
        QVERIFY(!appChild<QSystemTrayIcon>() && !appChild<DownloadDialog>());
        QVERIFY(QApplication::topLevelWidgets().isEmpty());
        auto *runLimit = appChild<QTimer>();
        QVERIFY2(runLimit, "the background run is bounded by its own watchdog");
        QVERIFY(runLimit->isSingleShot() && runLimit->isActive());
        QCOMPARE(runLimit->interval(), 3600000);
    }

    void windowedRun_data()
    {
        QTest::addColumn<bool>("tray");
        QTest::addColumn<bool>("mandatory");
        QTest::addColumn<QString>("event"); // what the dialog reports after the call
        QTest::addColumn<bool>("ends");
        QTest::addColumn<QString>("toolTip");
        QTest::addColumn<QStringList>("notices"); // title|body|icon|milliseconds

        const QString announced = "Velmora Update Available|Version 2.4.0 is ready to use.|Information|20000";
        QTest::newRow("no tray: the run ends with the window") << false << false << "finished" << true << "" << QStringList{};
        QTest::newRow("tray announces the release") << true << false << "" << false << "Velmora — Version 2.4.0 available"
                                                    << QStringList{announced};
        QTest::newRow("tray announces a mandatory release")
            << true << true << "" << false << "Velmora — Version 2.4.0 available"
            << QStringList{"Velmora - Mandatory Update|Version 2.4.0 contains a mandatory update.|Information|20000"};
        // A failure leaves the window open until the user closes it.
        QTest::newRow("tray follows progress and failure")
            << true << false << "progress, failed" << false << "Velmora — Download failed"
            << QStringList{announced, "Download Error|Download error: Connection refused|Critical|10000"};
        QTest::newRow("completed install ends the run four seconds later")
            << true << false << "complete" << true << "Velmora — Installation complete"
            << QStringList{announced, "Velmora Updated|Version 2.4.0 installed; restarting Velmora.|Information|10000"};
    }

    void windowedRun()
    {
        QFETCH(bool, tray);
        QFETCH(bool, mandatory);
        QFETCH(QString, event);
        QFETCH(bool, ends);
        QFETCH(QString, toolTip);
        QFETCH(QStringList, notices);
        QVERIFY2(trayIconCandidate(QCoreApplication::applicationDirPath()).isEmpty(),
                 "an icon file beside the test binary would hide the fallback");

        UpdateInfo info = release({});
        info.mandatory = mandatory;
        bool windowShown = false;
        QString progressTip;
        QElapsedTimer sinceComplete;
        const Run run = runOutcome({tray, false, false}, true, info, ends ? 9000 : 500, [&] {
            auto *dialog = appChild<DownloadDialog>();
            windowShown = dialog && dialog->window()->isVisible();
            if (!dialog)
                return;
            if (event == "finished")
                emit dialog->finished();
            if (event.startsWith("progress")) {
                emit dialog->progressChanged(7, QStringLiteral("0.5 MB / 7.0 MB"));
                progressTip = trayIcon()->toolTip();
                emit dialog->downloadFailed(QStringLiteral("Download error: Connection refused"));
            }
            if (event == "complete") {
                sinceComplete.start();
                emit dialog->downloadComplete();
            }
        });

        QVERIFY(windowShown);
        QVERIFY(!run.quitDuringCall);
        QCOMPARE(run.endedByItself, ends);
        QVERIFY(!checkWatchdog->isActive());
        if (event == "complete") {
            // The quit timer is coarse: Qt may fire it up to 5 % early.
            QVERIFY2(sinceComplete.elapsed() >= 3750 && sinceComplete.elapsed() < 8000,
                     qPrintable(QString::number(sinceComplete.elapsed())));
        }
        if (event.startsWith("progress"))
            QCOMPARE(progressTip, QStringLiteral("Downloading Velmora... 7% — 0.5 MB / 7.0 MB"));
        UpdateTrayIcon *icon = trayIcon();
        QCOMPARE(icon != nullptr, tray);
        if (!icon)
            return;
        QVERIFY(icon->isVisible());
        QCOMPARE(iconImage(icon->icon()), iconImage(QApplication::style()->standardIcon(QStyle::SP_ArrowUp)));
        QCOMPARE(icon->toolTip(), toolTip);
        QStringList posted;
        for (const TrayNotice &notice : icon->notices())
            posted << QStringList{notice.title, notice.body,
                                  QStringList{"NoIcon", "Information", "Warning", "Critical"}.value(notice.icon),
                                  QString::number(notice.msecs)}.join('|');
        QCOMPARE(posted, notices);
    }

    // Every candidate holds a picture at first; each round removes the one just
    // chosen, so that the whole order shows. PNG data under an .icns name loads.
    void picksTheFirstLoadableIconCandidate()
    {
        QTemporaryDir root;
        const QString appDir = root.filePath("Contents/MacOS");
        QVERIFY(QDir().mkpath(appDir));
        const QStringList order = {"Contents/Resources/logo.png", "Contents/Resources/Velmora.icns",
                                   "Contents/Resources/AppIcon.icns", "Contents/MacOS/Velmora.app/Contents/Resources/logo.png",
                                   "Contents/MacOS/Velmora.app/Contents/Resources/Velmora.icns", "Contents/MacOS/logo.png",
                                   "Contents/logo.png"};
        for (const QString &candidate : order)
            QVERIFY(writeFile(root.filePath(candidate), pngData(Qt::blue)));
        for (const QString &candidate : order) {
            QCOMPARE(trayIconCandidate(appDir), root.filePath(candidate));
            QVERIFY(QFile::remove(root.filePath(candidate)));
        }
        QCOMPARE(trayIconCandidate(appDir), QString());
        QCOMPARE(iconImage(trayIconFor(appDir)), iconImage(QApplication::style()->standardIcon(QStyle::SP_ArrowUp)));

        // A file that holds no picture is passed over; the icon is the chosen file's.
        QVERIFY(writeFile(root.filePath(order.first()), "not a picture"));
        QVERIFY(writeFile(root.filePath(order.last()), pngData(Qt::blue)));
        QCOMPARE(trayIconCandidate(appDir), root.filePath(order.last()));
        QCOMPARE(iconImage(trayIconFor(appDir)).pixelColor(8, 8), QColor(Qt::blue));
    }

private:
    // quit() does nothing unless QCoreApplication::exec() runs, so each case runs
    // the outcome inside a real exec(). The Quit events counted by a filter tell
    // a quit requested inside the call from one that came later from the loop.
    Run runOutcome(const RunFlags &flags, bool ok, const UpdateInfo &info, int limitMs,
                   const std::function<void()> &afterCall)
    {
        Run run;
        QuitCounter counter;
        application()->installEventFilter(&counter);
        QTimer::singleShot(0, application(), [&] {
            UpdateInfo callersCopy = info;
            handleUpdateOutcome(application(), checkWatchdog, flags, ok, callersCopy);
            run.quitDuringCall = counter.quits > 0;
            // Whatever outlives the call must hold its own copy.
            callersCopy.version = QStringLiteral("overwritten");
            afterCall();
        });
        bool limitReached = false;
        QTimer limit; // gone with this call, unlike a single-shot that could end a later case
        limit.setSingleShot(true);
        limit.callOnTimeout([&] {
            limitReached = true;
            if (QWidget *modal = QApplication::activeModalWidget())
                modal->close();
            QCoreApplication::quit();
        });
        limit.start(limitMs);
        QCoreApplication::exec();
        application()->removeEventFilter(&counter);
        run.endedByItself = !limitReached;
        return run;
    }

    // Without an address, a download that stays pending for the whole case.
    UpdateInfo release(const QString &url) const
    {
        UpdateInfo info;
        info.version = QStringLiteral("2.4.0");
        info.downloadUrl = url.isEmpty()
            ? QStringLiteral("https://127.0.0.1:%1/VelmoraUpdate.zip").arg(silentServer.serverPort())
            : url;
        info.sha256 = QString(64, 'a');
        return info;
    }

    QTcpServer silentServer; // accepts and never answers
    QTimer *checkWatchdog = nullptr;
    QObjectList childrenBefore;
};

QTEST_MAIN(TestUpdateOutcome)
#include "tst_updateoutcome.moc"
