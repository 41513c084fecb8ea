// CommonCrypto, the system's own digest, which uses the processor's SHA
// instructions where it has them.

#include "sha256stream.h"

#include <CommonCrypto/CommonDigest.h>

struct Sha256Stream::State
{
    CC_SHA256_CTX context;
};

Sha256Stream::Sha256Stream()
    : m_state(std::make_unique<State>())
{
    CC_SHA256_Init(&m_state->context);
}

Sha256Stream::~Sha256Stream() = default;

void Sha256Stream::add(const uchar *data, qint64 size)
{
    // CommonCrypto takes 32-bit lengths.
    for (qint64 done = 0; done < size; done += 1 << 30)
        CC_SHA256_Update(&m_state->context, data + done, CC_LONG(qMin<qint64>(size - done, 1 << 30)));
}

QByteArray Sha256Stream::result()
{
    QByteArray digest(CC_SHA256_DIGEST_LENGTH, Qt::Uninitialized);
    CC_SHA256_Final(reinterpret_cast<unsigned char *>(digest.data()), &m_state->context);
    return digest;
}
