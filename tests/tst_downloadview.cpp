#include "localisation.h"

#include <QColor>
#include <QDir>
#include <QFont>
#include <QQmlContext>
#include <QQuickItem>
#include <QQuickView>
#include <QSettings>
#include <QtTest>

#include <memory>

// Stands in for the Downloader: the same six properties and four slots, but
// every value can be set from the test and every slot call is recorded.
class StandInDownloader : public QObject
{
    Q_OBJECT
    Q_PROPERTY(int progress READ progress NOTIFY progressChanged)
    Q_PROPERTY(QString status READ status NOTIFY statusChanged)
    Q_PROPERTY(bool isFinished READ isFinished NOTIFY isFinishedChanged)
    Q_PROPERTY(bool hasError READ hasError NOTIFY hasErrorChanged)
    Q_PROPERTY(int phase READ phase NOTIFY phaseChanged)
    Q_PROPERTY(QString version READ version CONSTANT)

public:
    int progress() const { return m_progress; }
    QString status() const { return m_status; }
    bool isFinished() const { return m_isFinished; }
    bool hasError() const { return m_hasError; }
    int phase() const { return m_phase; }
    QString version() const { return QStringLiteral("2.7.1"); }

    void setProgress(int value) { set(m_progress, value, &StandInDownloader::progressChanged); }
    void setStatus(const QString &value) { set(m_status, value, &StandInDownloader::statusChanged); }
    void setIsFinished(bool value) { set(m_isFinished, value, &StandInDownloader::isFinishedChanged); }
    void setHasError(bool value) { set(m_hasError, value, &StandInDownloader::hasErrorChanged); }
    void setPhase(int value) { set(m_phase, value, &StandInDownloader::phaseChanged); }

    QStringList calls;

signals:
    void progressChanged();
    void statusChanged();
    void isFinishedChanged();
    void hasErrorChanged();
    void phaseChanged();

public slots:
    void cancel() { calls << QStringLiteral("cancel"); }
    void openInstallDir() { calls << QStringLiteral("openInstallDir"); }
    void openInstalledApp() { calls << QStringLiteral("openInstalledApp"); }
    void close() { calls << QStringLiteral("close"); }

private:
    template<typename T>
    void set(T &member, const T &value, void (StandInDownloader::*changed)())
    {
        if (member == value)
            return;
        member = value;
        emit(this->*changed)();
    }

    int m_progress = 0;
    QString m_status;
    bool m_isFinished = false;
    bool m_hasError = false;
    int m_phase = 0;
};

