#pragma once

#include <sys/socket.h>

#include <functional>
#include <string>

#include "host/SDirectHostSettings.h"

namespace ZRT {
namespace Host {

// Readies every socket the direct host opens towards the outside (TCP to destinations, UDP for
// datagrams and name lookups) before it connects or sends: it binds it to the outgoing address
// of its family and to the outgoing interface where those are set, then asks the host's hook with
// the socket's purpose, which may refuse it (an Android VPN app protects it from its own tunnel
// there). BIND listeners are shown to the hook alone (Announce): they face the client's side. Copyable;
// shared by the services. Every operation comes from any thread (the one that opens the
// socket: an event thread, a loop's for c-ares); the hook is called on that thread.
class CSocketPreparer {
public:
    using EPurpose = SDirectHostSettings::ESocketPurpose;
    // hook: true lets the socket be used; empty lets every socket be used.
    using Hook = std::function<bool(int socket, EPurpose purpose)>;

    // Where outgoing traffic leaves from; empty texts leave the choice to the system.
    struct SOutgoing {
        std::string ipv4;          // numeric IPv4 address
        std::string ipv6;          // numeric IPv6 address
        std::string interfaceName; // SO_BINDTODEVICE
    };

    CSocketPreparer() = default;
    explicit CSocketPreparer(Hook hook, const SOutgoing& outgoing = SOutgoing());

    // For a socket of this family that will connect: bound to the outgoing address and
    // interface, then the hook. False when it must not be used (the caller closes it).
    bool PrepareToConnect(int socket, int family) const;
    // For a socket the caller binds itself (UDP, c-ares): the interface, then the hook.
    bool Prepare(int socket, EPurpose purpose) const;
    // The hook alone, for a socket that stays on this machine's side (a BIND listener).
    bool Announce(int socket, EPurpose purpose) const;
    // The outgoing address for a family with port 0; false when none is set.
    bool GetOutgoingAddress(int family, sockaddr_storage& address, socklen_t& length) const;
    const std::string& GetInterface() const { return m_outgoing.interfaceName; }

    // Why the outgoing settings cannot work on this machine ("" when they can): an address not
    // given to any interface, an interface that does not exist or may not be bound to.
    std::string Check() const;

private:
    bool BindToInterface(int socket) const;

    Hook m_hook;
    SOutgoing m_outgoing;
};

} // namespace Host
} // namespace ZRT
