#include "downloaddialog.h"
#include "downloader.h"
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

const QString validDigest(64, QLatin1Char('a'));

// The only way a Downloader finishes without an error is a complete
// installation; the automatic run's reaction to that end is reached through
// the private setter (an explicit instantiation may name a private member).
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

class QuitCounter : public QObject
{
public:
    int quits = 0;
    bool eventFilter(QObject *, QEvent *event) override
    {
        if (event->type() == QEvent::Quit)
            ++quits;
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
    void initTestCase();
    void init();
    void cleanup();

    void endsQuietlyWhenNothingIsInstalled_data();
    void endsQuietlyWhenNothingIsInstalled();
    void forcedRunExplainsWhyNothingIsInstalled_data();
    void forcedRunExplainsWhyNothingIsInstalled();
    void automaticRunQuitsAtOnceOnARefusedPackage_data();
    void automaticRunQuitsAtOnceOnARefusedPackage();
    void automaticRunEndsWithTheDownloader_data();
    void automaticRunEndsWithTheDownloader();
    void windowWithoutTrayEndsWhenTheDialogFinishes();
    void trayAnnouncesTheRelease_data();
    void trayAnnouncesTheRelease();
    void trayFollowsProgressAndFailure();
    void completedInstallEndsTheRunFourSecondsLater();
    void picksTheFirstLoadableIconCandidate_data();
    void picksTheFirstLoadableIconCandidate();
    void iconComesFromTheChosenFileOrIsTheUpArrow();

private:
    Run runOutcome(const RunFlags &flags, bool ok, const UpdateInfo &info, int limitMs,
                   const std::function<void()> &afterCall = {});
    UpdateInfo release(const QString &url) const;
    // A release whose download stays pending for the whole case.
    UpdateInfo pendingRelease() const
    {
        return release(QStringLiteral("https://127.0.0.1:%1/VelmoraUpdate.zip").arg(silentServer.serverPort()));
    }

    QTcpServer silentServer; // accepts and never answers: a download that stays pending
    QTimer *checkWatchdog = nullptr;
    QObjectList childrenBefore;
};

void TestUpdateOutcome::initTestCase()
{
    Q_INIT_RESOURCE(updater);
    qputenv("VELMORA_DEFAULT_LANGUAGE", "en");
    QVERIFY(silentServer.listen(QHostAddress::LocalHost, 0));
    connect(&silentServer, &QTcpServer::newConnection, this, [this] {
        while (silentServer.hasPendingConnections())
            silentServer.nextPendingConnection();
    });
}

void TestUpdateOutcome::init()
{
    childrenBefore = application()->children();
    // Never connected to quit: only whether the outcome stops it matters.
    checkWatchdog = new QTimer;
    checkWatchdog->start(60000);
}

void TestUpdateOutcome::cleanup()
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

// quit() does nothing unless QCoreApplication::exec() runs, so each case runs
// the outcome inside a real exec(). The Quit events counted by a filter tell
// a quit requested inside the call from one that came later from the loop.
Run TestUpdateOutcome::runOutcome(const RunFlags &flags, bool ok, const UpdateInfo &info, int limitMs,
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
        if (afterCall)
            afterCall();
    });
    bool limitReached = false;
    QTimer limit;
    limit.setSingleShot(true);
    connect(&limit, &QTimer::timeout, [&] {
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

UpdateInfo TestUpdateOutcome::release(const QString &url) const
{
    UpdateInfo info;
    info.version = QStringLiteral("2.4.0");
    info.downloadUrl = url;
    info.sha256 = validDigest;
    return info;
}

void TestUpdateOutcome::endsQuietlyWhenNothingIsInstalled_data()
{
    QTest::addColumn<bool>("autoMode");
    QTest::addColumn<bool>("forceMode");
    QTest::newRow("interactive") << false << false;
    QTest::newRow("automatic") << true << false;
    QTest::newRow("automatic and forced") << true << true;
}

void TestUpdateOutcome::endsQuietlyWhenNothingIsInstalled()
{
    QFETCH(bool, autoMode);
    QFETCH(bool, forceMode);
    UpdateInfo info;
    info.message = QStringLiteral("No newer release");
    int windowsDuringRun = -1;
    const Run run = runOutcome({!autoMode, autoMode, forceMode}, false, info, 3000,
                               [&] { windowsDuringRun = visibleWindows(); });

    QVERIFY(run.quitDuringCall);
    QVERIFY2(run.endedByItself, "no box may hold the run open");
    QCOMPARE(windowsDuringRun, 0);
    QVERIFY(!appChild<QSystemTrayIcon>());
    QVERIFY(!appChild<Downloader>());
    QVERIFY(!appChild<DownloadDialog>());
    QVERIFY2(checkWatchdog->isActive(), "a failed check leaves the check watchdog running");
}

void TestUpdateOutcome::forcedRunExplainsWhyNothingIsInstalled_data()
{
    QTest::addColumn<QString>("message");
    QTest::addColumn<QString>("shown");
    QTest::newRow("the check's reason") << "The release service is unreachable."
                                        << "The release service is unreachable.";
    QTest::newRow("no reason given") << QString()
                                     << "No update, or no package has been published for this platform.";
}

void TestUpdateOutcome::forcedRunExplainsWhyNothingIsInstalled()
{
    QFETCH(QString, message);
    QFETCH(QString, shown);
    UpdateInfo info;
    info.message = message;

    QString title, text;
    QMessageBox::StandardButtons buttons;
    QMessageBox::Icon icon = QMessageBox::NoIcon;
    bool parentless = false, watchdogRanBehindBox = false;
    QTimer boxFinder;
    connect(&boxFinder, &QTimer::timeout, [&] {
        auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
        if (!box)
            return;
        boxFinder.stop();
        title = box->windowTitle();
        text = box->text();
        buttons = box->standardButtons();
        icon = box->icon();
        parentless = !box->parentWidget();
        watchdogRanBehindBox = checkWatchdog->isActive();
        box->button(QMessageBox::Ok)->click();
    });
    boxFinder.start(20);
    const Run run = runOutcome({true, false, true}, false, info, 10000);

    QCOMPARE(title, QStringLiteral("Velmora"));
    QCOMPARE(text, shown);
    QCOMPARE(buttons, QMessageBox::StandardButtons(QMessageBox::Ok));
    QCOMPARE(icon, QMessageBox::Information);
    QVERIFY(parentless);
    QVERIFY2(run.quitDuringCall, "dismissing the box ends the run");
    QVERIFY(run.endedByItself);
    QVERIFY(watchdogRanBehindBox);
    QVERIFY(checkWatchdog->isActive());
}

void TestUpdateOutcome::automaticRunQuitsAtOnceOnARefusedPackage_data()
{
    QTest::addColumn<QString>("url");
    QTest::addColumn<QString>("digest");
    QTest::newRow("plain http") << "http://127.0.0.1:9/VelmoraUpdate.zip" << validDigest;
    QTest::newRow("upper-case scheme") << "HTTPS://127.0.0.1:9/VelmoraUpdate.zip" << validDigest;
    QTest::newRow("short digest") << "https://127.0.0.1:9/VelmoraUpdate.zip" << validDigest.left(63);
}

void TestUpdateOutcome::automaticRunQuitsAtOnceOnARefusedPackage()
{
    QFETCH(QString, url);
    QFETCH(QString, digest);
    UpdateInfo info = release(url);
    info.sha256 = digest;
    info.mandatory = true;
    int windowsDuringRun = -1;
    const Run run = runOutcome({false, true, false}, true, info, 3000,
                               [&] { windowsDuringRun = visibleWindows(); });

    QVERIFY2(run.quitDuringCall, "the quit must not wait for the event loop");
    auto *downloader = appChild<Downloader>();
    QVERIFY(downloader);
    QVERIFY(downloader->hasError());
    QVERIFY(downloader->autoMode);
    QCOMPARE(downloader->version(), QStringLiteral("2.4.0"));
    QVERIFY(!checkWatchdog->isActive());
    QCOMPARE(windowsDuringRun, 0);
    QVERIFY(!appChild<QSystemTrayIcon>());
    QVERIFY(!appChild<DownloadDialog>());
    QVERIFY(QApplication::topLevelWidgets().isEmpty());

    auto *runLimit = appChild<QTimer>();
    QVERIFY2(runLimit, "the background run is bounded by its own watchdog");
    QVERIFY(runLimit->isSingleShot());
    QCOMPARE(runLimit->interval(), 3600000);
    QVERIFY(runLimit->isActive());
}

void TestUpdateOutcome::automaticRunEndsWithTheDownloader_data()
{
    QTest::addColumn<bool>("pending");
    QTest::addColumn<QString>("event");
    QTest::addColumn<bool>("ends");
    QTest::newRow("download refused by the host") << false << "none" << true;
    QTest::newRow("done") << true << "done" << true;
    QTest::newRow("finished without error") << true << "success" << false;
}

void TestUpdateOutcome::automaticRunEndsWithTheDownloader()
{
    QFETCH(bool, pending);
    QFETCH(QString, event);
    QFETCH(bool, ends);

    QString url = QStringLiteral("https://127.0.0.1:%1/VelmoraUpdate.zip");
    if (pending) {
        url = url.arg(silentServer.serverPort());
    } else {
        QTcpServer probe;
        QVERIFY(probe.listen(QHostAddress::LocalHost, 0));
        url = url.arg(probe.serverPort());
    }
    bool pendingAfterCall = false;
    const Run run = runOutcome({false, true, false}, true, release(url), ends ? 10000 : 500, [&] {
        Downloader *downloader = appChild<Downloader>();
        pendingAfterCall = downloader && !downloader->isFinished() && downloader->autoMode;
        if (!downloader)
            return;
        if (event == QLatin1String("done"))
            emit downloader->done();
        else if (event == QLatin1String("success"))
            (downloader->*privateMember(IsFinishedSetter{}))(true);
    });

    QVERIFY(pendingAfterCall);
    QVERIFY(!run.quitDuringCall);
    QCOMPARE(run.endedByItself, ends);
    QVERIFY(!checkWatchdog->isActive());
}

void TestUpdateOutcome::windowWithoutTrayEndsWhenTheDialogFinishes()
{
    bool windowShown = false;
    const Run run = runOutcome({false, false, false}, true, pendingRelease(), 5000, [&] {
        auto *dialog = appChild<DownloadDialog>();
        if (!dialog)
            return;
        windowShown = dialog->window()->isVisible();
        emit dialog->finished();
    });

    QVERIFY(windowShown);
    QVERIFY(!run.quitDuringCall);
    QVERIFY(run.endedByItself);
    QVERIFY(!appChild<QSystemTrayIcon>());
    QVERIFY(!checkWatchdog->isActive());
}

void TestUpdateOutcome::trayAnnouncesTheRelease_data()
{
    QTest::addColumn<bool>("mandatory");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("body");
    QTest::newRow("ordinary") << false << "Velmora Update Available" << "Version 2.4.0 is ready to use.";
    QTest::newRow("mandatory") << true << "Velmora - Mandatory Update"
                               << "Version 2.4.0 contains a mandatory update.";
}

void TestUpdateOutcome::trayAnnouncesTheRelease()
{
    QFETCH(bool, mandatory);
    QFETCH(QString, title);
    QFETCH(QString, body);
    QVERIFY2(trayIconCandidate(QCoreApplication::applicationDirPath()).isEmpty(),
             "an icon file beside the test binary would hide the fallback");

    UpdateInfo info = pendingRelease();
    info.mandatory = mandatory;
    bool windowShown = false;
    const Run run = runOutcome({true, false, false}, true, info, 300, [&] {
        auto *dialog = appChild<DownloadDialog>();
        windowShown = dialog && dialog->window()->isVisible();
    });

    QVERIFY(windowShown);
    QVERIFY2(!run.endedByItself, "nothing ends an interactive run before the window does");
    UpdateTrayIcon *tray = trayIcon();
    QVERIFY(tray);
    QVERIFY(tray->isVisible());
    QCOMPARE(tray->toolTip(), QStringLiteral("Velmora — Version 2.4.0 available"));
    QCOMPARE(iconImage(tray->icon()), iconImage(QApplication::style()->standardIcon(QStyle::SP_ArrowUp)));
    QCOMPARE(tray->notices().size(), 1);
    const TrayNotice notice = tray->notices().first();
    QCOMPARE(notice.title, title);
    QCOMPARE(notice.body, body);
    QCOMPARE(notice.icon, QSystemTrayIcon::Information);
    QCOMPARE(notice.msecs, 20000);
}

void TestUpdateOutcome::trayFollowsProgressAndFailure()
{
    QString progressTip;
    const Run run = runOutcome({true, false, false}, true, pendingRelease(), 1000, [&] {
        auto *dialog = appChild<DownloadDialog>();
        if (!dialog || !trayIcon())
            return;
        emit dialog->progressChanged(7, QStringLiteral("0.5 MB / 7.0 MB"));
        progressTip = trayIcon()->toolTip();
        emit dialog->downloadFailed(QStringLiteral("Download error: Connection refused"));
    });

    QCOMPARE(progressTip, QStringLiteral("Downloading Velmora... 7% — 0.5 MB / 7.0 MB"));
    QVERIFY2(!run.endedByItself, "a failure leaves the window open until the user closes it");
    UpdateTrayIcon *tray = trayIcon();
    QCOMPARE(tray->toolTip(), QStringLiteral("Velmora — Download failed"));
    QCOMPARE(tray->notices().size(), 2);
    const TrayNotice notice = tray->notices().last();
    QCOMPARE(notice.title, QStringLiteral("Download Error"));
    QCOMPARE(notice.body, QStringLiteral("Download error: Connection refused"));
    QCOMPARE(notice.icon, QSystemTrayIcon::Critical);
    QCOMPARE(notice.msecs, 10000);
}

void TestUpdateOutcome::completedInstallEndsTheRunFourSecondsLater()
{
    QElapsedTimer sinceComplete;
    const Run run = runOutcome({true, false, false}, true, pendingRelease(), 9000, [&] {
        if (auto *dialog = appChild<DownloadDialog>()) {
            sinceComplete.start();
            emit dialog->downloadComplete();
        }
    });
    const qint64 elapsed = sinceComplete.isValid() ? sinceComplete.elapsed() : -1;

    QVERIFY(run.endedByItself);
    // The quit timer is coarse: Qt may fire it up to 5 % early.
    QVERIFY2(elapsed >= 3750 && elapsed < 8000, qPrintable(QString::number(elapsed)));
    UpdateTrayIcon *tray = trayIcon();
    QCOMPARE(tray->toolTip(), QStringLiteral("Velmora — Installation complete"));
    const TrayNotice notice = tray->notices().last();
    QCOMPARE(notice.title, QStringLiteral("Velmora Updated"));
    QCOMPARE(notice.body, QStringLiteral("Version 2.4.0 installed; restarting Velmora."));
    QCOMPARE(notice.icon, QSystemTrayIcon::Information);
    QCOMPARE(notice.msecs, 10000);
}

void TestUpdateOutcome::picksTheFirstLoadableIconCandidate_data()
{
    // Paths relative to the executable's directory "MacOS" in a temporary
    // root; the expected path is relative to that root. PNG data under an
    // .icns name loads too, so only the order decides.
    QTest::addColumn<QStringList>("images");
    QTest::addColumn<QStringList>("unloadable");
    QTest::addColumn<QString>("expected");
    const QStringList candidates = {
        "../Resources/logo.png",     "../Resources/Velmora.icns",
        "../Resources/AppIcon.icns", "Velmora.app/Contents/Resources/logo.png",
        "Velmora.app/Contents/Resources/Velmora.icns", "logo.png",
        "../logo.png",
    };
    for (const QString &candidate : candidates) {
        QTest::addRow("only %s", qPrintable(candidate))
            << QStringList{candidate} << QStringList{} << QDir::cleanPath("MacOS/" + candidate);
    }
    QTest::newRow("earlier candidate wins")
        << QStringList{"logo.png", "../Resources/AppIcon.icns"} << QStringList{} << "Resources/AppIcon.icns";
    QTest::newRow("beside before above") << QStringList{"../logo.png", "logo.png"} << QStringList{}
                                         << "MacOS/logo.png";
    QTest::newRow("unloadable file skipped")
        << QStringList{"logo.png"} << QStringList{"../Resources/logo.png"} << "MacOS/logo.png";
    QTest::newRow("directory named like a candidate skipped")
        << QStringList{"../logo.png"} << QStringList{"../Resources/Velmora.icns/"} << "logo.png";
    QTest::newRow("only unloadable") << QStringList{} << QStringList{"logo.png"} << QString();
    QTest::newRow("none") << QStringList{} << QStringList{} << QString();
}

void TestUpdateOutcome::picksTheFirstLoadableIconCandidate()
{
    QFETCH(QStringList, images);
    QFETCH(QStringList, unloadable);
    QFETCH(QString, expected);
    QTemporaryDir root;
    QVERIFY(root.isValid());
    const QString appDir = root.filePath(QStringLiteral("MacOS"));
    QVERIFY(QDir().mkpath(appDir));

    auto place = [&](const QString &relative, const QByteArray &data) {
        const QString path = QDir::cleanPath(appDir + '/' + relative);
        if (relative.endsWith('/'))
            return QDir().mkpath(path);
        QFile file(path);
        return QDir().mkpath(QFileInfo(path).absolutePath()) && file.open(QIODevice::WriteOnly)
            && file.write(data) == data.size();
    };
    for (const QString &relative : images)
        QVERIFY(place(relative, pngData(Qt::red)));
    for (const QString &relative : unloadable)
        QVERIFY(place(relative, "not an image"));

    QCOMPARE(trayIconCandidate(appDir), expected.isEmpty() ? QString() : root.filePath(expected));
}

void TestUpdateOutcome::iconComesFromTheChosenFileOrIsTheUpArrow()
{
    QTemporaryDir root;
    QVERIFY(root.isValid());
    QCOMPARE(iconImage(trayIconFor(root.path())),
             iconImage(QApplication::style()->standardIcon(QStyle::SP_ArrowUp)));

    QFile logo(root.filePath(QStringLiteral("logo.png")));
    QVERIFY(logo.open(QIODevice::WriteOnly));
    logo.write(pngData(Qt::blue));
    logo.close();
    QCOMPARE(iconImage(trayIconFor(root.path())).pixelColor(8, 8), QColor(Qt::blue));
}

QTEST_MAIN(TestUpdateOutcome)
#include "tst_updateoutcome.moc"
