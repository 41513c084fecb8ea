#include "downloader.h"

void Downloader::startInstall() {}
void Downloader::verifyAndExtract() {}
bool Downloader::verifyChecksum() { return false; }
void Downloader::onInstallWorkerFinished() {}
QString chooseSourceRoot(const QString &extractionDir) { return extractionDir; }
