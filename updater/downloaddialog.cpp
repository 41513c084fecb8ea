#include "downloaddialog.h"
#include "downloader.h"

#include <QQuickView>

DownloadDialog::DownloadDialog(const QString &version, const QString &downloadUrl, const QString &sha256,
                               bool packageFlag, QObject *parent)
    : QObject(parent)
    , view(new QQuickView)
    , downloader(new Downloader(version, downloadUrl, sha256, packageFlag, this))
{
}
DownloadDialog::~DownloadDialog() { delete view; }
void DownloadDialog::show() { view->show(); }
void DownloadDialog::raise() { view->raise(); }
void DownloadDialog::requestActivate() { view->requestActivate(); }
