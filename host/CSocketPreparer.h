#pragma once

#include <functional>

namespace ZRT {
namespace Host {

// Readies every socket the direct host opens towards the outside (TCP to destinations, UDP for
// datagrams and name lookups) before it connects or sends: the host's hook may refuse it (an
// Android VPN app protects it from its own tunnel there). Copyable; shared by the services.
class CSocketPreparer {
public:
    // hook: true lets the socket be used; empty lets every socket be used.
    using Hook = std::function<bool(int socket)>;

    CSocketPreparer() = default;
    explicit CSocketPreparer(Hook hook) : m_hook(std::move(hook)) {}

    // False when the socket must not be used (the caller closes it).
    bool Prepare(int socket) const { return !m_hook || m_hook(socket); }

private:
    Hook m_hook;
};

} // namespace Host
} // namespace ZRT
