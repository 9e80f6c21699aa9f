#pragma once

#include <condition_variable>
#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "runtime/CRefCountPtr.h"
#include "runtime/Export.h"
#include "transport/IResolveAddress.h"
#include "transport/IResolveAddressLifetimeNotification.h"
#include "transport/IZRTConnectionAddress.h"

namespace ZRT {
namespace Proxy {

// The name cache in front of the host's asynchronous resolver. Each proxy has one of its own. It
// turns "host:port" texts into addresses: answers are kept for an hour, failures for a minute (or
// as long as the resolver says, at most an hour: IResolveAddressLifetimeNotification), keyed by
// the name alone (the port of each request is applied to the cached address), at most GetCacheLimit() names,
// the least recently used leaving first. Expired names are swept as new ones come in; nothing
// runs on a timer.
//
// Lookups: Lookup answers at once from the cache, or registers a waiter that is told the answer
// on the resolver's thread. Requests for one name share one question to the resolver; a name
// that nobody waits for any more is cancelled there (IResolveAddress::CancelRequest). The
// synchronous ResolveAddress waits for at most QUERY_TIMEOUT_SECONDS.
//
// It also knows the machine's own names and addresses: IsLocalAddress for the HTTP side's test,
// IsThisMachine for the destination rules, IsProxyItself for the proxy's own port.
class ZRT_EXPORT CAddressManager : public IResolveAddressLifetimeNotification {
public:
    using AddressPtr = QOX::CRefCountPtr<IZRTConnectionAddress>;

    struct SAddressInfo {
        uint32_t m_time = 0;
        uint32_t m_lifetime = 0; // clock() ticks
        AddressPtr m_address;
    };

    // Told the answer of a lookup that Lookup could not give at once: exactly once, on the
    // resolver's thread or inside the Lookup call that asked, never with the manager's lock held.
    class IWaiter {
    public:
        virtual void OnLookupDone(const AddressPtr& address) = 0; // empty when it failed

    protected:
        ~IWaiter() = default;
    };

    static constexpr uint32_t CACHE_LIFETIME_RESOLVED = 3600000000u; // one hour of clock() ticks
    static constexpr uint32_t CACHE_LIFETIME_FAILED = 60000000u;     // one minute
    static constexpr double QUERY_TIMEOUT_SECONDS = 30.0;
    static constexpr size_t DEFAULT_CACHE_LIMIT = 4096;
    // The machine's addresses are read again when asked after this long.
    static constexpr int OWN_ADDRESS_REFRESH_MS = 10000;


    CAddressManager();
    ~CAddressManager() override;
    CAddressManager(const CAddressManager&) = delete;
    CAddressManager& operator=(const CAddressManager&) = delete;

    // Registers with the resolver; a second Init while initialised changes nothing.
    bool Init(IResolveAddress* resolver);
    // Unregisters, empties the cache, and fails every waiting lookup. When it returns, no call of
    // the resolver is inside the manager any more.
    void Terminate();
    // The HTTP side's test for this machine, on a "host:port" text before any lookup: its host
    // name or "localhost" (any letter case, a name under localhost too), or one of its interface
    // addresses or the unspecified address in any numeric form ("127.1", "0x7f000001",
    // "[::ffff:127.0.0.1]"). Other loopback addresses (127.0.0.2) are not this machine's here.
    bool IsLocalAddress(const std::string& address);
    // Any address of this machine (every loopback address, the unspecified ones, every interface
    // address), whatever the port: what a proxy serving a network keeps its clients out of.
    bool IsThisMachine(const sockaddr_storage& address);
    // The network changed: forgets every cached answer and reads this machine's names and
    // addresses again. Lookups under way go on (their answers are kept). Any thread.
    void ForgetNetwork();
    // Makes every waiting ResolveAddress give up.
    void StopRequest();
    bool FindAddressInCache(const std::string& key, AddressPtr& address);
    AddressPtr ResolveLocally(const std::string& key);
    AddressPtr QueryAddress(const std::string& key);
    AddressPtr ResolveAddress(const std::string& key);

