#pragma once

#include <QCoreApplication>
#include <QString>
#include <QStringList>

struct InstallLocation
{
    QString dstApp;
    QString legacyApp;
};

// The argument list and the running directory are parameters so that the
// rules can be exercised from a table; the program always uses the defaults.
bool hasArgument(const QString &name, const QStringList &arguments = QCoreApplication::arguments());
QString argumentValue(const QString &name, const QStringList &arguments = QCoreApplication::arguments());

QString readInstalledVersion(const QString &bundlePath);

InstallLocation findInstallLocation(const QStringList &arguments = QCoreApplication::arguments(),
                                    const QString &applicationDir = QCoreApplication::applicationDirPath());

// The folder (or the bundle) that this user cannot change, so that an
// installation to dstApp could never complete; empty when nothing stands in
// the way. The swap script's translocation rewrite applies first, and a
// folder still to be made is judged by the nearest one that exists.
QString unchangeableInstallPlace(const QString &dstApp);

QString installedVersion(const QStringList &arguments = QCoreApplication::arguments(),
                         const QString &applicationDir = QCoreApplication::applicationDirPath());
