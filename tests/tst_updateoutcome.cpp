// Guards what the process does once the check has answered: whether it quits
// at once, tells a forced run why, installs silently or shows the window;
// which watchdogs stop or start; how each kind of run ends; the window the
// dialog shows (its title, and the view fed with the Downloader and the
// texts); what the tray says at each step, through the dialog's relays of the
// Downloader's signals; and the order in which the tray icon's files are tried.

#include "downloaddialog.h"
#include "downloaderaccess.h"
#include "phase.h"
#include "updateoutcome.h"

#include <QAbstractEventDispatcher>
#include <QMessageBox>
#include <QQuickItem>
#include <QQuickView>
#include <QStyle>
#include <QtTest>

// `flags`: the run flags, and what the check found ("nothing" to install, a
// "mandatory" or "refused" package). `event`: what the download reports after
// the call. `seen`: what happened, in order, one line each.
struct OutcomeRow
{
    const char *tag, *flags, *message, *event;
    QString seen;
};
Q_DECLARE_METATYPE(OutcomeRow)

class TestUpdateOutcome : public QObject
{
    Q_OBJECT

    template<typename T> static T *appChild() { return qApp->findChild<T *>(QString(), Qt::FindDirectChildrenOnly); }
    // A timer started with a receiver, as by QTimer::singleShot, hangs on the
    // event dispatcher rather than on the application.
    static QObjectList timerOwners() { return qApp->children() + QAbstractEventDispatcher::instance()->children(); }

    // quit() does nothing outside exec(); inside it, it sends the application a
    // Quit event, which is what the end of a run looks like from here. A
    // message box stops the run until the user answers it.
    bool eventFilter(QObject *object, QEvent *event) override
    {
        if (event->type() == QEvent::Quit && log.value(log.size() - 1) != "quit")
            log << "quit";
        // Read, then dismissed.
        if (auto *box = qobject_cast<QMessageBox *>(object); box && event->type() == QEvent::Show) {
            const bool plain = box->standardButtons() == QMessageBox::Ok && box->icon() == QMessageBox::Information;
            log << (plain && !box->parentWidget() ? "box " : "other box ") + box->windowTitle() + ": " + box->text();
            QTimer::singleShot(0, box, &QMessageBox::accept);
        }
        return false;
    }
    QStringList log;

private slots:
    void initTestCase() { qApp->installEventFilter(this); }

    void outcome_data()
    {
        const QString automatic = "watchdog stopped\ndownloader 2.4.0 auto\n";
        const QString windowed = "watchdog stopped\nwindow Velmora Update shown: Downloading Update|Connecting...\n";
        const QString found = "notice: Velmora Update Available|Version 2.4.0 is ready to use.|Information|20000";
        const QString tray = windowed + "tooltip: ";
        const OutcomeRow rows[] = {
            {"interactive, nothing new", "nothing", "", "", "quit"},
            {"automatic and forced, nothing new", "auto force nothing", "", "", "quit"},
            {"forced: the check's reason", "force nothing", "Up to date", "", "box Velmora: Up to date\nquit"},
            {"forced, no reason given", "force nothing", "", "",
             "box Velmora: No update, or no package has been published for this platform.\nquit"},
            {"automatic, package refused", "auto refused", "", "", "quit\n" + automatic + "timer 3600000\nquit"},
            {"automatic, done", "auto", "", "done", automatic + "quit\ntimer 3600000\nquit"},
            {"automatic, failed", "auto", "", "error", automatic + "quit\ntimer 3600000\nquit"},
            // The swap script ends the run through done; a finish alone does not.
            {"automatic, finished", "auto", "", "success", automatic + "timer 3600000\nquit"},
            {"no tray: closing the window ends the run", "", "", "close", windowed + "quit"},
            {"no tray: the downloader's done ends it", "", "", "done", windowed + "quit"},
            {"tray announces a mandatory release", "tray mandatory", "", "",
             tray
                 + "Velmora — Version 2.4.0 available\n"
                   "notice: Velmora - Mandatory Update|Version 2.4.0 contains a mandatory update.|Information|20000"},
            {"tray follows the progress", "tray", "", "progress",
             tray + "Downloading Velmora... 0% — Connecting...\n" + found},
            // A failure leaves the window open until the user closes it.
            {"tray reports a failure", "tray", "", "error",
             tray + "Velmora — Download failed\n" + found
                 + "\nnotice: Download Error|Connection refused|Critical|10000"},
            {"completed install ends the run four seconds later", "tray", "", "success",
             tray + "Velmora — Installation complete\n" + found
                 + "\nnotice: Velmora Updated|Version 2.4.0 installed; restarting Velmora.|Information|10000\n"
                   "timer 4000\nquit"},
        };
        QTest::addColumn<OutcomeRow>("row");
        for (const OutcomeRow &row : rows)
            QTest::newRow(row.tag) << row;
    }

