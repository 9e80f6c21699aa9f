#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace ZRT {
namespace Host {

// How the direct resolver finds the addresses of a host name (DNS, the hosts file). Lookups
// never wait for one another. Start and Abandon come from any thread.
class INameService {
public:
    // The addresses found (ports unset), IPv4 ones first, empty when the name did not resolve;
    // and how long they may be kept in seconds, or -1 for the engine's own rule.
    using Answer = std::function<void(const std::vector<sockaddr_storage>& addresses, int lifetimeSeconds)>;

    virtual ~INameService() = default;
    // Starts a lookup; answer is called once, on a thread of the service, unless the lookup was
    // abandoned first. Returns the lookup's id for Abandon.
    virtual uint64_t Start(const std::string& host, Answer answer) = 0;
    // The answer of that lookup will not be called (a call in progress may still finish).
    virtual void Abandon(uint64_t id) = 0;
};

} // namespace Host
} // namespace ZRT
