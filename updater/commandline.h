#pragma once

#include <QByteArray>
#include <QStringList>

#include <functional>

struct RunFlags
{
    bool trayAvailable = false;
    bool autoMode = false;
    bool forceMode = false;
};

// The usage text, always this fixed text whatever the language.
QByteArray usageText();

// Looks for "--auto" among the raw arguments before any Qt object exists,
// because the platform reads the foreground setting while the application
// object is being built.
bool rawArgumentsRequestAutoMode(int argc, const char *const argv[]);

// The run's flags from the command line. trayProbe is asked only outside
// automatic mode: a background run must leave no trace in the tray.
RunFlags readRunFlags(const QStringList &arguments, const std::function<bool()> &trayProbe);
