#include "packagesignature.h"

#include <QFile>
#include <QtEndian>

#include <sodium.h>

#include <algorithm>
#include <optional>

namespace {

constexpr qsizetype maxTextSize = 64 * 1024;
constexpr qsizetype keyIdSize = 8;
constexpr qsizetype publicKeyLineSize = 2 + keyIdSize + crypto_sign_PUBLICKEYBYTES;
constexpr qsizetype secretKeyLineSize = 158;
constexpr qsizetype signatureLineSize = 2 + keyIdSize + crypto_sign_BYTES;
constexpr qsizetype blake2bSize = 64;
constexpr qsizetype readChunkSize = 256 * 1024;
constexpr char untrustedPrefix[] = "untrusted comment:";
constexpr char trustedPrefix[] = "trusted comment: ";

// Any entry point may come first, on any thread; the function-local static
// runs the initialisation exactly once.
bool sodiumReady()
{
    static const bool ready = sodium_init() >= 0;
    return ready;
}

// Qt's decoder also takes missing padding and stray low bits; only the
// canonical spelling is accepted, so a damaged line is never half-read.
std::optional<QByteArray> decodeBase64(const QByteArray &text, qsizetype size)
{
    const auto result = QByteArray::fromBase64Encoding(text, QByteArray::AbortOnBase64DecodingErrors);
    if (!result || result.decoded.size() != size || result.decoded.toBase64() != text)
        return std::nullopt;
    return result.decoded;
}

// As minisign prints it (a little-endian number), so people can compare.
QString keyIdText(const QByteArray &keyId)
{
    return QString::number(qFromLittleEndian<quint64>(keyId.constData()), 16).toUpper();
}

bool signatureHolds(const QByteArray &signature, const uchar *message, qint64 size, const QByteArray &publicKey)
{
    return crypto_sign_verify_detached(reinterpret_cast<const uchar *>(signature.constData()), message,
                                       static_cast<unsigned long long>(size),
                                       reinterpret_cast<const uchar *>(publicKey.constData()))
        == 0;
}

struct SignatureFile
{
    QByteArray algorithm;
    QByteArray keyId;
    QByteArray signature;
    QByteArray trustedComment;
    QByteArray globalSignature;
};

std::optional<SignatureFile> parseSignatureFile(const QByteArray &text)
{
    if (text.isEmpty() || text.size() > maxTextSize || text.contains('\r'))
        return std::nullopt;
    QList<QByteArray> lines = text.split('\n');
    // minisign ends the file with one line feed; nothing may follow it.
    if (lines.size() == 5 && lines.last().isEmpty())
        lines.removeLast();
    if (lines.size() != 4 || !lines.at(0).startsWith(untrustedPrefix) || !lines.at(2).startsWith(trustedPrefix))
        return std::nullopt;
    const auto signatureLine = decodeBase64(lines.at(1), signatureLineSize);
    const auto globalSignature = decodeBase64(lines.at(3), crypto_sign_BYTES);
    if (!signatureLine || !globalSignature)
        return std::nullopt;
    SignatureFile file{signatureLine->left(2), signatureLine->mid(2, keyIdSize), signatureLine->mid(2 + keyIdSize),
                       lines.at(2).mid(qstrlen(trustedPrefix)), *globalSignature};
    if (file.algorithm != "Ed" && file.algorithm != "ED")
        return std::nullopt;
    return file;
}

bool makesClaims(const QByteArray &trustedComment, const TrustedClaims &claims)
{
    const QList<QByteArray> tokens = trustedComment.simplified().split(' ');
    for (const auto &[name, value] : claims) {
        const QByteArray prefix = name + ':';
        QList<QByteArray> found;
        for (const QByteArray &token : tokens) {
            if (token.startsWith(prefix))
                found << token.mid(prefix.size());
        }
        const bool holds = value.isEmpty() ? found.isEmpty() : found == QList<QByteArray>{value.toUtf8()};
        if (!holds)
            return false;
    }
    return true;
}

} // namespace

// An empty value would make the claim optional; nothing is signed for no
// release, and no token can hold a space.
static QString required(const QString &value)
{
    return value.isEmpty() ? QStringLiteral(" ") : value;
}

TrustedClaims packageClaims(const QString &version)
{
    return {{"version", required(version)}, {"kind", {}}, {"from", {}}};
}

TrustedClaims deltaClaims(const QString &version, const QString &from)
{
    return {{"version", required(version)}, {"from", required(from)}, {"kind", QStringLiteral("delta")}};
}

