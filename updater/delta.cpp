#include "delta.h"

#include "sha256stream.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QStorageInfo>
#include <QtEndian>

#include <zstd.h>
#include <zstd_errors.h>

#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char magic[] = "VMRDELTA";
constexpr quint32 formatVersion = 1;
constexpr qint64 headerSize = 32;
constexpr int maxNameBytes = 1024;
constexpr qint64 sha256Size = 32;
constexpr qint64 copyChunk = 1 << 20;
// Kept free beside the new bundle, for the swap script's log and status.
constexpr qint64 diskMargin = qint64(64) << 20;

// Reads little-endian fields and byte strings from the manifest without
// ever passing its end; the first overrun makes it fail for good.
class Reader
{
public:
    Reader(const uchar *data, qint64 size)
        : m_data(data)
        , m_size(size)
    {
    }

    template<typename T> T number()
    {
        if (!take(sizeof(T)))
            return 0;
        return qFromLittleEndian<T>(m_data + m_pos - qint64(sizeof(T)));
    }

    QByteArray bytes(qint64 count)
    {
        if (!take(count))
            return {};
        return QByteArray(reinterpret_cast<const char *>(m_data + m_pos - count), count);
    }

    // A name: a 16-bit length, then that many bytes.
    QByteArray name() { return bytes(number<quint16>()); }

    bool failed() const { return m_failed; }
    bool atEnd() const { return m_pos == m_size; }

private:
    bool take(qint64 count)
    {
        if (m_failed || count < 0 || count > m_size - m_pos) {
            m_failed = true;
            return false;
        }
        m_pos += count;
        return true;
    }

    const uchar *m_data;
    qint64 m_size;
    qint64 m_pos = 0;
    bool m_failed = false;
};

// Relative, "/"-separated, no empty, "." or ".." component, no NUL, UTF-8:
// joined to a folder, such a path can only name something inside it.
bool isSafeRelativePath(const QByteArray &path)
{
    if (path.isEmpty() || path.size() > maxNameBytes || path.contains('\0') || QString::fromUtf8(path).toUtf8() != path)
        return false;
    for (const QByteArray &component : path.split('/')) {
        if (component.isEmpty() || component == "." || component == "..")
            return false;
    }
    return true;
}

QByteArray parentOf(const QByteArray &path)
{
    const qsizetype slash = path.lastIndexOf('/');
    return slash < 0 ? QByteArray() : path.left(slash);
}

// A file of the installed bundle, mapped read-only. An empty file maps to
// nothing, which QFile refuses, so it gets a pointer of its own.
struct MappedFile
{
    QFile file;
    const uchar *data = nullptr;
    qint64 size = 0;
};

bool mapFile(MappedFile *mapped, const QString &path)
{
    static const uchar nothing = 0;
    mapped->file.setFileName(path);
    if (!mapped->file.open(QIODevice::ReadOnly))
        return false;
    mapped->size = mapped->file.size();
    mapped->data = mapped->size > 0 ? mapped->file.map(0, mapped->size) : &nothing;
    return mapped->data != nullptr;
}

// The window a frame asks the decoder for, from its header: the content
// size for a single-segment frame, else its window descriptor. The caller
// has checked that the header is complete.
quint64 frameWindow(const uchar *frame, quint64 contentSize)
{
    constexpr uchar singleSegment = 0x20;
    if (frame[4] & singleSegment)
        return contentSize;
    const quint64 base = quint64(1) << (10 + (frame[5] >> 3));
    return base + base / 8 * (frame[5] & 7);
}

QByteArray sha256Of(const uchar *data, qint64 size)
{
    Sha256Stream hash;
    hash.add(data, size);
    return hash.result();
}

struct DctxDeleter
{
    void operator()(ZSTD_DCtx *context) const { ZSTD_freeDCtx(context); }
};

class Applier
{
public:
    Applier(const uchar *delta, const DeltaManifest &manifest, const QString &installedBundle, const QString &bundle,
            const DeltaLimits &limits)
        : m_delta(delta)
        , m_manifest(manifest)
        , m_installed(installedBundle)
        , m_installedCanonical(QDir(installedBundle).canonicalPath())
        , m_bundle(bundle)
        , m_limits(limits)
    {
    }

