#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>

// A publisher key: the 8-byte id that a signature names, and the Ed25519
// public key that must verify it.
struct SigningKey
{
    QByteArray keyId;
    QByteArray publicKey;
};

// Reads public keys in the format minisign -G writes: an "untrusted comment:"
// line, then the key line. Several keys may be concatenated while a key is
// rotated, with blank lines between them. Anything else is refused: the
// function returns false, leaves keys as they were and puts the reason, in
// English for the configure step and the log, into error (if given).
bool parseSigningKeys(const QByteArray &text, QList<SigningKey> *keys, QString *error);

// Both digests the package needs, from a single read of the file: SHA-256
// for the release record and BLAKE2b-512 for a prehashed signature. ok is
// false when the file could not be read to its end. A build without
// libsodium leaves blake2b512 empty, and no signature verifies there.
struct PackageDigests
{
    QByteArray sha256; // raw 32 bytes
    QByteArray blake2b512; // raw 64 bytes
    bool ok = false;
};

PackageDigests digestPackage(const QString &path);

// Anything but Valid is a refusal.
enum class SignatureVerdict {
    Valid,
    Malformed, // not a minisign signature file, or larger than 64 KiB
    UnknownKey, // signed by a key that is not configured, or no keys at all
    BadSignature, // the package is not what the key signed
    BadGlobalSignature, // the trusted comment is not what the key signed
    WrongVersion, // authentic, but signed for another release or another kind of file
    UnreadablePackage, // the package or its digests could not be read
};

// What the signed trusted comment must say: each name exactly once as a
// "name:value" token with exactly that value; an empty value means the name
// must not occur at all. A token twice is a refusal even when one of them is
// right, so that one signature never stands for two releases.
using TrustedClaims = QList<QPair<QByteArray, QString>>;

// A package: version:<release>, and neither kind: nor from:, so that the
// signature of a delta never passes for one of a package.
TrustedClaims packageClaims(const QString &version);

// A delta: version:<release>, from:<installed version it patches> and
// kind:delta, so that neither a package's signature nor one of a delta from
// another version passes for it.
TrustedClaims deltaClaims(const QString &version, const QString &from);

// Checks a .minisig file against the configured keys. digests must come from
// digestPackage(packagePath): a prehashed signature (the minisign default)
// uses them; only a legacy signature reads the file again.
SignatureVerdict verifyPackageSignature(const QByteArray &minisig, const QList<SigningKey> &keys,
                                        const QString &packagePath, const PackageDigests &digests,
                                        const TrustedClaims &claims);
