#pragma once

#include <sys/socket.h>

#include <chrono>
#include <functional>
#include <optional>

#include "proxy/core/CConnectionRecord.h"
#include "proxy/core/CProxyHeader.h"
#include "proxy/core/IProxyObserver.h"
#include "transport/CTCPIPAddress.h"

namespace ZRT {
namespace Proxy {

// The client that a trusted load balancer carries on one connection: reads the PROXY protocol
// header the balancer starts with, has the client it names admitted (the allow list, the
// per-source limit) and puts that client in the balancer's place: the peer whose slot the
// connection holds, the address its handlers see and its record names. A header that names no
// client (LOCAL: the balancer's own check; UNKNOWN, unspecified, UNIX) leaves the balancer there.
// Every operation runs on the connection's thread.
class CCarriedClient {
public:
    using Clock = std::chrono::steady_clock;
    // Admits the client in the balancer's place (its slot of the client limits given back, the
    // client's taken), or tells why it is refused.
    using Admit = std::function<EOutcome(const sockaddr_storage& balancer, const sockaddr_storage& client)>;

    // peer, address, record: the connection's, changed when a client is carried.
    CCarriedClient(Admit admit, sockaddr_storage& peer, CTCPIPAddress& address, CConnectionRecord& record)
        : m_admit(std::move(admit)), m_peer(peer), m_address(address), m_record(record)
    {
    }

    // Takes what of the header has come from the socket, and nothing after it. Nothing while the
    // header is incomplete; then true when the connection goes on (its client carried, or the
    // balancer standing), false when it is refused, which is recorded: a client not admitted, or a
    // bad request (a malformed or cut header, one not whole by the deadline).
    std::optional<bool> Read(int socket, std::optional<Clock::time_point> deadline);

private:
    CProxyHeader m_header;
    const Admit m_admit;
    sockaddr_storage& m_peer;
    CTCPIPAddress& m_address;
    CConnectionRecord& m_record;
};

} // namespace Proxy
} // namespace ZRT