    bool run();
    QString reason() const { return m_reason; }

private:
    bool fail(const QString &reason)
    {
        m_reason = reason;
        return false;
    }
    QString outputPath(const QByteArray &path) const
    {
        return path.isEmpty() ? m_bundle : m_bundle + QLatin1Char('/') + QString::fromUtf8(path);
    }
    bool openBase(const DeltaEntry &entry, MappedFile *base);
    bool writeFile(const DeltaEntry &entry);
    bool decode(const DeltaEntry &entry, const MappedFile *base, QFile *out, Sha256Stream *hash);
    bool checkOnDisk(const DeltaEntry &entry);

    const uchar *m_delta;
    const DeltaManifest &m_manifest;
    const QString m_installed;
    const QString m_installedCanonical; // empty when there is no installed bundle
    const QString m_bundle;
    const DeltaLimits m_limits;
    std::unique_ptr<ZSTD_DCtx, DctxDeleter> m_dctx{ZSTD_createDCtx()};
    QByteArray m_buffer;
    QString m_reason;
};

// The base must be the very file the publisher diffed against: a regular
// file at exactly that path (no link on the way), of that size and digest.
// A bundle the user changed fails here, before anything is decoded.
bool Applier::openBase(const DeltaEntry &entry, MappedFile *base)
{
    const QString path = m_installed + QLatin1Char('/') + QString::fromUtf8(entry.basePath);
    const QFileInfo info(path);
    const QString lexical = m_installedCanonical + QLatin1Char('/') + QString::fromUtf8(entry.basePath);
    if (m_installedCanonical.isEmpty() || info.isSymLink() || !info.isFile() || info.canonicalFilePath() != lexical
        || info.size() != entry.baseSize)
        return fail(QStringLiteral("the installed bundle's %1 is not the file the delta was made from")
                        .arg(QString::fromUtf8(entry.basePath)));
    if (!mapFile(base, path) || base->size != entry.baseSize)
        return fail(QStringLiteral("cannot read %1 of the installed bundle").arg(path));
    if (entry.source == DeltaEntry::PatchOfBase && sha256Of(base->data, base->size) != entry.baseSha256)
        return fail(QStringLiteral("the installed bundle's %1 differs from the file the delta was made from")
                        .arg(QString::fromUtf8(entry.basePath)));
    return true;
}

bool Applier::decode(const DeltaEntry &entry, const MappedFile *base, QFile *out, Sha256Stream *hash)
{
    const uchar *frame = m_delta + entry.payloadOffset;
    const size_t frameSize = size_t(entry.payloadSize);
    const QString name = QString::fromUtf8(entry.path);
    // The size is checked before a byte is decoded, so that a frame can
    // never make the file larger than the manifest (and the disk check) says.
    if (ZSTD_getFrameContentSize(frame, frameSize) != quint64(entry.size))
        return fail(QStringLiteral("the frame of %1 does not announce its size in the manifest").arg(name));
    // Checked here as well as by the decoder, which skips its own check when
    // it can decode a frame in one pass.
    if (frameWindow(frame, quint64(entry.size)) > (quint64(1) << m_limits.maxWindowLog))
        return fail(QStringLiteral("the frame of %1 needs a window over the limit of %2 KiB")
                        .arg(name)
                        .arg((qint64(1) << m_limits.maxWindowLog) >> 10));
    ZSTD_DCtx *dctx = m_dctx.get();
    ZSTD_DCtx_reset(dctx, ZSTD_reset_session_and_parameters);
    if (ZSTD_isError(ZSTD_DCtx_setParameter(dctx, ZSTD_d_windowLogMax, m_limits.maxWindowLog)))
        return fail(QStringLiteral("the window limit 2^%1 is not one the decoder takes").arg(m_limits.maxWindowLog));
    if (base && ZSTD_isError(ZSTD_DCtx_refPrefix(dctx, base->data, size_t(base->size))))
        return fail(QStringLiteral("cannot use the base of %1").arg(name));

    // Room for the whole file, up to the window limit, lets zstd decode in
    // one pass straight into it instead of through a window of its own.
    if (entry.size <= (qint64(1) << m_limits.maxWindowLog) && m_buffer.size() < entry.size)
        m_buffer.resize(qsizetype(entry.size));
    ZSTD_inBuffer in{frame, frameSize, 0};
    qint64 written = 0;
    for (;;) {
        ZSTD_outBuffer output{m_buffer.data(), size_t(m_buffer.size()), 0};
        const size_t left = ZSTD_decompressStream(dctx, &output, &in);
        if (ZSTD_isError(left)) {
            if (ZSTD_getErrorCode(left) == ZSTD_error_frameParameter_windowTooLarge)
                return fail(QStringLiteral("the frame of %1 needs a window over the limit of %2 KiB")
                                .arg(name)
                                .arg((qint64(1) << m_limits.maxWindowLog) >> 10));
            return fail(QStringLiteral("cannot decode %1: %2").arg(name, QString::fromLatin1(ZSTD_getErrorName(left))));
        }
        written += qint64(output.pos);
        if (written > entry.size)
            return fail(QStringLiteral("%1 decodes to more than its size in the manifest").arg(name));
        hash->add(reinterpret_cast<const uchar *>(m_buffer.constData()), qint64(output.pos));
        if (out->write(m_buffer.constData(), qint64(output.pos)) != qint64(output.pos))
            return fail(QStringLiteral("cannot write %1: %2").arg(name, out->errorString()));
        if (left == 0)
            break;
        // All input used and room left over: the decoder is waiting for
        // bytes the delta does not have.
        if (in.pos == in.size && output.pos < output.size)
            return fail(QStringLiteral("the frame of %1 is truncated").arg(name));
    }
    if (in.pos != in.size)
        return fail(QStringLiteral("the frame of %1 is followed by stray bytes").arg(name));
    return true;
}