    void outcome()
    {
        QFETCH(OutcomeRow, row);
        const QString flags = row.flags, event = row.event, scheme = flags.contains("refused") ? "http" : "https";
        // Never contacted: the case is over before the event loop could start the download.
        UpdateInfo info{"2.4.0", scheme + "://127.0.0.1:9/p.zip", {},         QString(64, 'a'),
                        false,   flags.contains("mandatory"),     row.message};
        const QObjectList ownersBefore = timerOwners();
        QTimer checkWatchdog;
        checkWatchdog.start(60000);
        log.clear();
        QTimer::singleShot(0, qApp, [&] {
            handleUpdateOutcome(qApp, &checkWatchdog,
                                {flags.contains("tray"), flags.contains("auto"), flags.contains("force")},
                                !flags.contains("nothing"), info);
            info.version = "overwritten"; // what outlives the call must hold its own copy
            if (!checkWatchdog.isActive())
                log << "watchdog stopped";
            auto *dialog = appChild<DownloadDialog>();
            Downloader *downloader = dialog ? dialog->downloaderObject() : appChild<Downloader>();
            if (downloader && !dialog)
                log << "downloader " + downloader->version() + (downloader->autoMode ? " auto" : "");
            if (dialog) { // shown, and the view fed with the Downloader's state and the texts
                QObject *root = dialog->window()->rootObject();
                log << QStringLiteral("window %1%2: %3|%4")
                           .arg(dialog->window()->title(), dialog->window()->isVisible() ? " shown" : "",
                                root->findChild<QObject *>("title")->property("text").toString(),
                                root->findChild<QObject *>("statusText")->property("text").toString());
            }

            if (event == "close")
                dialog->window()->close();
            if (event == "progress") { // an announcement before the end says nothing
                emit downloader->progressChanged();
                emit downloader->isFinishedChanged();
            }
            if (event == "done")
                emit downloader->done();
            if (event == "error") {
                downloader->postState("Connection refused", Phase::Failed, true);
                QCoreApplication::sendPostedEvents(downloader, QEvent::MetaCall);
            }
            if (event == "error" || event == "success")
                finishWithoutError(downloader); // sets isFinished only: an error set before stays
            if (auto *tray = appChild<UpdateTrayIcon>()) {
                log << "tooltip: " + tray->toolTip();
                const QStringList icons{"NoIcon", "Information", "Warning", "Critical"};
                for (const TrayNotice &notice : tray->notices())
                    log << QStringLiteral("notice: %1|%2|%3|%4")
                               .arg(notice.title, notice.body, icons[notice.icon], QString::number(notice.msecs));
            }
            // The timers the run armed, fired at once instead of waited for.
            for (QObject *owner : timerOwners())
                for (const auto &timer : QAbstractEventDispatcher::instance()->registeredTimers(owner))
                    if (!ownersBefore.contains(owner)) {
                        log << QStringLiteral("timer %1").arg(timer.interval);
                        QTimerEvent fire(timer.timerId);
                        QCoreApplication::sendEvent(owner, &fire);
                    }
            QCoreApplication::exit();
        });
        QCoreApplication::exec();
        // What the run left behind hangs on the application or the dispatcher.
        for (QObject *owner : timerOwners())
            if (!ownersBefore.contains(owner))
                delete owner;
        QCOMPARE(log.join('\n'), row.seen);
    }

    // Every candidate holds a picture at first; each round spoils the one just
    // chosen, so that the whole order shows and a file that holds no picture
    // is seen to be passed over.
    void triesTheIconFilesInOrder()
    {
        QTemporaryDir root; // stands for Contents
        const QString appDir = root.filePath("MacOS");
        const QStringList order = QString("Resources/logo.png Resources/Velmora.icns Resources/AppIcon.icns "
                                          "MacOS/Velmora.app/Contents/Resources/logo.png MacOS/Velmora.app/Contents/"
                                          "Resources/Velmora.icns MacOS/logo.png logo.png")
                                      .split(' ');
        QImage picture(16, 16, QImage::Format_ARGB32);
        picture.fill(Qt::blue);
        for (const QString &file : order)
            QVERIFY(QDir().mkpath(QFileInfo(root.filePath(file)).path()) && picture.save(root.filePath(file), "PNG"));
        QCOMPARE(trayIconFor(appDir).pixmap(16).toImage().pixelColor(8, 8), QColor(Qt::blue));
        for (const QString &file : order) {
            QCOMPARE(trayIconCandidate(appDir), root.filePath(file));
            QVERIFY(QFile::resize(root.filePath(file), 0));
        }
        QCOMPARE(trayIconFor(appDir).pixmap(16).toImage(),
                 QApplication::style()->standardIcon(QStyle::SP_ArrowUp).pixmap(16).toImage());
    }
};

QTEST_MAIN(TestUpdateOutcome)
#include "tst_updateoutcome.moc"
