#include "statuswatch.h"

#include <QFile>
#include <QThread>

SwapVerdict swapVerdict(const QByteArray &statusContent)
{
    const QByteArray word = statusContent.trimmed();
    if (word == "ok" || word == "defer")
        return SwapVerdict::Installed;
    if (word.startsWith("fail"))
        return SwapVerdict::Failed;
    return SwapVerdict::Undecided;
}

SwapVerdict watchSwapStatus(const QString &statusPath, int polls, int intervalMs)
{
    // A count of polls, not a deadline: the watch takes a known number of
    // looks whatever the system clock does meanwhile.
    for (int remaining = polls; remaining > 0; --remaining) {
        QThread::msleep(static_cast<unsigned long>(qMax(0, intervalMs)));
        QFile status(statusPath);
        if (!status.open(QIODevice::ReadOnly | QIODevice::Text))
            continue;
        const SwapVerdict verdict = swapVerdict(status.readAll());
        if (verdict != SwapVerdict::Undecided)
            return verdict;
    }
    return SwapVerdict::Undecided;
}
