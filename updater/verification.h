#pragma once

#include <QString>

// True when the SHA-256 of the file is the expected 64 lower-case hex digits.
// The file is read in chunks: a package never has to fit in memory.
bool packageMatchesDigest(const QString &packagePath, const QString &expectedSha256);
