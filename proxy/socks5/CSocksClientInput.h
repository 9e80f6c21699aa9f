#pragma once

#include <vector>

#include "runtime/Export.h"

namespace ZRT {
namespace Proxy {

class IProxyConnection;

// What a SOCKS client sent that its handler has not passed on: the negotiation is read from
// here, and the bytes and the end that follow a request wait here while its command is under way,
// so that they reach the host in order and behind the reply once the relay starts. Shared by the
// SOCKS4 and SOCKS5 handlers; only the connection's thread uses it.
class ZRT_EXPORT CSocksClientInput {
public:
    // Where the handler stands when the client's bytes or end arrive.
    enum class EPhase {
        Negotiating, // the end leaves nothing to answer for (or a BIND would wait for nobody)
        Commanding,  // a resolve or connect runs: the client still gets its answer
        Relaying
    };

    explicit CSocksClientInput(IProxyConnection& connection) : m_connection(connection) {}

    // Bytes from the client: straight to the host when relaying with nothing held (true), else
    // held for the handler (false).
    bool PassOrHold(EPhase phase, const char* data, int length);
    bool PassesThrough(EPhase phase) const { return phase == EPhase::Relaying && m_bytes.empty(); }
    // The client finished sending; false when the connection should end now.
    bool End(EPhase phase);
    // The relay starts: held bytes, then a held end, go to the host. False when the end could not
    // be passed on and the connection should close.
    bool Release();

    unsigned int Size() const { return static_cast<unsigned int>(m_bytes.size()); }
    const unsigned char* Data() const { return m_bytes.data(); }
    void Consume(unsigned int count);
    void Clear() { m_bytes.clear(); }

private:
    IProxyConnection& m_connection;
    std::vector<unsigned char> m_bytes;
    // The client finished sending while its command was under way.
    bool m_ended = false;
};

} // namespace Proxy
} // namespace ZRT
