#pragma once

#include <QByteArray>
#include <QString>

// What the swap script's status file says.
enum class SwapVerdict {
    Undecided, // no file yet, an empty one, or a word the script never writes
    Installed, // "ok", or "defer" (an interactive script never defers; if it
               // did, the installed bundle is intact, which is all that counts)
    Failed, // anything beginning with "fail"
};

SwapVerdict swapVerdict(const QByteArray &statusContent);

// Reads the status file every intervalMs, at most polls times; Undecided when
// the script has not decided by then. Blocks: call it on the worker only.
SwapVerdict watchSwapStatus(const QString &statusPath, int polls, int intervalMs);
