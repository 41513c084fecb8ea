#pragma once

#include "jobinputs.h"

#include <QByteArray>
#include <QString>

// Encloses a value in single quotes for bash, each embedded quote as '\''.
QString shellQuote(const QString &value);

// The new bundle below the extraction: the root itself when it is a ".app"
// directory, else the first ".app" at most two levels down, in listing order.
// Empty when there is none.
QString findNewBundle(const QString &sourceRoot);

struct SwapScriptValues
{
    QString srcApp;
    QString dstApp;
    QString legacyApp;
    QString srcRoot;
    QString expectVersion;
    QString expectArch;
    bool autoMode = false;
    QString statusPath;
};

// The swap script body as it is compiled into the updater (UTF-8 bytes).
QByteArray swapScriptBody();

// "#!/bin/bash", "set +e", the twelve header lines and the body, encoded as
// the file on disk holds it.
QByteArray buildSwapScript(const SwapScriptValues &values);

// True while a swap script started from tempLocation by an earlier run is
// still alive (or when that cannot be told): no second one may start then.
bool earlierSwapScriptRunning(const QString &tempLocation);

// Finds the new bundle, writes the swap script into tempLocation, starts it
// detached and, in interactive mode, watches its status file.
JobEnd handOver(const InstallJobInputs &inputs, const QString &sourceRoot, const QString &tempLocation,
                const InstallReport &report);
