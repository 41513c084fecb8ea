// Built instead of delta.cpp when libzstd is not available. Such a build
// cannot decode a delta, so it refuses every one and each run takes the full
// package.

#include "delta.h"

bool readDeltaManifest(const uchar *, qint64, const DeltaLimits &, DeltaManifest *, QString *error)
{
    if (error)
        *error = QStringLiteral("deltas unavailable: this build has no libzstd");
    return false;
}

DeltaResult applyDelta(const QString &, const QString &, const QString &, const DeltaLimits &)
{
    return {false, QStringLiteral("deltas unavailable: this build has no libzstd")};
}
