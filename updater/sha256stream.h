#pragma once

#include <QByteArray>

#include <memory>

// SHA-256 fed in pieces, by the fastest implementation the system has: the
// delta applier hashes whole bundles, base files and results alike, and
// with the processor's SHA instructions that takes a tenth of the time of a
// portable implementation.
class Sha256Stream
{
public:
    Sha256Stream();
    ~Sha256Stream();
    void add(const uchar *data, qint64 size);
    QByteArray result(); // raw 32 bytes; the stream is spent afterwards

private:
    struct State;
    std::unique_ptr<State> m_state;
};
