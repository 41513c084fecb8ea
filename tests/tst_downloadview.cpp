#include "localisation.h"
#include "warnings.h"

#include <QColor>
#include <QDir>
#include <QQmlContext>
#include <QQuickItem>
#include <QQuickView>
#include <QSettings>
#include <QtTest>

#include <memory>

// Stands in for the Downloader: the same properties and slots, every value
// set by the test and every slot call recorded.
class StandInDownloader : public QObject
{
    Q_OBJECT
    Q_PROPERTY(int progress MEMBER progress NOTIFY changed)
    Q_PROPERTY(QString status MEMBER status NOTIFY changed)
    Q_PROPERTY(bool isFinished MEMBER isFinished NOTIFY changed)
    Q_PROPERTY(bool hasError MEMBER hasError NOTIFY changed)
    Q_PROPERTY(int phase MEMBER phase NOTIFY changed)
    Q_PROPERTY(QString version MEMBER version CONSTANT)

public:
    int progress = 0;
    QString status;
    bool isFinished = false;
    bool hasError = false;
    int phase = 0;
    QString version = QStringLiteral("2.7.1");
    QStringList calls;

signals:
    void changed();

public slots:
    void cancel() { calls << QStringLiteral("cancel"); }
    void openInstallDir() { calls << QStringLiteral("openInstallDir"); }
    void openInstalledApp() { calls << QStringLiteral("openInstalledApp"); }
    void close() { calls << QStringLiteral("close"); }
};

namespace {

const QColor accent("#5b8cff");
const QColor accentDim("#2a3a6e");
const QColor success("#4caf7d");
const QColor errorClr("#e05c5c");
const QColor textMain("#e8e8f0");
const QColor textDim("#7070a0");

QColor colorOf(QObject *object)
{
    return object->property("color").value<QColor>();
}

// Through the visual tree: a Repeater's items are not its QObject children.
QQuickItem *findItem(QQuickItem *item, const QString &name)
{
    if (item->objectName() == name)
        return item;
    const QList<QQuickItem *> children = item->childItems();
    for (QQuickItem *child : children) {
        if (QQuickItem *found = findItem(child, name))
            return found;
    }
    return nullptr;
}

QRectF sceneRect(QQuickItem *item)
{
    return item->mapRectToScene(QRectF(0, 0, item->width(), item->height()));
}

} // namespace

