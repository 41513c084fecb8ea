// A delta is applied on the install worker after its signature checked out,
// but the reader must never rely on that: whatever the file holds, applying
// it writes only inside the output folder, leaves the installed bundle as it
// was, and either builds exactly the manifest's entries or fails with a
// reason and no partial bundle.
//
// Input: the delta file. The installed bundle is the one the seeds were made
// from (fuzz/corpus/delta, by scripts/make-delta from a zip of it).

#include "delta.h"
#include "fuzzcheck.h"

#include <QDirIterator>
#include <QFile>
#include <QTemporaryDir>

#include <cstddef>
#include <cstdint>

static QTemporaryDir *work;

// Every entry below root with its size, links not followed.
static QStringList listing(const QString &root)
{
    QStringList lines;
    for (QDirIterator it(root, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                         QDirIterator::Subdirectories);
         it.hasNext();) {
        const QFileInfo info(it.next());
        lines << QStringLiteral("%1 %2").arg(info.filePath().mid(root.size())).arg(info.isSymLink() ? -1 : info.size());
    }
    lines.sort();
    return lines;
}

static bool put(const QString &path, const QByteArray &content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    isolateSettings();
    work = new QTemporaryDir;
    const QString contents = work->filePath("installed/Velmora.app/Contents/");
    QByteArray engine;
    for (int i = 0; i < 4000; ++i)
        engine += QByteArray::number(i * 7919 % 10007) + ' ';
    const bool ready = put(contents + "Info.plist", "<plist>1.0.0</plist>\n") && put(contents + "MacOS/Velmora", engine)
        && put(contents + "Resources/a.txt", "unchanged\n");
    FUZZ_CHECK(ready, work->path());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const QStringList installedBefore = listing(work->filePath("installed"));
    static const QStringList around = {"/delta 0", "/installed 0", "/out 0"};
    const QString out = work->filePath("out");
    QDir(out).removeRecursively();
    QDir().mkpath(out);
    const QByteArray delta(reinterpret_cast<const char *>(data), qsizetype(size));
    FUZZ_CHECK(put(work->filePath("delta"), delta), out);

    // Small limits keep a run quick and the disk safe; the checks are the same.
    DeltaLimits limits;
    limits.maxWindowLog = 20;
    limits.maxBundleBytes = 1 << 20;
    limits.maxEntries = 256;
    DeltaManifest manifest;
    const bool readable = readDeltaManifest(data, qint64(size), limits, &manifest, nullptr);
    const DeltaResult result
        = applyDelta(work->filePath("delta"), work->filePath("installed/Velmora.app"), out, limits);
    const QStringList built = listing(out);
    const QString seen = QStringLiteral("ok=%1 reason=\"%2\" built: %3")
                             .arg(result.ok)
                             .arg(result.reason, built.join(QLatin1String(", ")).left(2000));

    QStringList top = QDir(work->path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
    for (QString &name : top)
        name = QStringLiteral("/%1 0").arg(name);
    FUZZ_CHECK(top == around, seen + " beside: " + top.join(' '));
    FUZZ_CHECK(listing(work->filePath("installed")) == installedBefore, seen);
    FUZZ_CHECK(result.ok == result.reason.isEmpty(), seen);
    if (!result.ok) {
        FUZZ_CHECK(built.isEmpty(), seen);
        return 0;
    }
    FUZZ_CHECK(readable && built.size() == manifest.entries.size(), seen);
    return 0;
}