bool Applier::writeFile(const DeltaEntry &entry)
{
    const QString name = QString::fromUtf8(entry.path);
    MappedFile base;
    if (entry.source != DeltaEntry::Whole && !openBase(entry, &base))
        return false;
    // NewOnly refuses a name that exists, a symbolic link included, so the
    // write can only create a file of its own.
    QFile out(outputPath(entry.path));
    if (!out.open(QIODevice::WriteOnly | QIODevice::NewOnly | QIODevice::Unbuffered))
        return fail(QStringLiteral("cannot create %1: %2").arg(name, out.errorString()));
    Sha256Stream hash;
    if (entry.source == DeltaEntry::SameAsBase) {
        for (qint64 done = 0; done < base.size; done += copyChunk) {
            const qint64 size = qMin(copyChunk, base.size - done);
            hash.add(base.data + done, size);
            if (out.write(reinterpret_cast<const char *>(base.data + done), size) != size)
                return fail(QStringLiteral("cannot write %1: %2").arg(name, out.errorString()));
        }
    } else if (!decode(entry, entry.source == DeltaEntry::PatchOfBase ? &base : nullptr, &out, &hash)) {
        return false;
    }
    if (hash.result() != entry.sha256)
        return fail(QStringLiteral("%1 does not match its SHA-256 in the manifest").arg(name));
    if (::fchmod(out.handle(), mode_t(entry.mode)) != 0)
        return fail(QStringLiteral("cannot set the mode of %1").arg(name));
    out.close();
    if (out.error() != QFileDevice::NoError)
        return fail(QStringLiteral("cannot write %1: %2").arg(name, out.errorString()));
    return true;
}

// What the file system now holds for the entry, as lstat sees it, against
// what the manifest says.
bool Applier::checkOnDisk(const DeltaEntry &entry)
{
    const QByteArray path = QFile::encodeName(outputPath(entry.path));
    struct stat status
    {
    };
    bool holds = ::lstat(path.constData(), &status) == 0;
    if (holds && entry.type == DeltaEntry::Directory)
        holds = S_ISDIR(status.st_mode) && (status.st_mode & 07777) == entry.mode;
    else if (holds && entry.type == DeltaEntry::File)
        holds = S_ISREG(status.st_mode) && (status.st_mode & 07777) == entry.mode && status.st_size == entry.size;
    else if (holds) {
        QByteArray target(maxNameBytes + 1, Qt::Uninitialized);
        const ssize_t length = ::readlink(path.constData(), target.data(), size_t(target.size()));
        holds = S_ISLNK(status.st_mode) && length >= 0 && target.left(length) == entry.target;
    }
    return holds || fail(QStringLiteral("%1 does not match the manifest").arg(QString::fromUtf8(entry.path)));
}