    // False for a text that cannot be a host name or address: empty, longer than 255 bytes,
    // or holding NUL, another control character or a space. Such names are never looked up.
    static bool IsPlausibleHostName(const std::string& name);

    // True with the answer (empty for a known failure) when it is known now; false when waiter
    // will be told. An implausible name is a known failure.
    bool Lookup(const std::string& key, IWaiter* waiter, AddressPtr& address);
    // No OnLookupDone reaches waiter after this returns (it waits for one being made on
    // another thread).
    void CancelLookup(IWaiter* waiter);

    // The proxy's own listening port for IsProxyItself; 0 when it has none.
    void SetProxyPort(unsigned int port);
    // Every port the proxy listens on (0s are ignored).
    void SetProxyPorts(const std::vector<unsigned int>& ports);
    bool IsProxyPort(unsigned int port);
    // True for an address of this machine (any loopback or unspecified address, their
    // IPv4-mapped forms, every interface address) with the proxy's own port: a connection there
    // would come back into the proxy.
    bool IsProxyItself(const IZRTConnectionAddress& address);

    void SetCacheLimit(size_t names);
    size_t GetCacheLimit();
    size_t GetCacheSize();

    void OnResolveAddressCompleted(int status, const std::string& address, AddressPtr result) override;
    void OnResolveAddressCompletedFor(int status, const std::string& address, AddressPtr result,
                                      int lifetimeSeconds) override;

    // For tests: replaces the set of local names and addresses, and the machine's own addresses
    // (numeric texts) that IsProxyItself knows besides loopback and unspecified ones.
    void SetLocalAddressesForTesting(const std::set<std::string>& addresses);
    void SetOwnAddressesForTesting(const std::set<std::string>& addresses);
    // Wakes every waiting ResolveAddress to look at the clock again (after the test moved it).
    void WakeWaitersForTesting();

private:
    struct SEntry {
        SAddressInfo info;
        std::list<std::string>::iterator recency;
    };
    struct SWaiting {
        IWaiter* waiter;
        std::string key;
    };
    struct SPending {
        std::string askedKey;
        std::vector<SWaiting> waiters;
    };
    struct SDelivery {
        IWaiter* waiter;
        std::thread::id thread;
    };
    class CSyncWaiter;

    bool FindLocked(const std::string& key, AddressPtr& address);
    // lifetimeSeconds: DEFAULT_LIFETIME for the rule above; 0 keeps nothing.
    void InsertLocked(const std::string& name, const AddressPtr& address, int lifetimeSeconds);
    static bool IsFresh(const SAddressInfo& info);
    void SweepLocked();
    void EraseLocked(std::unordered_map<std::string, SEntry>::iterator entry);
    // Takes waiter out of the pending lookups; the key asked for its name when it was the last.
    std::string WithdrawLocked(IWaiter* waiter);
    void Deliver(const std::vector<SWaiting>& waiters, const AddressPtr& result);
    void CollectLocalAddressesLocked();
    void RefreshOwnAddressesLocked();

    // Guards every member below. Never held while the resolver or a waiter is called.
    std::mutex m_mutex;
    std::condition_variable m_changed;
    IResolveAddress* m_resolver = nullptr;
    bool m_initialized = false;
    size_t m_cacheLimit = DEFAULT_CACHE_LIMIT;
    std::unordered_map<std::string, SEntry> m_cache;
    std::list<std::string> m_recency; // names, most recently used first
    std::map<std::string, SPending> m_pending;
    std::unordered_map<IWaiter*, std::string> m_waiterNames;
    std::vector<SDelivery> m_deliveries;
    std::set<CSyncWaiter*> m_syncWaiters;
    int m_resolverCalls = 0; // OnResolveAddressCompleted calls in progress
    std::set<std::string> m_localNames;   // lower case
    std::set<std::string> m_localNumeric; // 16-byte forms (IPv4 mapped)
    std::set<std::string> m_ownAddresses; // 16-byte forms (IPv4 mapped)
    long long m_ownAddressesTime = 0;
    bool m_ownAddressesFixed = false;
    std::vector<unsigned int> m_proxyPorts;
};

} // namespace Proxy
} // namespace ZRT
