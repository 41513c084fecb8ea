// OpenSSL's libcrypto, which uses the processor's SHA instructions.

#include "sha256stream.h"

#include <openssl/evp.h>

struct Sha256Stream::State
{
    EVP_MD_CTX *context = EVP_MD_CTX_new();
    ~State() { EVP_MD_CTX_free(context); }
};

Sha256Stream::Sha256Stream()
    : m_state(std::make_unique<State>())
{
    EVP_DigestInit_ex(m_state->context, EVP_sha256(), nullptr);
}

Sha256Stream::~Sha256Stream() = default;

void Sha256Stream::add(const uchar *data, qint64 size)
{
    EVP_DigestUpdate(m_state->context, data, size_t(size));
}

QByteArray Sha256Stream::result()
{
    QByteArray digest(32, Qt::Uninitialized);
    EVP_DigestFinal_ex(m_state->context, reinterpret_cast<uchar *>(digest.data()), nullptr);
    return digest;
}