bool Applier::run()
{
    if (!m_dctx)
        return fail(QStringLiteral("cannot start the decoder"));
    m_buffer.resize(qsizetype(ZSTD_DStreamOutSize()));
    // Folders are made owner-only and get their own modes last, so that a
    // read-only folder of the new bundle never stops a write into it.
    for (const DeltaEntry &entry : m_manifest.entries) {
        if (entry.type == DeltaEntry::Directory) {
            if (::mkdir(QFile::encodeName(outputPath(entry.path)).constData(), 0700) != 0)
                return fail(QStringLiteral("cannot create the folder %1").arg(QString::fromUtf8(entry.path)));
        } else if (entry.type == DeltaEntry::File && !writeFile(entry)) {
            return false;
        }
    }
    // Links only after every file: no later write can pass through one.
    for (const DeltaEntry &entry : m_manifest.entries) {
        if (entry.type == DeltaEntry::Symlink
            && ::symlink(entry.target.constData(), QFile::encodeName(outputPath(entry.path)).constData()) != 0)
            return fail(QStringLiteral("cannot create the link %1").arg(QString::fromUtf8(entry.path)));
    }
    // Deepest first: a parent's mode must not keep a child's from being set.
    for (auto entry = m_manifest.entries.crbegin(); entry != m_manifest.entries.crend(); ++entry) {
        if (entry->type == DeltaEntry::Directory
            && ::chmod(QFile::encodeName(outputPath(entry->path)).constData(), mode_t(entry->mode)) != 0)
            return fail(QStringLiteral("cannot set the mode of the folder %1").arg(QString::fromUtf8(entry->path)));
    }
    for (const DeltaEntry &entry : m_manifest.entries) {
        if (!checkOnDisk(entry))
            return false;
    }
    return true;
}

// Folders may have lost their write permission at the end of a run that
// then failed its last check; give it back so the tree can go.
void removeBundle(const QString &bundle)
{
    if (!QFileInfo(bundle).isDir() || QFileInfo(bundle).isSymLink())
        return;
    for (QDirIterator it(bundle, QDir::Dirs | QDir::NoDotAndDotDot | QDir::Hidden | QDir::NoSymLinks,
                         QDirIterator::Subdirectories);
         it.hasNext();)
        ::chmod(QFile::encodeName(it.next()).constData(), 0700);
    ::chmod(QFile::encodeName(bundle).constData(), 0700);
    QDir(bundle).removeRecursively();
}

} // namespace