class TestDownloadView : public QObject
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
        downloader = std::make_unique<StandInDownloader>();
    }

    void cleanup()
    {
        view.reset();
        downloader.reset();
        QSettings("VelmoraLabs", "Velmora").remove("ui/language");
        QVERIFY2(recordedWarnings().isEmpty(), qPrintable("the view logged: " + recordedWarnings().join(" | ")));
    }

    void showsEachState_data()
    {
        QTest::addColumn<int>("phase");
        QTest::addColumn<int>("progress");
        QTest::addColumn<bool>("hasError");
        QTest::addColumn<bool>("isFinished");
        QTest::addColumn<QString>("status");
        QTest::addColumn<QString>("percent");
        // One letter per step, left to right: passed, current and pulsing,
        // Current and still, error, future.
        QTest::addColumn<QString>("steps");
        // What a click on each visible button calls, left to right.
        QTest::addColumn<QStringList>("calls");
        QTest::addColumn<QString>("shot");

        const QStringList cancel{"cancel"};
        const QStringList close{"close"};
        const QStringList closeAndOpen{"close", "openInstalledApp", "openInstallDir"};
        const QString longStatus = "Verifying the downloaded file against its published SHA-256 digest before anything "
                                   "is extracted or installed, which takes a while";
        QTest::newRow("connecting") << 0 << 0 << false << false << "Connecting..." << "" << "cffff" << cancel << "phase0.png";
        QTest::newRow("download started") << 1 << 0 << false << false << "0.0 MB / 3.0 MB" << "0%" << "pcfff" << cancel
                                          << "progress0.png";
        QTest::newRow("downloading") << 1 << 42 << false << false << "1.3 MB / 3.0 MB" << "42%" << "pcfff" << cancel
                                     << "phase1.png";
        QTest::newRow("download complete") << 1 << 100 << false << false << "3.0 MB / 3.0 MB" << "100%" << "pcfff" << cancel
                                           << "progress100.png";
        QTest::newRow("extracting") << 2 << 0 << false << false << "Verifying the downloaded file..." << "0%" << "ppcff"
                                    << cancel << "phase2.png";
        QTest::newRow("installing") << 3 << 0 << false << false << "Preparing the update..." << "" << "pppcf" << cancel
                                    << "phase3.png";
        QTest::newRow("done, run not over") << 4 << 100 << false << false << "Installation complete." << "" << "ppppC"
                                            << QStringList{"cancel", "openInstalledApp", "openInstallDir"}
                                            << "phase4-running.png";
        QTest::newRow("done and finished") << 4 << 100 << false << true << "Installation complete." << "" << "ppppC"
                                           << closeAndOpen << "phase4.png";
        QTest::newRow("error reported, run not over") << 2 << 0 << true << false << "Zip extraction failed." << "0%"
                                                      << "ppeff" << cancel << "error-phase2-running.png";
        QTest::newRow("error while extracting") << 2 << 0 << true << true << "The update file could not be verified (SHA-256)."
                                                << "0%" << "ppeff" << close << "error-phase2.png";
        QTest::newRow("error after the last step") << 4 << 100 << true << true << "The update could not be applied." << ""
                                                   << "ppppe" << closeAndOpen << "error-phase4.png";
        QTest::newRow("refused before the download") << -1 << 0 << true << true
                                                     << "The update address is not secure (HTTPS required)."
                                                     << "" << "fffff" << close << "error-refused.png";
        QTest::newRow("long status") << 1 << 73 << false << false << longStatus << "73%" << "pcfff" << cancel
                                     << "long-status.png";
    }

    void showsEachState()
    {
        QFETCH(int, phase);
        QFETCH(int, progress);
        QFETCH(bool, hasError);
        QFETCH(bool, isFinished);
        QFETCH(QString, status);
        QFETCH(QString, percent);
        QFETCH(QString, steps);
        QFETCH(QStringList, calls);
        QFETCH(QString, shot);
        downloader->phase = phase;
        downloader->progress = progress;
        downloader->hasError = hasError;
        downloader->isFinished = isFinished;
        downloader->status = status;
        QVERIFY(showView());

        // Error wins over completion, completion over progress.
        const QString title = hasError ? "upd_title_failed" : phase == 4 ? "upd_title_done" : "upd_title_loading";
        QCOMPARE(text("title"), upd(title));
        QCOMPARE(colorOf(item("title")), hasError ? errorClr : phase == 4 ? success : textMain);
        QCOMPARE(colorOf(item("progressFill")), hasError ? errorClr : phase == 4 ? success : accent);
        QCOMPARE(text("versionText"), "v2.7.1");
        QCOMPARE(text("statusText"), status);
        QCOMPARE(colorOf(item("statusText")), hasError ? errorClr : textDim);
        QCOMPARE(text("percentText"), percent);
        QCOMPARE(item("progressFill")->width(), item("progressTrack")->width() * progress / 100);
        // A long status is elided short of the percentage, which keeps its place
        // at the right end of the bar.
        QCOMPARE(item("statusText")->property("truncated").toBool(), QTest::currentDataTag() == QLatin1String("long status"));
        QCOMPARE(sceneRect(item("percentText")).right(), sceneRect(item("progressTrack")).right());
        QVERIFY(sceneRect(item("statusText")).right() <= sceneRect(item("percentText")).left());

        for (int index = 0; index < 5; ++index) {
            const QChar state = steps.at(index);
            const bool passed = state == 'p', future = state == 'f', current = !passed && !future;
            QQuickItem *dot = item(QStringLiteral("stepDot%1").arg(index));
            const QString context = QStringLiteral("step %1").arg(index);
            QVERIFY2(colorOf(dot) == (state == 'e' ? errorClr : passed ? accent : current ? accentDim : QColor("#1e1e38")),
                     qPrintable(context));
            QVERIFY2(colorOf(dot->property("border").value<QObject *>())
                         == (state == 'e' ? errorClr : future ? QColor("#2a2a48") : accent),
                     qPrintable(context));
            QCOMPARE(text(QStringLiteral("stepMark%1").arg(index)), passed ? "✓" : QString::number(index + 1));
            QVERIFY2(item(QStringLiteral("pulseRing%1").arg(index))->isVisible() == (state == 'c'), qPrintable(context));
            QQuickItem *label = item(QStringLiteral("stepLabel%1").arg(index));
            QCOMPARE(label->property("text").toString(),
                     upd(QStringList{"upd_phase_connecting", "upd_phase_downloading", "upd_phase_extracting",
                                     "upd_phase_installing", "upd_phase_done"}.at(index)));
            QVERIFY2(colorOf(label) == (passed ? accent : current ? textMain : textDim), qPrintable(context));
        }

        saveScreenshot(shot); // before the pointer hovers a button
        for (const QString &button : {"firstButton", "openAppButton", "openFolderButton"}) {
            if (item(button)->isVisible())
                QTest::mouseClick(view.get(), Qt::LeftButton, Qt::NoModifier, sceneRect(item(button)).center().toPoint());
        }
        QCOMPARE(downloader->calls, calls);
        QCOMPARE(text("firstButtonText"), upd(isFinished ? "upd_btn_close" : "upd_btn_cancel"));
    }

    void speaksEveryLanguage_data()
    {
        QTest::addColumn<QString>("language");
        QTest::addColumn<QString>("title");

        QTest::newRow("tr") << "tr" << QStringLiteral("Kurulum Tamamlandı");
        QTest::newRow("en") << "en" << QStringLiteral("Installation Complete");
        QTest::newRow("it") << "it" << QStringLiteral("Installazione completata");
    }

    void speaksEveryLanguage()
    {
        QFETCH(QString, language);
        QFETCH(QString, title);
        QSettings("VelmoraLabs", "Velmora").setValue("ui/language", language);
        downloader->phase = 4;
        downloader->isFinished = true;
        downloader->status = translate("upd_install_done");
        QVERIFY(showView());

        QCOMPARE(text("title"), title);
        // Every caption fits inside its button.
        for (const QString &button : {"firstButton", "openAppButton", "openFolderButton"})
            QVERIFY2(item(button + "Text")->implicitWidth() < item(button)->width(), qPrintable(button));
        // Step labels are centred under their dots and wider than them, but never
        // run into each other or out of the window.
        qreal previousRight = 0;
        for (int index = 0; index < 5; ++index) {
            QQuickItem *label = item(QStringLiteral("stepLabel%1").arg(index));
            const qreal centre = sceneRect(label).center().x();
            QVERIFY(qAbs(centre - sceneRect(item(QStringLiteral("stepDot%1").arg(index))).center().x()) <= 1);
            const qreal halfWidth = label->property("contentWidth").toReal() / 2;
            QVERIFY2(centre - halfWidth > previousRight + 4, qPrintable(label->property("text").toString()));
            previousRight = centre + halfWidth;
        }
        QVERIFY(previousRight < view->width());

        saveScreenshot(QStringLiteral("phase4-%1.png").arg(language));
    }

