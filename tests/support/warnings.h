#pragma once

#include <QStringList>

#include <cstdio>

inline QStringList &recordedWarnings()
{
    static QStringList warnings;
    return warnings;
}

// Keeps every warning and error in recordedWarnings() and passes it on to
// stderr. The offscreen platform's notes about window hints it cannot honour
// are not the code's doing and are left out.
inline void recordWarnings()
{
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &, const QString &message) {
        if (message.startsWith(QLatin1String("This plugin does not support")))
            return;
        if (type != QtDebugMsg && type != QtInfoMsg)
            recordedWarnings() << message;
        fprintf(stderr, "%s\n", qPrintable(message));
    });
}
