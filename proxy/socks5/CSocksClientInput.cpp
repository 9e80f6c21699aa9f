#include "proxy/socks5/CSocksClientInput.h"

#include "proxy/core/IProxyConnection.h"

namespace ZRT {
namespace Proxy {

bool CSocksClientInput::PassOrHold(EPhase phase, const char* data, int length)
{
    // Relaying with nothing held: no copy into the buffer.
    if (PassesThrough(phase)) {
        m_connection.SendToHost(data, length);
        return true;
    }
    m_bytes.insert(m_bytes.end(), data, data + length);
    return false;
}

bool CSocksClientInput::End(EPhase phase)
{
    switch (phase) {
    case EPhase::Relaying:
        return m_connection.EndHostOutput();
    case EPhase::Commanding:
        // A client that sent its request (and what follows it) and then finished still gets its
        // answer: the end goes to the host behind those bytes once the relay starts.
        m_ended = true;
        return true;
    case EPhase::Negotiating:
        break;
    }
    // Nothing to answer for; and a BIND may wait minutes for its peer: a client that went must
    // not hold the listener and a client slot all that time.
    return false;
}

bool CSocksClientInput::Release()
{
    if (!m_bytes.empty()) {
        m_connection.SendToHost(reinterpret_cast<const char*>(m_bytes.data()), static_cast<int>(m_bytes.size()));
        m_bytes.clear();
    }
    if (m_ended && !m_connection.EndHostOutput())
        return false;
    m_ended = false;
    return true;
}

void CSocksClientInput::Consume(unsigned int count)
{
    if (count >= m_bytes.size()) {
        m_bytes.clear();
        return;
    }
    m_bytes.erase(m_bytes.begin(), m_bytes.begin() + count);
}

} // namespace Proxy
} // namespace ZRT
