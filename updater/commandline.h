#pragma once

#include <QByteArray>

// The usage text, always this fixed text whatever the language.
QByteArray usageText();

// Looks for "--auto" among the raw arguments before any Qt object exists,
// because the platform reads the foreground setting while the application
// object is being built.
bool rawArgumentsRequestAutoMode(int argc, const char *const argv[]);
