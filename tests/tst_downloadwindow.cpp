// Guards the installation window's view as a function of the Downloader's six
// properties and the language: title, percentage, steps, shine and rings,
// elision that spares the percentage, brand, version, and buttons that call
// the right slots; the resources it is loaded from; and a broken view, which
// is reported and still leaves a titled, fixed-size window. The dialog's
// relays and the view it feeds in a run are exercised by the outcome
// handling's table. With VELMORA_SCREENSHOT_DIR set, each state leaves its
// pictures there.

#include "downloaddialog.h"
#include "localisation.h"
#include "testfiles.h"
#include "warnings.h"

#include <QQmlContext>
#include <QQmlPropertyMap>
#include <QQuickItem>
#include <QQuickView>
#include <QtTest>

// Stands in for the Downloader: its properties set by the test, its slots'
// calls recorded.
class StandIn : public QQmlPropertyMap
{
    Q_OBJECT
public:
    StandIn()
        : QQmlPropertyMap(this, nullptr)
    {
    }
    QStringList calls;
public slots:
    void cancel() { calls << "cancel"; }
    void close() { calls << "close"; }
    void openInstalledApp() { calls << "app"; }
    void openInstallDir() { calls << "folder"; }
};

// Named after the pictures the state leaves. `flags` holds "error", "finished"
// and a language; `sees` is what the user sees and does: title|percentage|
// steps|shine, elision|what each visible button calls, left to right. One
// letter per step: passed, current (ring shown), Current (no ring), error, future.
struct ViewRow
{
    int phase, progress;
    const char *flags, *status, *sees, *shots;
};
Q_DECLARE_METATYPE(ViewRow)

static const ViewRow viewRows[] = {
    {0, 0, "", "Connecting...", "Downloading Update||cffff|shine|cancel", "phase0"},
    {1, 0, "", "0.0 MB / 3.0 MB", "Downloading Update|0%|pcfff|shine|cancel", "progress0"},
    {1, 42, "", "1.3 MB / 3.0 MB", "Downloading Update|42%|pcfff|shine|cancel", "phase1"},
    {1, 100, "", "3.0 MB / 3.0 MB", "Downloading Update|100%|pcfff|shine|cancel", "progress100"},
    {2, 0, "", "Verifying the downloaded file...", "Downloading Update|0%|ppcff|shine|cancel", "phase2"},
    {3, 0, "", "Preparing the update...", "Downloading Update||pppcf|shine|cancel", "phase3"},
    {4, 100, "", "Installation complete.", "Installation Complete||ppppC||cancel app folder", "phase4-running"},
    {4, 100, "finished", "Installation complete.", "Installation Complete||ppppC||close app folder", "phase4"},
    {4, 0, "finished en", "Installation complete.", "Installation Complete||ppppC||close app folder", "phase4-en"},
    {2, 0, "error", "Zip extraction failed.", "Installation Failed|0%|ppeff||cancel", "error-phase2-running"},
    {2, 0, "error finished", "The update file could not be verified (SHA-256).", "Installation Failed|0%|ppeff||close",
     "error-phase2"},
    {4, 100, "error finished", "The update could not be applied.", "Installation Failed||ppppe||close app folder",
     "error-phase4"},
    {-1, 0, "error finished", "The update address is not secure (HTTPS required).", "Installation Failed||fffff||close",
     "error-refused"},
    {1, 73, "", "Verifying the downloaded file against its published SHA-256 digest before anything is extracted",
     "Downloading Update|73%|pcfff|shine elided|cancel", "long-status"},
    {4, 0, "finished tr", "Kurulum tamamlandı.", "Kurulum Tamamlandı||ppppC||close app folder", "phase4-tr"},
    {4, 0, "finished it", "Installazione completata.", "Installazione completata||ppppC||close app folder",
     "phase4-it"},
};

// Through the visual tree: a Repeater's items are not its QObject children.
static QQuickItem *findItem(QQuickItem *item, const QString &name)
{
    QQuickItem *found = item->objectName() == name ? item : nullptr;
    for (QQuickItem *child : item->childItems())
        found = found ? found : findItem(child, name);
    return found;
}