namespace {

const QColor accent("#5b8cff");
const QColor accentDim("#2a3a6e");
const QColor success("#4caf7d");
const QColor errorClr("#e05c5c");
const QColor textMain("#e8e8f0");
const QColor textDim("#7070a0");
const QColor futureFill("#1e1e38");
const QColor futureBorder("#2a2a48");

QStringList qmlWarnings;

void recordWarnings(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    // The offscreen platform reports window hints it cannot honour; that is
    // not the view's doing.
    if (message.startsWith(QLatin1String("This plugin does not support")))
        return;
    if (type != QtDebugMsg && type != QtInfoMsg)
        qmlWarnings << message;
    fprintf(stderr, "%s: %s\n", context.category, qPrintable(message));
}

QQuickItem *findItem(QQuickItem *item, const QString &name)
{
    if (!item)
        return nullptr;
    if (item->objectName() == name)
        return item;
    const QList<QQuickItem *> children = item->childItems();
    for (QQuickItem *child : children) {
        if (QQuickItem *found = findItem(child, name))
            return found;
    }
    return nullptr;
}

QQuickItem *mouseAreaOf(QQuickItem *button)
{
    const QList<QQuickItem *> children = button->childItems();
    for (QQuickItem *child : children) {
        if (child->inherits("QQuickMouseArea"))
            return child;
    }
    return nullptr;
}

QColor colorOf(QObject *object)
{
    return object->property("color").value<QColor>();
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
    void initTestCase();
    void init();
    void cleanup();

    void showsState_data();
    void showsState();
    void showsSteps_data();
    void showsSteps();
    void buttonsCallTheirSlot_data();
    void buttonsCallTheirSlot();
    void firstButtonBecomesCloseWhenFinished();
    void buttonsLightUpWhileHovered_data();
    void buttonsLightUpWhileHovered();
    void progressFillAnimatesToItsWidth_data();
    void progressFillAnimatesToItsWidth();
    void pulsesStopWhereTheyAreOnError();
    void speaksEveryLanguage_data();
    void speaksEveryLanguage();

private:
    bool showView();
    QQuickItem *item(const QString &name);
    void click(const QString &name);
    void saveScreenshot(const QString &fileName);

    // The view goes before the object it binds to, as in the window.
    std::unique_ptr<StandInDownloader> downloader;
    std::unique_ptr<QQuickView> view;
    QVariantMap strings;
};

void TestDownloadView::initTestCase()
{
    Q_INIT_RESOURCE(updater);
    qInstallMessageHandler(recordWarnings);
    strings = updaterStrings();
    QVERIFY(strings.contains(QStringLiteral("upd_title_loading")));
}

void TestDownloadView::init()
{
    qmlWarnings.clear();
    downloader = std::make_unique<StandInDownloader>();
}

void TestDownloadView::cleanup()
{
    view.reset();
    downloader.reset();
    QSettings(QStringLiteral("VelmoraLabs"), QStringLiteral("Velmora")).remove(QStringLiteral("ui/language"));
    if (!qmlWarnings.isEmpty())
        QFAIL(qPrintable(QStringLiteral("the view logged: ") + qmlWarnings.join(QLatin1String(" | "))));
}

bool TestDownloadView::showView()
{
    view = std::make_unique<QQuickView>();
    view->rootContext()->setContextProperty(QStringLiteral("downloader"), downloader.get());
    view->rootContext()->setContextProperty(QStringLiteral("upd"), QVariant(updaterStrings()));
    view->setResizeMode(QQuickView::SizeRootObjectToView);
    view->setSource(QUrl(QStringLiteral("qrc:/qml/download.qml")));
    view->resize(460, 300);
    view->show();
    return view->status() == QQuickView::Ready && QTest::qWaitForWindowExposed(view.get());
}

QQuickItem *TestDownloadView::item(const QString &name)
{
    QQuickItem *found = findItem(view->rootObject(), name);
    if (!found)
        qWarning("no item named %s", qPrintable(name));
    return found;
}

void TestDownloadView::click(const QString &name)
{
    const QPoint centre = sceneRect(item(name)).center().toPoint();
    QTest::mouseClick(view.get(), Qt::LeftButton, Qt::NoModifier, centre);
}

// With VELMORA_SCREENSHOT_DIR set, the state tests also leave a picture of
// each state there, for the documentation and for a look by eye.
void TestDownloadView::saveScreenshot(const QString &fileName)
{
    const QString dir = qEnvironmentVariable("VELMORA_SCREENSHOT_DIR");
    if (dir.isEmpty())
        return;
    // Let the pulses get going so that the picture shows them.
    QTest::qWait(650);
    QDir().mkpath(dir);
    const QImage image = view->grabWindow();
    QVERIFY(!image.isNull());
    QVERIFY(image.save(dir + QLatin1Char('/') + fileName));
}

void TestDownloadView::showsState_data()
{
    QTest::addColumn<int>("phase");
    QTest::addColumn<int>("progress");
    QTest::addColumn<bool>("hasError");
    QTest::addColumn<bool>("isFinished");
    QTest::addColumn<QString>("status");
    QTest::addColumn<QString>("titleKey");
    QTest::addColumn<QColor>("stateColour");
    QTest::addColumn<QString>("percent");
    QTest::addColumn<QString>("firstKey");
    QTest::addColumn<bool>("actions");
    QTest::addColumn<int>("ring");
    QTest::addColumn<bool>("headerPulse");
    QTest::addColumn<bool>("elided");
    QTest::addColumn<QString>("shot");

    const QString longStatus = QStringLiteral("Verifying the downloaded file against its published SHA-256 digest "
                                              "before anything is extracted or installed, which takes a while");

    // Title colour and state colour differ only while loading: the title
    // stays in the main text colour, the bar and dot in the accent.
    QTest::newRow("connecting") << 0 << 0 << false << false << "Connecting..." << "upd_title_loading" << accent
                                << "" << "upd_btn_cancel" << false << 0 << false << false << "phase0.png";
    QTest::newRow("download started") << 1 << 0 << false << false << "0.0 MB / 3.0 MB" << "upd_title_loading"
                                      << accent << "0%" << "upd_btn_cancel" << false << 1 << true << false
                                      << "progress0.png";
    QTest::newRow("downloading") << 1 << 42 << false << false << "1.3 MB / 3.0 MB" << "upd_title_loading"
                                 << accent << "42%" << "upd_btn_cancel" << false << 1 << true << false
                                 << "phase1.png";
    QTest::newRow("download complete") << 1 << 100 << false << false << "3.0 MB / 3.0 MB"
                                       << "upd_title_loading" << accent << "100%" << "upd_btn_cancel" << false
                                       << 1 << true << false << "progress100.png";
    QTest::newRow("extracting") << 2 << 0 << false << false << "Verifying the downloaded file..."
                                << "upd_title_loading" << accent << "0%" << "upd_btn_cancel" << false << 2
                                << true << false << "phase2.png";
    QTest::newRow("installing") << 3 << 0 << false << false << "Preparing the update..." << "upd_title_loading"
                                << accent << "" << "upd_btn_cancel" << false << 3 << true << false
                                << "phase3.png";
    QTest::newRow("done, run not over") << 4 << 100 << false << false << "Installation complete."
                                        << "upd_title_done" << success << "" << "upd_btn_cancel" << true << -1
                                        << false << false << "phase4-running.png";
    QTest::newRow("done and finished") << 4 << 100 << false << true << "Installation complete."
                                       << "upd_title_done" << success << "" << "upd_btn_close" << true << -1
                                       << false << false << "phase4.png";
    QTest::newRow("error reported, run not over")
        << 2 << 0 << true << false << "Zip extraction failed." << "upd_title_failed" << errorClr << "0%"
        << "upd_btn_cancel" << false << -1 << false << false << "error-phase2-running.png";
    QTest::newRow("error while extracting")
        << 2 << 0 << true << true << "The update file could not be verified (SHA-256)." << "upd_title_failed"
        << errorClr << "0%" << "upd_btn_close" << false << -1 << false << false << "error-phase2.png";
    QTest::newRow("error after the last step")
        << 4 << 100 << true << true << "The update could not be applied." << "upd_title_failed" << errorClr << ""
        << "upd_btn_close" << true << -1 << false << false << "error-phase4.png";
    QTest::newRow("refused before the download")
        << -1 << 0 << true << true << "The update address is not secure (HTTPS required)." << "upd_title_failed"
        << errorClr << "" << "upd_btn_close" << false << -1 << false << false << "error-refused.png";
    QTest::newRow("long status") << 1 << 73 << false << false << longStatus << "upd_title_loading" << accent
                                 << "73%" << "upd_btn_cancel" << false << 1 << true << true
                                 << "long-status.png";
}

void TestDownloadView::showsState()
{
    QFETCH(int, phase);
    QFETCH(int, progress);
    QFETCH(bool, hasError);
    QFETCH(bool, isFinished);
    QFETCH(QString, status);
    QFETCH(QString, titleKey);
    QFETCH(QColor, stateColour);
    QFETCH(QString, percent);
    QFETCH(QString, firstKey);
    QFETCH(bool, actions);
    QFETCH(int, ring);
    QFETCH(bool, headerPulse);
    QFETCH(bool, elided);
    QFETCH(QString, shot);

    downloader->setPhase(phase);
    downloader->setProgress(progress);
    downloader->setHasError(hasError);
    downloader->setIsFinished(isFinished);
    downloader->setStatus(status);
    QVERIFY(showView());

    QQuickItem *title = item(QStringLiteral("title"));
    QCOMPARE(title->property("text").toString(), strings.value(titleKey).toString());
    QCOMPARE(colorOf(title), stateColour == accent ? textMain : stateColour);
    QCOMPARE(colorOf(item(QStringLiteral("statusDot"))), stateColour);
    QCOMPARE(colorOf(item(QStringLiteral("progressFill"))), stateColour);
    QCOMPARE(item(QStringLiteral("versionText"))->property("text").toString(), QStringLiteral("v2.7.1"));

    QQuickItem *statusText = item(QStringLiteral("statusText"));
    QQuickItem *percentText = item(QStringLiteral("percentText"));
    QCOMPARE(statusText->property("text").toString(), status);
    QCOMPARE(colorOf(statusText), hasError ? errorClr : textDim);
    QCOMPARE(statusText->property("truncated").toBool(), elided);
    QCOMPARE(percentText->property("text").toString(), percent);
    QCOMPARE(colorOf(percentText), accent);
    // The percentage keeps its full width at the right end of the bar, and
    // the status line stops short of it.
    const QRectF track = sceneRect(item(QStringLiteral("progressTrack")));
    QVERIFY(percentText->width() >= percentText->implicitWidth());
    QCOMPARE(sceneRect(percentText).right(), track.right());
    QVERIFY(sceneRect(statusText).right() <= sceneRect(percentText).left());

    QCOMPARE(item(QStringLiteral("progressFill"))->width(), track.width() * progress / 100);

    QCOMPARE(item(QStringLiteral("firstButtonText"))->property("text").toString(),
             strings.value(firstKey).toString());
    QVERIFY(item(QStringLiteral("firstButton"))->isVisible());
    QCOMPARE(item(QStringLiteral("openAppButton"))->isVisible(), actions);
    QCOMPARE(item(QStringLiteral("openFolderButton"))->isVisible(), actions);

    for (int index = 0; index < 5; ++index) {
        QQuickItem *pulseRing = item(QStringLiteral("pulseRing%1").arg(index));
        QCOMPARE(pulseRing->isVisible(), index == ring);
        QObject *ringAnimation = pulseRing->findChild<QObject *>(QStringLiteral("pulseRingAnimation%1").arg(index));
        QVERIFY(ringAnimation);
        QCOMPARE(ringAnimation->property("running").toBool(), index == ring);
    }
    QObject *dotPulse = item(QStringLiteral("statusDot"))->findChild<QObject *>(QStringLiteral("statusDotPulse"));
    QVERIFY(dotPulse);
    QCOMPARE(dotPulse->property("running").toBool(), headerPulse);
    QCOMPARE(item(QStringLiteral("shine"))->isVisible(), !hasError && phase < 4);

    const QColor glow = hasError ? QColor("#3a0a0a") : phase == 4 ? QColor("#0a2a1a") : QColor("#0a0a2a");
    QCOMPARE(colorOf(item(QStringLiteral("glow"))), glow);

    saveScreenshot(shot);
}

void TestDownloadView::showsSteps_data()
{
    QTest::addColumn<int>("phase");
    QTest::addColumn<bool>("hasError");
    // One letter per step, left to right: passed, current, error, future.
    QTest::addColumn<QString>("steps");

    QTest::newRow("connecting") << 0 << false << "cffff";
    QTest::newRow("downloading") << 1 << false << "pcfff";
    QTest::newRow("extracting") << 2 << false << "ppcff";
    QTest::newRow("installing") << 3 << false << "pppcf";
    QTest::newRow("done: the last step is never ticked") << 4 << false << "ppppc";
    QTest::newRow("error while extracting") << 2 << true << "ppeff";
    QTest::newRow("error after the last step") << 4 << true << "ppppe";
    QTest::newRow("failed: no step reached") << -1 << true << "fffff";
}

void TestDownloadView::showsSteps()
{
    QFETCH(int, phase);
    QFETCH(bool, hasError);
    QFETCH(QString, steps);

    downloader->setPhase(phase);
    downloader->setHasError(hasError);
    QVERIFY(showView());

    const QStringList labelKeys = {QStringLiteral("upd_phase_connecting"), QStringLiteral("upd_phase_downloading"),
                                   QStringLiteral("upd_phase_extracting"), QStringLiteral("upd_phase_installing"),
                                   QStringLiteral("upd_phase_done")};
    const QRectF track = sceneRect(item(QStringLiteral("progressTrack")));
    qreal previousRight = track.left();
    for (int index = 0; index < 5; ++index) {
        const QChar state = steps.at(index);
        const bool passed = state == QLatin1Char('p');
        const bool reached = state != QLatin1Char('f');
        const bool current = state == QLatin1Char('c') || state == QLatin1Char('e');
        const QString context = QStringLiteral("step %1").arg(index);

        QQuickItem *dot = item(QStringLiteral("stepDot%1").arg(index));
        QQuickItem *mark = item(QStringLiteral("stepMark%1").arg(index));
        QQuickItem *label = item(QStringLiteral("stepLabel%1").arg(index));
        QVERIFY2(dot && mark && label, qPrintable(context));

        const QColor fill = state == QLatin1Char('e') ? errorClr
                            : passed                  ? accent
                            : current                 ? accentDim
                                                      : futureFill;
        const QColor border = state == QLatin1Char('e') ? errorClr : reached ? accent : futureBorder;
        QVERIFY2(colorOf(dot) == fill, qPrintable(context));
        QVERIFY2(colorOf(dot->property("border").value<QObject *>()) == border, qPrintable(context));

        QCOMPARE(mark->property("text").toString(), passed ? QStringLiteral("✓") : QString::number(index + 1));
        QVERIFY2(colorOf(mark) == (reached ? textMain : textDim), qPrintable(context));
        QVERIFY2(mark->property("font").value<QFont>().bold() == passed, qPrintable(context));

        QCOMPARE(label->property("text").toString(), strings.value(labelKeys.at(index)).toString());
        QVERIFY2(colorOf(label) == (passed ? accent : current ? textMain : textDim), qPrintable(context));
        QVERIFY2((label->property("font").value<QFont>().weight() == QFont::DemiBold) == current,
                 qPrintable(context));

        // Steps run from left to right across the whole width, joined by
        // connectors of one length, each label centred under its dot.
        const QRectF dotRect = sceneRect(dot);
        if (index > 0) {
            QQuickItem *connector = item(QStringLiteral("connector%1").arg(index));
            QVERIFY2(colorOf(connector) == (reached ? accent : accentDim), qPrintable(context));
            QCOMPARE(connector->width(), (track.width() - 5 * dotRect.width()) / 4);
            QCOMPARE(sceneRect(connector).left(), previousRight);
            QCOMPARE(sceneRect(connector).right(), dotRect.left());
        } else {
            QCOMPARE(dotRect.left(), track.left());
        }
        QVERIFY2(qAbs(sceneRect(label).center().x() - dotRect.center().x()) <= 1, qPrintable(context));
        previousRight = dotRect.right();
    }
    QCOMPARE(previousRight, track.right());
}

void TestDownloadView::buttonsCallTheirSlot_data()
{
    QTest::addColumn<int>("phase");
    QTest::addColumn<bool>("isFinished");
    QTest::addColumn<QString>("button");
    QTest::addColumn<QString>("call");

    QTest::newRow("cancel while downloading") << 1 << false << "firstButton" << "cancel";
    QTest::newRow("cancel once done but not finished") << 4 << false << "firstButton" << "cancel";
    QTest::newRow("close once finished") << 4 << true << "firstButton" << "close";
    QTest::newRow("close after a refusal") << -1 << true << "firstButton" << "close";
    QTest::newRow("open the application") << 4 << true << "openAppButton" << "openInstalledApp";
    QTest::newRow("open the folder") << 4 << true << "openFolderButton" << "openInstallDir";
}

void TestDownloadView::buttonsCallTheirSlot()
{
    QFETCH(int, phase);
    QFETCH(bool, isFinished);
    QFETCH(QString, button);
    QFETCH(QString, call);

    downloader->setPhase(phase);
    downloader->setIsFinished(isFinished);
    downloader->setHasError(phase < 0);
    QVERIFY(showView());

    click(button);
    QCOMPARE(downloader->calls, QStringList{call});
}

void TestDownloadView::firstButtonBecomesCloseWhenFinished()
{
    downloader->setPhase(4);
    QVERIFY(showView());
    QQuickItem *caption = item(QStringLiteral("firstButtonText"));
    QCOMPARE(caption->property("text").toString(), strings.value(QStringLiteral("upd_btn_cancel")).toString());

    downloader->setIsFinished(true);
    QCOMPARE(caption->property("text").toString(), strings.value(QStringLiteral("upd_btn_close")).toString());
    click(QStringLiteral("firstButton"));
    QCOMPARE(downloader->calls, QStringList{QStringLiteral("close")});
}

void TestDownloadView::buttonsLightUpWhileHovered_data()
{
    QTest::addColumn<QString>("button");
    QTest::addColumn<QColor>("normal");
    QTest::addColumn<QColor>("hovered");

    QTest::newRow("first") << "firstButton" << QColor("#1a1a34") << QColor("#252540");
    QTest::newRow("open application") << "openAppButton" << accent << QColor("#7aaaff");
    QTest::newRow("open folder") << "openFolderButton" << accent << QColor("#7aaaff");
}

void TestDownloadView::buttonsLightUpWhileHovered()
{
    QFETCH(QString, button);
    QFETCH(QColor, normal);
    QFETCH(QColor, hovered);

    downloader->setPhase(4);
    downloader->setIsFinished(true);
    QVERIFY(showView());

    QQuickItem *target = item(button);
    QQuickItem *area = mouseAreaOf(target);
    QVERIFY(area);
    QCOMPARE(area->property("cursorShape").value<Qt::CursorShape>(), Qt::PointingHandCursor);
    QCOMPARE(colorOf(target), normal);

    // Start from outside: a move to where the pointer already is (after an
    // earlier click) is no move at all.
    QTest::mouseMove(view.get(), QPoint(5, 5));
    QTest::mouseMove(view.get(), sceneRect(target).center().toPoint());
    QTRY_COMPARE(colorOf(target), hovered);
    QTest::mouseMove(view.get(), QPoint(5, 5));
    QTRY_COMPARE(colorOf(target), normal);
    QVERIFY(downloader->calls.isEmpty());
}

void TestDownloadView::progressFillAnimatesToItsWidth_data()
{
    QTest::addColumn<int>("from");
    QTest::addColumn<int>("to");

    QTest::newRow("fills the whole track at 100") << 0 << 100;
    QTest::newRow("empties at 0") << 60 << 0;
    QTest::newRow("follows the percentage") << 10 << 42;
}

void TestDownloadView::progressFillAnimatesToItsWidth()
{
    QFETCH(int, from);
    QFETCH(int, to);

    downloader->setPhase(1);
    downloader->setProgress(from);
    QVERIFY(showView());
    QQuickItem *fill = item(QStringLiteral("progressFill"));
    const qreal trackWidth = item(QStringLiteral("progressTrack"))->width();
    QCOMPARE(trackWidth, 460.0 - 2 * 28);

    downloader->setProgress(to);
    // The fill glides to its new width instead of jumping.
    QCOMPARE(fill->width(), trackWidth * from / 100);
    QTRY_COMPARE(fill->width(), trackWidth * to / 100);

    // The shine rides on the right end of the fill.
    QQuickItem *shine = item(QStringLiteral("shine"));
    QCOMPARE(sceneRect(shine).right(), sceneRect(fill).right());
}

void TestDownloadView::pulsesStopWhereTheyAreOnError()
{
    downloader->setPhase(1);
    QVERIFY(showView());

    QQuickItem *dot = item(QStringLiteral("statusDot"));
    QQuickItem *ring = item(QStringLiteral("pulseRing1"));
    QTRY_VERIFY(dot->opacity() < 0.9);
    QTRY_VERIFY(ring->opacity() > 0.1);

    downloader->setHasError(true);
    const qreal stoppedAt = dot->opacity();
    QVERIFY(!ring->isVisible());
    QTest::qWait(300);
    QCOMPARE(dot->opacity(), stoppedAt);
    QVERIFY(stoppedAt < 1.0);
}

void TestDownloadView::speaksEveryLanguage_data()
{
    QTest::addColumn<QString>("language");
    QTest::addColumn<QString>("title");

    QTest::newRow("tr") << "tr" << QStringLiteral("Kurulum Tamamlandı");
    QTest::newRow("en") << "en" << QStringLiteral("Installation Complete");
    QTest::newRow("it") << "it" << QStringLiteral("Installazione completata");
}

void TestDownloadView::speaksEveryLanguage()
{
    QFETCH(QString, language);
    QFETCH(QString, title);

    QSettings(QStringLiteral("VelmoraLabs"), QStringLiteral("Velmora")).setValue(QStringLiteral("ui/language"), language);
    downloader->setPhase(4);
    downloader->setIsFinished(true);
    downloader->setStatus(translate("upd_install_done"));
    QVERIFY(showView());

    QCOMPARE(item(QStringLiteral("title"))->property("text").toString(), title);
    QCOMPARE(item(QStringLiteral("brand"))->property("text").toString(), QStringLiteral("VELMORA"));
    // Every caption fits inside its button in every language.
    for (const QString &button : {QStringLiteral("firstButton"), QStringLiteral("openAppButton"),
                                  QStringLiteral("openFolderButton")}) {
        QQuickItem *caption = item(button + QStringLiteral("Text"));
        QVERIFY2(!caption->property("text").toString().isEmpty(), qPrintable(button));
        QVERIFY2(caption->implicitWidth() < item(button)->width(), qPrintable(button));
    }
    // Step labels may be wider than their dots, but never run into each
    // other or out of the window.
    qreal previousRight = 0;
    for (int index = 0; index < 5; ++index) {
        QQuickItem *label = item(QStringLiteral("stepLabel%1").arg(index));
        QVERIFY(!label->property("text").toString().isEmpty());
        const qreal centre = sceneRect(label).center().x();
        const qreal halfWidth = label->property("contentWidth").toReal() / 2;
        QVERIFY2(centre - halfWidth > previousRight + 4, qPrintable(label->property("text").toString()));
        previousRight = centre + halfWidth;
    }
    QVERIFY(previousRight < view->width());

    saveScreenshot(QStringLiteral("phase4-%1.png").arg(language));
}

QTEST_MAIN(TestDownloadView)
#include "tst_downloadview.moc"