private:
    bool showView()
    {
        view = std::make_unique<QQuickView>();
        view->rootContext()->setContextProperty("downloader", downloader.get());
        view->rootContext()->setContextProperty("upd", QVariant(updaterStrings()));
        view->setResizeMode(QQuickView::SizeRootObjectToView);
        view->setSource(QUrl("qrc:/qml/download.qml"));
        view->resize(460, 300);
        view->show();
        return view->status() == QQuickView::Ready && QTest::qWaitForWindowExposed(view.get());
    }

    QQuickItem *item(const QString &name) const
    {
        QQuickItem *found = findItem(view->rootObject(), name);
        if (!found)
            qFatal("no item named %s", qPrintable(name));
        return found;
    }

    QString text(const QString &name) const { return item(name)->property("text").toString(); }
    QString upd(const QString &key) const { return updaterStrings().value(key).toString(); }

    // With VELMORA_SCREENSHOT_DIR set, each state also leaves its picture there,
    // for the documentation and for a look by eye.
    void saveScreenshot(const QString &fileName)
    {
        const QString dir = qEnvironmentVariable("VELMORA_SCREENSHOT_DIR");
        if (dir.isEmpty())
            return;
        QTest::qWait(650); // so that the pulses show
        QVERIFY(QDir().mkpath(dir));
        QVERIFY(view->grabWindow().save(dir + '/' + fileName));
    }

    // The view goes before the object it binds to, as in the window.
    std::unique_ptr<StandInDownloader> downloader;
    std::unique_ptr<QQuickView> view;
};

QTEST_MAIN(TestDownloadView)
#include "tst_downloadview.moc"
