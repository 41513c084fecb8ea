#pragma once

#include <QString>

struct Extraction
{
    bool ok = false;
    QString errorText; // what the tools printed on standard error
};

// Empties extractionDir, then unpacks the package with ditto, falling back to
// unzip. Each tool gets toolTimeoutMs.
Extraction extractPackage(const QString &packagePath, const QString &extractionDir, int toolTimeoutMs = 120000);

// The translated message for a failed extraction.
QString extractionFailureMessage(const QString &errorText);

// The directory the hand-over searches for the new bundle: the extraction
// directory, or its single visible sub-directory ("__MACOSX" aside).
QString chooseSourceRoot(const QString &extractionDir);