bool readDeltaManifest(const uchar *data, qint64 size, const DeltaLimits &limits, DeltaManifest *manifest,
                       QString *error)
{
    const auto fail = [error](const QString &reason) {
        if (error)
            *error = reason;
        return false;
    };
    if (size < headerSize || memcmp(data, magic, 8) != 0)
        return fail(QStringLiteral("not a delta"));
    Reader header(data + 8, headerSize - 8);
    const quint32 version = header.number<quint32>();
    const quint32 count = header.number<quint32>();
    const quint64 manifestSize = header.number<quint64>();
    const quint64 payloadSize = header.number<quint64>();
    if (version != formatVersion)
        return fail(QStringLiteral("delta format %1 is not supported").arg(version));
    if (count < 1 || count > quint32(limits.maxEntries))
        return fail(QStringLiteral("the delta holds %1 entries, outside 1 to %2").arg(count).arg(limits.maxEntries));
    if (manifestSize > quint64(limits.maxManifestBytes) || manifestSize > quint64(size - headerSize)
        || payloadSize != quint64(size - headerSize) - manifestSize)
        return fail(QStringLiteral("the delta's sizes do not add up to its length"));

    DeltaManifest parsed;
    QHash<QByteArray, DeltaEntry::Type> seen; // lower-cased: a Mac's disk would merge such names
    qint64 nextPayload = headerSize + qint64(manifestSize);
    Reader reader(data + headerSize, qint64(manifestSize));
    for (quint32 i = 0; i < count; ++i) {
        DeltaEntry entry;
        const quint8 type = reader.number<quint8>();
        const quint8 source = reader.number<quint8>();
        entry.type = DeltaEntry::Type(type);
        entry.source = DeltaEntry::Source(source);
        entry.mode = reader.number<quint16>();
        entry.path = reader.name();
        const bool isFile = type == DeltaEntry::File;
        if (isFile) {
            entry.size = qint64(reader.number<quint64>());
            entry.sha256 = reader.bytes(sha256Size);
            if (source == DeltaEntry::SameAsBase || source == DeltaEntry::PatchOfBase)
                entry.basePath = reader.name();
            if (source == DeltaEntry::SameAsBase) {
                entry.baseSize = entry.size;
                entry.baseSha256 = entry.sha256;
            } else if (source == DeltaEntry::PatchOfBase) {
                entry.baseSize = qint64(reader.number<quint64>());
                entry.baseSha256 = reader.bytes(sha256Size);
            }
            if (source == DeltaEntry::PatchOfBase || source == DeltaEntry::Whole) {
                entry.payloadOffset = nextPayload;
                entry.payloadSize = qint64(reader.number<quint64>());
            }
        } else if (type == DeltaEntry::Symlink) {
            entry.target = reader.name();
        }
        if (reader.failed())
            return fail(QStringLiteral("the manifest ends inside entry %1").arg(i));

        const QString where = QStringLiteral("entry %1 (%2)").arg(i).arg(QString::fromUtf8(entry.path).left(200));
        const bool root = i == 0;
        if (type < DeltaEntry::Directory || type > DeltaEntry::Symlink || (root && type != DeltaEntry::Directory))
            return fail(where + QStringLiteral(" has an unknown type or the bundle is not a folder"));
        if (isFile ? source < DeltaEntry::SameAsBase || source > DeltaEntry::Whole : source != DeltaEntry::None)
            return fail(where + QStringLiteral(" has a source its type cannot have"));
        if (entry.mode > 0777 || (type == DeltaEntry::Symlink && entry.mode != 0))
            return fail(where + QStringLiteral(" has a mode outside 0 to 0777"));
        if (root ? !entry.path.isEmpty() : !isSafeRelativePath(entry.path))
            return fail(where + QStringLiteral(" has an absolute, empty or escaping path"));
        if (!root && seen.value(parentOf(entry.path).toLower()) != DeltaEntry::Directory)
            return fail(where + QStringLiteral(" is not inside a folder listed before it"));
        if (!root && seen.contains(entry.path.toLower()))
            return fail(where + QStringLiteral(" is listed twice"));
        if (!entry.basePath.isEmpty() || source == DeltaEntry::SameAsBase || source == DeltaEntry::PatchOfBase) {
            if (!isSafeRelativePath(entry.basePath))
                return fail(where + QStringLiteral(" has an absolute, empty or escaping base path"));
            // The base is mapped whole beside the decoding window.
            if (entry.baseSize < 0
                || (source == DeltaEntry::PatchOfBase && entry.baseSize > (qint64(1) << limits.maxWindowLog)))
                return fail(where + QStringLiteral(" has a base larger than the window limit"));
        }
        if (type == DeltaEntry::Symlink && (entry.target.isEmpty() || entry.target.contains('\0')))
            return fail(where + QStringLiteral(" has an empty link target"));
        if (entry.size < 0 || entry.size > limits.maxBundleBytes - parsed.bundleBytes)
            return fail(where + QStringLiteral(" makes the bundle larger than %1 bytes").arg(limits.maxBundleBytes));
        if (entry.payloadSize < 0 || entry.payloadSize > size - nextPayload)
            return fail(where + QStringLiteral(" has a payload past the end of the delta"));
        nextPayload += entry.payloadSize;
        parsed.bundleBytes += entry.size;
        seen.insert(entry.path.toLower(), entry.type);
        parsed.entries.append(entry);
    }
    if (!reader.atEnd() || nextPayload != size)
        return fail(QStringLiteral("the delta holds bytes that no entry accounts for"));
    *manifest = parsed;
    return true;
}

DeltaResult applyDelta(const QString &deltaPath, const QString &installedBundle, const QString &outputDir,
                       const DeltaLimits &limits)
{
    DeltaResult result;
    QFile delta(deltaPath);
    const uchar *data = delta.open(QIODevice::ReadOnly) && delta.size() > 0 ? delta.map(0, delta.size()) : nullptr;
    if (!data) {
        result.reason = QStringLiteral("cannot read the delta %1").arg(deltaPath);
        return result;
    }
    DeltaManifest manifest;
    if (!readDeltaManifest(data, delta.size(), limits, &manifest, &result.reason))
        return result;
    const QDir output(outputDir);
    if (!output.exists() || !output.isEmpty(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System)) {
        result.reason = QStringLiteral("the folder %1 is missing or not empty").arg(outputDir);
        return result;
    }
    const qint64 available = QStorageInfo(outputDir).bytesAvailable();
    if (available >= 0 && available < manifest.bundleBytes + diskMargin) {
        result.reason = QStringLiteral("too little disk: the new bundle needs %1 MiB, %2 MiB are free")
                            .arg((manifest.bundleBytes + diskMargin) >> 20)
                            .arg(available >> 20);
        return result;
    }
    const QString bundle = output.absoluteFilePath(QStringLiteral("Velmora.app"));
    Applier applier(data, manifest, QFileInfo(installedBundle).absoluteFilePath(), bundle, limits);
    result.ok = applier.run();
    if (!result.ok) {
        result.reason = applier.reason();
        removeBundle(bundle);
    }
    return result;
}
