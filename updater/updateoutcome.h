#pragma once

#include "releaseinfo.h"

#include <QString>

class QApplication;
class QTimer;

struct RunFlags
{
    bool trayAvailable = false;
    bool autoMode = false;
    bool forceMode = false;
};

// The tray icon file, tried beside the executable in this order.
QString trayIconCandidate(const QString &applicationDir);

void handleUpdateOutcome(QApplication *app, QTimer *checkWatchdog, const RunFlags &flags, bool ok,
                         const UpdateInfo &info);