class TestDownloadWindow : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY(QFile(":/updater/translations.json").open(QIODevice::ReadOnly));
        registerPhaseType();
        recordWarnings();
    }

    void showsEachState_data()
    {
        QTest::addColumn<ViewRow>("row");
        for (const ViewRow &row : viewRows)
            QTest::newRow(row.shots) << row;
    }

    void showsEachState()
    {
        QFETCH(ViewRow, row);
        recordedWarnings().clear();
        const QStringList flags = QString(row.flags).split(' '); // a language comes last
        qputenv("VELMORA_DEFAULT_LANGUAGE", flags.last().size() == 2 ? flags.last().toUtf8() : "en");
        StandIn standIn;
        standIn.insert(
            {{"phase", row.phase}, {"progress", row.progress}, {"status", row.status}, {"version", "2.7.1"}});
        standIn.insert({{"isFinished", flags.contains("finished")}, {"hasError", flags.contains("error")}});
        QQuickView window; // goes before the object it binds to, as in the dialog
        window.rootContext()->setContextProperty("downloader", &standIn);
        window.rootContext()->setContextProperty("upd", updaterStrings());
        window.setSource(QUrl("qrc:/qml/download.qml"));
        window.show();
        QVERIFY(window.status() == QQuickView::Ready && QTest::qWaitForWindowExposed(&window));
        const auto item = [&window](const QString &name) { return findItem(window.contentItem(), name); };
        const auto text = [&item](const QString &name) { return item(name)->property("text").toString(); };
        const auto rect = [&item](const QString &n) { return item(n)->mapRectToScene(QRectF({}, item(n)->size())); };

        QCOMPARE(text("brand") + text("versionText") + text("statusText"), "VELMORAv2.7.1" + QString(row.status));
        // However long the status, the percentage keeps its place at the end of the bar.
        QCOMPARE(rect("percentText").right(), rect("progressTrack").right());
        QVERIFY(rect("statusText").right() <= rect("percentText").left());
        QString seen = text("title") + '|' + text("percentText") + '|';
        const QStringList looks{"✓#5b8cff", "n#2a3a6e ring", "n#2a3a6e", "n#e05c5c", "n#1e1e38"};
        for (int index = 0; index < 5; ++index) {
            const QString n = QString::number(index), mark = text("stepMark" + n);
            const QString look = (mark == QString::number(index + 1) ? "n" : mark)
                + item("stepDot" + n)->property("color").toString()
                + (item("pulseRing" + n)->isVisible() ? " ring" : "");
            seen += QString("?pcCef").at(looks.indexOf(look) + 1);
        }
        seen += QString(item("shine")->isVisible() ? "|shine" : "|")
            + (item("statusText")->property("truncated").toBool() ? " elided|" : "|");

        // Before the pointer hovers a button; late enough for the rings to show.
        if (const QString dir = qEnvironmentVariable("VELMORA_SCREENSHOT_DIR"); !dir.isEmpty()) {
            QTest::qWait(650);
            for (const QString &shot : QString(row.shots).split(' '))
                QVERIFY(QDir().mkpath(dir) && window.grabWindow().save(dir + '/' + shot + ".png"));
        }
        for (const QString button : {"firstButton", "openAppButton", "openFolderButton"})
            if (item(button)->isVisible())
                QTest::mouseClick(&window, Qt::LeftButton, {}, rect(button).center().toPoint());
        QCOMPARE(seen + standIn.calls.join(' '), row.sees);
        QCOMPARE(text("firstButtonText"), updaterStrings().value("upd_btn_" + standIn.calls.value(0)).toString());
        QVERIFY2(recordedWarnings().isEmpty(), qPrintable(recordedWarnings().join('\n')));
    }

    void aBrokenViewIsReportedAndLeavesATitledFixedWindow()
    {
        qputenv("VELMORA_DEFAULT_LANGUAGE", "it");
        const QUrl source = QUrl::fromLocalFile(QDir::temp().filePath("broken.qml"));
        QVERIFY(writeFile(source.toLocalFile(), "import NoSuchModule 1.0\nimport AnotherMissing 2.0\nItem {}\n"));
        DownloadDialog dialog("2.0.0", "http://127.0.0.1:9/p.zip", QString(64, 'a'), false, nullptr, source);
        QQuickView *view = dialog.window();

        QStringList expected;
        for (const QQmlError &error : view->errors())
            expected << "[DownloadDialog] QML error: " + error.toString();
        QVERIFY(expected.size() > 1 && !view->rootObject());
        QCOMPARE(recordedWarnings().filter("[DownloadDialog]"),
                 expected << "[DownloadDialog] Source URL: " + source.toString());
        QCOMPARE(view->title(), "Aggiornamento Velmora");
        QCOMPARE(QList<QSize>({view->size(), view->minimumSize(), view->maximumSize()}),
                 QList<QSize>(3, QSize(460, 300)));
    }
};

QTEST_MAIN(TestDownloadWindow)
#include "tst_downloadwindow.moc"
