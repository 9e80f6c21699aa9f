#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "runtime/CRecursiveMutex.h"
#include "runtime/CRefCountPtr.h"
#include "runtime/Export.h"
#include "transport/IResolveAddress.h"
#include "transport/IResolveAddressCompletedNotification.h"
#include "transport/IZRTConnectionAddress.h"

namespace ZRT {
namespace Proxy {

// Process-wide cache in front of the host's asynchronous resolver: turns "host:port" texts into
// addresses, remembering answers for an hour and failures for a minute, and makes resolution look
// synchronous to its callers. Also knows this machine's own names and addresses.
class ZRT_EXPORT CAddressManager : public IResolveAddressCompletedNotification {
public:
    struct SAddressInfo {
        uint32_t m_time = 0;
        QOX::CRefCountPtr<IZRTConnectionAddress> m_address;
    };

    static constexpr uint32_t CACHE_LIFETIME_RESOLVED = 3600000000u; // one hour of clock() ticks
    static constexpr uint32_t CACHE_LIFETIME_FAILED = 60000000u;     // one minute
    static constexpr double QUERY_TIMEOUT_SECONDS = 30.0;
    // A waiting query sleeps on a condition that every answer and every stop signals, so it
    // reacts at once instead of looking every QUERY_POLL_INTERVAL ms.
    static constexpr int QUERY_POLL_INTERVAL = 10;

    static CAddressManager* GetInstance();

    CAddressManager();
    ~CAddressManager() override;
    CAddressManager(const CAddressManager&) = delete;
    CAddressManager& operator=(const CAddressManager&) = delete;

    bool Init(IResolveAddress* resolver);
    void Terminate();
    bool IsLocalAddress(const std::string& address);
    void StopRequest();
    bool FindAddressInCache(const std::string& key, QOX::CRefCountPtr<IZRTConnectionAddress>& address);
    QOX::CRefCountPtr<IZRTConnectionAddress> ResolveLocally(const std::string& key);
    QOX::CRefCountPtr<IZRTConnectionAddress> QueryAddress(const std::string& key);
    QOX::CRefCountPtr<IZRTConnectionAddress> ResolveAddress(const std::string& key);

    void OnResolveAddressCompleted(int status, const std::string& address,
                                   QOX::CRefCountPtr<IZRTConnectionAddress> result) override;

    // For tests: replaces the set of local names and addresses.
    void SetLocalAddressesForTesting(const std::set<std::string>& addresses);
    size_t GetCacheSizeForTesting();

private:
    void CollectLocalAddresses();

    QOX::CRecursiveMutex m_mutex;
    // Wakes waiting queries when an answer arrives or a stop is requested, so they do not sleep
    // out their poll interval.
    std::condition_variable_any m_changed;
    // Counts stop requests; a query gives up when it changes while it waits.
    uint64_t m_stopGeneration = 0;
    IResolveAddress* m_resolver = nullptr;
    std::map<std::string, SAddressInfo> m_cache;
    bool m_initialized = false;
    std::set<std::string> m_localAddresses;
};

} // namespace Proxy
} // namespace ZRT
