// Qt's portable SHA-256, for a system with neither CommonCrypto nor libcrypto.

#include "sha256stream.h"

#include <QCryptographicHash>

struct Sha256Stream::State
{
    QCryptographicHash sha256{QCryptographicHash::Sha256};
};

Sha256Stream::Sha256Stream()
    : m_state(std::make_unique<State>())
{
}

Sha256Stream::~Sha256Stream() = default;

void Sha256Stream::add(const uchar *data, qint64 size)
{
    m_state->sha256.addData(QByteArrayView(reinterpret_cast<const char *>(data), size));
}

QByteArray Sha256Stream::result()
{
    return m_state->sha256.result();
}
