#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

// A delta rebuilds the new bundle from the installed one: unchanged files are
// copied, changed ones decoded with the old file as a zstd prefix, new ones
// decoded whole. The format is described in docs/delta-format.md.

// What a delta may ask of this machine. Decoding holds one window of the
// file being decoded in memory, and maps its base file, so the window cap
// bounds the memory of a run.
struct DeltaLimits
{
    int maxWindowLog = 27; // 128 MiB: a frame asking for more is refused
    qint64 maxBundleBytes = qint64(16) << 30; // the new bundle's files together
    int maxEntries = 200000;
    qint64 maxManifestBytes = qint64(64) << 20;
};

struct DeltaResult
{
    bool ok = false;
    QString reason; // short English text for standard error; empty on success
};

// One entry of the new bundle, as the manifest describes it. Paths are
// relative to the bundle, "/"-separated; the bundle itself is the first
// entry, with an empty path.
struct DeltaEntry
{
    enum Type : quint8 { Directory = 1, File = 2, Symlink = 3 };
    enum Source : quint8 { None = 0, SameAsBase = 1, PatchOfBase = 2, Whole = 3 };
    Type type = Directory;
    Source source = None;
    quint16 mode = 0; // permission bits, at most 0777; 0 for a symbolic link
    QByteArray path;
    qint64 size = 0; // files
    QByteArray sha256; // files: raw 32 bytes
    QByteArray target; // symbolic links
    QByteArray basePath; // SameAsBase, PatchOfBase: relative to the installed bundle
    qint64 baseSize = 0;
    QByteArray baseSha256;
    qint64 payloadOffset = 0; // PatchOfBase, Whole: one zstd frame at this offset of the delta
    qint64 payloadSize = 0;
};

struct DeltaManifest
{
    QList<DeltaEntry> entries;
    qint64 bundleBytes = 0; // every file's size, added up
};

// Parses and checks the header and the manifest of a delta held in data:
// every length within the data and the limits, every path relative and
// without "." or "..", every parent an earlier directory, no name twice,
// the payloads exactly filling the rest of the file. False with the reason
// in error otherwise; nothing here touches the disk.
bool readDeltaManifest(const uchar *data, qint64 size, const DeltaLimits &limits, DeltaManifest *manifest,
                       QString *error);

// Builds outputDir/Velmora.app from the delta and the installed bundle.
// outputDir must exist and be empty; nothing is written outside it and no
// write goes through a symbolic link. Each base file is checked against its
// SHA-256 before use and each new entry against the manifest. On failure
// the partial bundle is removed and reason says what went wrong. Runs on
// the install worker; it reads nothing but its arguments.
DeltaResult applyDelta(const QString &deltaPath, const QString &installedBundle, const QString &outputDir,
                       const DeltaLimits &limits = {});
