#pragma once

#include <sys/socket.h>

#include <functional>
#include <string>
#include <vector>

#include "host/CUpstreamRoute.h"

namespace ZRT {
namespace Host {

// How the direct host services are set up; read by CDirectHost's constructor, on its caller's
// thread. The callbacks say where they are called.
struct SDirectHostSettings {
    // Called once with the addresses a name has (none when it does not resolve) and how long the
    // engine may keep them, in seconds (DEFAULT_LIFETIME: its own rule).
    using LookupReply = std::function<void(const std::vector<sockaddr_storage>& addresses, int lifetimeSeconds)>;
    static constexpr int DEFAULT_LIFETIME = -1;
    // What a socket handed to socketHook is for: the values of the C interface's ZRT_SOCKET_*.
    enum class ESocketPurpose : int { Connect = 1, Datagram = 2, Lookup = 3, Listen = 4 };

    int transportThreads = 2;
    // Local addresses that BIND listeners use, per family.
    std::string bindIPv4 = "127.0.0.1";
    std::string bindIPv6 = "::1";
    // DNS servers to ask instead of the system's ("ADDR[:PORT],..."); empty: /etc/resolv.conf.
    std::string dnsServers;
    // How long a name lookup may take before it counts as failed.
    int lookupTimeoutMs = 10000;
    // Where traffic to destinations and DNS servers leaves from: numeric addresses per family
    // (empty: the system chooses) and an interface to bind to (SO_BINDTODEVICE; empty: none).
    std::string outgoingIPv4;
    std::string outgoingIPv6;
    std::string outgoingInterface;
    // The parent proxy that carries TCP connections to destinations, but those it bypasses
    // (none: every connection is direct).
    CUpstreamRoute upstream;

    // Run first and last on every thread the host starts.
    void (*threadStart)(void* context) = nullptr;
    void (*threadStop)(void* context) = nullptr;
    void* threadContext = nullptr;
    // Sees every socket the host makes (TCP to destinations, UDP for datagrams, name lookups'
    // sockets, BIND listeners) with what it is for, before it connects, binds, listens or sends;
    // false refuses that use of it. Called on the host's or the engine's threads, possibly several
    // at once.
    std::function<bool(int socket, ESocketPurpose purpose)> socketHook;
    // Looks names up instead of the host's own resolver: called with a host name on the thread
    // that asks (a connection's), it must not block, and replies once, at once or later, on any
    // thread. A lookup not replied to within lookupTimeoutMs fails.
    std::function<void(const std::string& name, LookupReply reply)> resolveHook;
};

} // namespace Host
} // namespace ZRT