bool parseSigningKeys(const QByteArray &text, QList<SigningKey> *keys, QString *error)
{
    const auto fail = [error](const QString &reason) {
        if (error)
            *error = reason;
        return false;
    };
    if (text.size() > maxTextSize)
        return fail(QStringLiteral("the key file is larger than 64 KiB"));
    if (text.contains('\r') || text.contains('\0'))
        return fail(
            QStringLiteral("the key file holds carriage returns or NUL bytes; minisign writes plain line feeds"));

    QList<SigningKey> parsed;
    bool awaitingKey = false;
    QList<QByteArray> lines = text.split('\n');
    if (text.endsWith('\n'))
        lines.removeLast();
    for (qsizetype i = 0; i < lines.size(); ++i) {
        const QByteArray &line = lines.at(i);
        const QString where = QStringLiteral("line %1").arg(i + 1);
        if (line.startsWith(untrustedPrefix)) {
            if (awaitingKey)
                return fail(where
                            + QStringLiteral(" is a comment where the key line of the comment before it belongs"));
            awaitingKey = true;
            continue;
        }
        if (line.trimmed().isEmpty()) {
            if (awaitingKey)
                return fail(where + QStringLiteral(" is blank where the key line of the comment before it belongs"));
            continue;
        }
        if (!awaitingKey)
            return fail(where + QStringLiteral(" is neither blank nor an \"untrusted comment:\" line"));
        const auto decoded = decodeBase64(line, publicKeyLineSize);
        if (!decoded || !decoded->startsWith("Ed")) {
            if (decodeBase64(line, secretKeyLineSize))
                return fail(where + QStringLiteral(" is a minisign secret key; give the public key"));
            return fail(where + QStringLiteral(" is not a minisign Ed25519 public key"));
        }
        const SigningKey key{decoded->mid(2, keyIdSize), decoded->mid(2 + keyIdSize)};
        for (const SigningKey &other : std::as_const(parsed)) {
            if (other.keyId == key.keyId && other.publicKey != key.publicKey)
                return fail(QStringLiteral("two different keys have the id %1").arg(keyIdText(key.keyId)));
        }
        parsed.append(key);
        awaitingKey = false;
    }
    if (awaitingKey)
        return fail(QStringLiteral("the key file ends after a comment line, before its key line"));
    if (parsed.isEmpty())
        return fail(QStringLiteral("the key file holds no public key"));
    *keys = parsed;
    return true;
}

PackageDigests digestPackage(const QString &path)
{
    PackageDigests digests;
    QFile file(path);
    if (!sodiumReady() || !file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return digests;
    // libsodium's SHA-256 is markedly faster than Qt's, which pays for most
    // of the second digest: a signed package verifies no slower than an
    // unsigned one checked with QCryptographicHash.
    crypto_hash_sha256_state sha256;
    crypto_hash_sha256_init(&sha256);
    crypto_generichash_state blake2b;
    crypto_generichash_init(&blake2b, nullptr, 0, blake2bSize);
    QByteArray chunk(readChunkSize, Qt::Uninitialized);
    for (;;) {
        const qint64 size = file.read(chunk.data(), chunk.size());
        if (size < 0)
            return digests;
        if (size == 0)
            break;
        const auto *bytes = reinterpret_cast<const uchar *>(chunk.constData());
        crypto_hash_sha256_update(&sha256, bytes, static_cast<unsigned long long>(size));
        crypto_generichash_update(&blake2b, bytes, static_cast<unsigned long long>(size));
    }
    digests.sha256.resize(crypto_hash_sha256_BYTES);
    crypto_hash_sha256_final(&sha256, reinterpret_cast<uchar *>(digests.sha256.data()));
    digests.blake2b512.resize(blake2bSize);
    crypto_generichash_final(&blake2b, reinterpret_cast<uchar *>(digests.blake2b512.data()), blake2bSize);
    digests.ok = true;
    return digests;
}

SignatureVerdict verifyPackageSignature(const QByteArray &minisig, const QList<SigningKey> &keys,
                                        const QString &packagePath, const PackageDigests &digests,
                                        const TrustedClaims &claims)
{
    if (!sodiumReady())
        return SignatureVerdict::BadSignature;
    const std::optional<SignatureFile> signature = parseSignatureFile(minisig);
    if (!signature)
        return SignatureVerdict::Malformed;
    const auto key = std::find_if(keys.cbegin(), keys.cend(), [&signature](const SigningKey &candidate) {
        return candidate.keyId == signature->keyId;
    });
    if (key == keys.cend() || key->publicKey.size() != crypto_sign_PUBLICKEYBYTES)
        return SignatureVerdict::UnknownKey;

    bool packageSigned = false;
    if (signature->algorithm == "ED") {
        if (!digests.ok || digests.blake2b512.size() != blake2bSize)
            return SignatureVerdict::UnreadablePackage;
        packageSigned
            = signatureHolds(signature->signature, reinterpret_cast<const uchar *>(digests.blake2b512.constData()),
                             blake2bSize, key->publicKey);
    } else {
        // The legacy form signs the whole file in one piece; mapping it lets
        // the kernel page it in instead of holding a copy of the package.
        QFile package(packagePath);
        if (!package.open(QIODevice::ReadOnly))
            return SignatureVerdict::UnreadablePackage;
        const qint64 size = package.size();
        static const uchar nothing = 0;
        const uchar *contents = size > 0 ? package.map(0, size) : &nothing;
        if (!contents)
            return SignatureVerdict::UnreadablePackage;
        packageSigned = signatureHolds(signature->signature, contents, size, key->publicKey);
    }
    if (!packageSigned)
        return SignatureVerdict::BadSignature;

    const QByteArray signedComment = signature->signature + signature->trustedComment;
    if (!signatureHolds(signature->globalSignature, reinterpret_cast<const uchar *>(signedComment.constData()),
                        signedComment.size(), key->publicKey))
        return SignatureVerdict::BadGlobalSignature;
    if (!makesClaims(signature->trustedComment, claims))
        return SignatureVerdict::WrongVersion;
    return SignatureVerdict::Valid;
}
