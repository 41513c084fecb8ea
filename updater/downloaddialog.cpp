#include "downloaddialog.h"

#include "downloader.h"
#include "localisation.h"
#include "phase.h"

#include <QJSEngine>
#include <QQmlContext>
#include <QQmlEngine>
#include <QQmlError>
#include <QQuickView>
#include <QSize>
#include <QVariant>

void registerPhaseType()
{
    static const int registered = qmlRegisterUncreatableMetaObject(
        Phase::staticMetaObject, "Velmora", 1, 0, "Phase", QStringLiteral("Phase only names the stages of a run"));
    Q_UNUSED(registered);
}

DownloadDialog::DownloadDialog(const QString &version, const QString &downloadUrl, const QString &sha256,
                               bool packageFlag, QObject *parent, const QUrl &source)
    : QObject(parent)
    , view(new QQuickView)
    , downloader(new Downloader(version, downloadUrl, sha256, packageFlag, this))
{
    // Both objects belong to the application's object tree; the QML engine
    // must never collect them when the scene lets go of a reference.
    QJSEngine::setObjectOwnership(this, QJSEngine::CppOwnership);
    QJSEngine::setObjectOwnership(downloader, QJSEngine::CppOwnership);

    registerPhaseType();
    QQmlContext *context = view->rootContext();
    context->setContextProperty(QStringLiteral("downloader"), downloader);
    context->setContextProperty(QStringLiteral("upd"), QVariant(updaterStrings()));

    view->setResizeMode(QQuickView::SizeRootObjectToView);
    view->setSource(source);
    // A broken view is no reason to abandon the installation: the download
    // runs on regardless and the empty window still ends the run when closed.
    if (view->status() == QQuickView::Error || view->status() == QQuickView::Null) {
        const QList<QQmlError> errors = view->errors();
        for (const QQmlError &error : errors)
            qWarning().noquote() << "[DownloadDialog] QML error:" << error.toString();
        qWarning().noquote() << "[DownloadDialog] Source URL:" << view->source().toString();
    }

    view->setTitle(translate("upd_window_title"));
    view->resize(460, 300);
    view->setMinimumSize(QSize(460, 300));
    view->setMaximumSize(QSize(460, 300));

    connect(downloader, &Downloader::done, this, &DownloadDialog::finished);
    // Closing the window ends the run, even in the middle of a download.
    connect(view, &QWindow::visibleChanged, this, [this] {
        if (view && !view->isVisible())
            emit finished();
    });
    connect(downloader, &Downloader::progressChanged, this,
            [this] { emit progressChanged(downloader->progress(), downloader->status()); });
    connect(downloader, &Downloader::isFinishedChanged, this, [this] {
        if (!downloader->isFinished())
            return;
        if (!downloader->hasError())
            emit downloadComplete();
        else
            emit downloadFailed(downloader->status());
    });
}

DownloadDialog::~DownloadDialog()
{
    // Forget the view before deleting it, so that its disappearing during
    // destruction is not taken for the user closing the window.
    QQuickView *doomed = view;
    view = nullptr;
    delete doomed;
}

void DownloadDialog::show()
{
    view->show();
}

void DownloadDialog::raise()
{
    view->raise();
}

void DownloadDialog::requestActivate()
{
    view->requestActivate();
}
