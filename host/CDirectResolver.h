#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host/INameService.h"
#include "runtime/CRefCountPtr.h"
#include "transport/IResolveAddress.h"
#include "transport/IZRTConnectionAddress.h"

namespace ZRT {
namespace Host {

// Resolves "host:port" texts ("[v6]:port" too). Numeric hosts, in every form the C library
// reads (127.1, 2130706433, 0x7f000001, IPv6 literals), are answered at once, inside the call;
// names go to the name service, which never lets a slow name hold up another. Every request is
// answered once to every registered notification, with the text exactly as given and an empty
// address on failure, unless it was cancelled (CancelRequest) first. IPv4 results are preferred,
// as local services often listen on 127.0.0.1 only.
//
// RemoveNotification never waits for an answer being delivered (the engine waits for those
// itself): it marks the registration removed, so no answer starts towards it afterwards; one
// that had already started may still finish.
//
// Threads: every operation comes from any thread. Numeric answers are called on the caller's
// thread, inside ResolveAddressAsync; names on the thread the name service answers on.
class CDirectResolver : public IResolveAddress {
public:
    static constexpr int STATUS_RESOLVED = 0;
    static constexpr int STATUS_FAILED = -1;

    explicit CDirectResolver(INameService& names);
    // Abandons every lookup under way: no answer comes afterwards.
    ~CDirectResolver() override;
    CDirectResolver(const CDirectResolver&) = delete;
    CDirectResolver& operator=(const CDirectResolver&) = delete;

    int ResolveAddressAsync(const std::string& address) override;
    // Withdraws one request for the text; the last one abandons its lookup.
    int CancelRequest(const std::string& address) override;
    int AddNotification(IResolveAddressCompletedNotification* notification) override;
    int RemoveNotification(IResolveAddressCompletedNotification* notification) override;

    // Splits "host:port" or "[v6]:port"; the host comes back without brackets.
    static bool SplitDestination(const std::string& address, std::string& host, unsigned int& port);
    // A numeric host in any form the C library reads, with the port; empty for a name.
    static QOX::CRefCountPtr<IZRTConnectionAddress> ParseNumeric(const std::string& host, unsigned int port);

private:
    struct SRegistration {
        IResolveAddressCompletedNotification* notification;
        bool removed;
    };
    struct SPending {
        uint64_t id;
        int requests;
    };

    void Answered(const std::string& text, unsigned int port, const std::vector<sockaddr_storage>& addresses,
                  int lifetimeSeconds);
    // lifetimeSeconds reaches notifications that take it (IResolveAddressLifetimeNotification).
    void Deliver(const std::string& address, const QOX::CRefCountPtr<IZRTConnectionAddress>& result, int times,
                 int lifetimeSeconds = -1);

    INameService& m_names;
    // Guards the lookups under way and the registrations.
    std::mutex m_mutex;
    std::map<std::string, SPending> m_pending;
    std::vector<std::shared_ptr<SRegistration>> m_registrations;
};

} // namespace Host
} // namespace ZRT
