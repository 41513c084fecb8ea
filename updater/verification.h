#pragma once

#include "jobinputs.h"

#include <QString>

// True when the SHA-256 of the file is the expected 64 lower-case hex digits.
// The file is read in chunks: a package never has to fit in memory.
bool packageMatchesDigest(const QString &packagePath, const QString &expectedSha256);

enum class PackageCheck {
    Verified,
    DigestMismatch, // not the file the release record names
    SignatureRefused, // signatures required, and no valid one for this release
};

// The digest, and with signatures required the publisher's signature, which
// must name this release's version. Nothing is unpacked before this passes.
PackageCheck checkPackage(const InstallJobInputs &inputs);
