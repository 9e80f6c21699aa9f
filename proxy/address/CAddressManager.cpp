#include "proxy/address/CAddressManager.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstring>
#include <iterator>

#include "runtime/Clock.h"
#include "transport/CSocketUtils.h"
#include "transport/CTCPIPAddress.h"

namespace ZRT {
namespace Proxy {

namespace {
// Entries looked at for expiry, from the least recently used end, per insertion.
constexpr int SWEEP_PER_INSERT = 8;

// Splits "name:port"; false (the whole text as the name) when there is no decimal port.
bool SplitKey(const std::string& key, std::string& name, unsigned int& port)
{
    const size_t colon = key.rfind(':');
    name = key;
    port = 0;
    if (colon == std::string::npos || colon + 1 == key.size() || key.size() - colon > 6)
        return false;
    unsigned long value = 0;
    for (size_t i = colon + 1; i < key.size(); ++i) {
        if (key[i] < '0' || key[i] > '9')
            return false;
        value = value * 10 + static_cast<unsigned long>(key[i] - '0');
    }
    if (value > 65535)
        return false;
    name = key.substr(0, colon);
    port = static_cast<unsigned int>(value);
    return true;
}

std::string CacheName(const std::string& key)
{
    std::string name;
    unsigned int port = 0;
    SplitKey(key, name, port);
    return name;
}

// The cached address with the port that the key asks for.
CAddressManager::AddressPtr WithPort(const CAddressManager::AddressPtr& address, const std::string& key)
{
    std::string name;
    unsigned int port = 0;
    if (!address || !SplitKey(key, name, port) || address->GetPortNumber() == port)
        return address;
    if (const auto* tcp = dynamic_cast<const CTCPIPAddress*>(address.Get()))
        return tcp->WithPort(port); // the name's other addresses too
    sockaddr_storage storage{};
    int length = sizeof(storage);
    if (!address->GetSockAddr(reinterpret_cast<sockaddr*>(&storage), &length))
        return address;
    if (storage.ss_family == AF_INET)
        reinterpret_cast<sockaddr_in*>(&storage)->sin_port = htons(static_cast<uint16_t>(port));
    else if (storage.ss_family == AF_INET6)
        reinterpret_cast<sockaddr_in6*>(&storage)->sin6_port = htons(static_cast<uint16_t>(port));
    auto* copy = new CTCPIPAddress();
    CAddressManager::AddressPtr held(copy);
    if (!copy->SetAddress(*reinterpret_cast<sockaddr*>(&storage), static_cast<unsigned int>(length)))
        return address;
    return held;
}

// The 16-byte form of an IPv4 or IPv6 socket address (IPv4 as ::ffff:a.b.c.d); empty otherwise.
std::string AddressBytes(const sockaddr* address)
{
    unsigned char bytes[16] = {0};
    if (address->sa_family == AF_INET) {
        bytes[10] = bytes[11] = 0xff;
        std::memcpy(bytes + 12, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, 4);
    } else if (address->sa_family == AF_INET6) {
        std::memcpy(bytes, &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr, 16);
    } else {
        return {};
    }
    return std::string(reinterpret_cast<const char*>(bytes), 16);
}

// Calls visit with the address of every network interface (the interface list, never the
// system resolver: the host decides how names are looked up).
template <typename Visit>
void ForEachInterfaceAddress(Visit visit)
{
    ifaddrs* interfaces = nullptr;
    if (getifaddrs(&interfaces) != 0)
        return;
    for (const ifaddrs* entry = interfaces; entry; entry = entry->ifa_next) {
        if (entry->ifa_addr)
            visit(entry->ifa_addr);
    }
    freeifaddrs(interfaces);
}

bool IsLoopbackOrUnspecified(const std::string& bytes)
{
    static const unsigned char zero[16] = {0};
    static const unsigned char one[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    const auto* b = reinterpret_cast<const unsigned char*>(bytes.data());
    if (std::memcmp(b, zero, 16) == 0 || std::memcmp(b, one, 16) == 0)
        return true;
    const bool mapped = std::memcmp(b, zero, 10) == 0 && b[10] == 0xff && b[11] == 0xff;
    if (!mapped)
        return false;
    // 127.0.0.0/8 and 0.0.0.0 in the mapped form.
    return b[12] == 127 || (b[12] == 0 && b[13] == 0 && b[14] == 0 && b[15] == 0);
}

bool IsUnspecified(const std::string& bytes)
{
    static const unsigned char zero[16] = {0};
    static const unsigned char mappedZero[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 0, 0, 0, 0};
    return std::memcmp(bytes.data(), zero, 16) == 0 || std::memcmp(bytes.data(), mappedZero, 16) == 0;
}

// The 16-byte form of a numeric host text in any form the C library reads: IPv6, and IPv4 as
// inet_aton takes it ("127.1", "2130706433", "0x7f000001", "0177.0.0.1"); empty for a name.
std::string NumericBytes(const std::string& host)
{
    sockaddr_storage storage{};
    auto& v4 = reinterpret_cast<sockaddr_in&>(storage);
    auto& v6 = reinterpret_cast<sockaddr_in6&>(storage);
    if (inet_aton(host.c_str(), &v4.sin_addr) != 0)
        v4.sin_family = AF_INET;
    else if (inet_pton(AF_INET6, host.c_str(), &v6.sin6_addr) == 1)
        v6.sin6_family = AF_INET6;
    else
        return {};
    return AddressBytes(reinterpret_cast<const sockaddr*>(&storage));
}

std::string LowerCase(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

long long NowMilliseconds()
{
    return QOX::MonotonicMilliseconds();
}
} // namespace

// A synchronous ResolveAddress: waits on its own condition for the answer, a stop or the limit.
class CAddressManager::CSyncWaiter : public CAddressManager::IWaiter {
public:
    void OnLookupDone(const AddressPtr& address) override
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_result = address;
        m_done = true;
        m_changed.notify_all();
    }
    void GiveUp()
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_done = true;
        m_changed.notify_all();
    }
    void Poke()
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_changed.notify_all();
    }
    // Waits until answered or the clock says the limit passed; false on the limit.
    bool Wait(uint32_t start, AddressPtr& result)
    {
        const uint32_t limit = static_cast<uint32_t>(QUERY_TIMEOUT_SECONDS * 1e6);
        std::unique_lock<std::mutex> hold(m_mutex);
        for (;;) {
            if (m_done) {
                result = m_result;
                return true;
            }
            const uint32_t elapsed = QOX::clock() - start;
            if (elapsed >= limit)
                return false;
            m_changed.wait_for(hold, std::chrono::microseconds(limit - elapsed));
        }
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_done = false;
    AddressPtr m_result;
};

CAddressManager::CAddressManager() = default;

// Terminate is the owner's duty (CProxyServer::StopProxy): at unload the resolver may be gone.
CAddressManager::~CAddressManager() = default;

bool CAddressManager::Init(IResolveAddress* resolver)
{
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        if (m_initialized || !resolver)
            return m_resolver != nullptr;
        m_resolver = resolver;
        m_initialized = true;
        CollectLocalAddressesLocked();
    }
    resolver->AddNotification(this);
    return true;
}

void CAddressManager::Terminate()
{
    IResolveAddress* resolver = nullptr;
    std::vector<SWaiting> failed;
    std::set<CSyncWaiter*> syncWaiters;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        if (!m_initialized)
            return;
        resolver = m_resolver;
        m_resolver = nullptr;
        m_initialized = false;
        m_cache.clear();
        m_recency.clear();
        for (auto& entry : m_pending) {
            for (SWaiting& waiting : entry.second.waiters)
                failed.push_back(waiting);
        }
        m_pending.clear();
        m_waiterNames.clear();
        syncWaiters = m_syncWaiters;
        for (const SWaiting& waiting : failed)
            m_deliveries.push_back({waiting.waiter, std::this_thread::get_id()});
    }
    // Not under our lock: a resolver's answer in progress may be waiting for it.
    resolver->RemoveNotification(this);
    for (CSyncWaiter* waiter : syncWaiters)
        waiter->GiveUp();
    Deliver(failed, AddressPtr());
    std::unique_lock<std::mutex> hold(m_mutex);
    m_changed.wait(hold, [&] { return m_resolverCalls == 0; });
}

void CAddressManager::ForgetNetwork()
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_cache.clear();
    m_recency.clear();
    CollectLocalAddressesLocked();
    m_ownAddressesTime = 0;
    RefreshOwnAddressesLocked();
}

void CAddressManager::CollectLocalAddressesLocked()
{
    m_localNames.clear();
    m_localNumeric.clear();
    char name[256];
    std::memset(name, 0, sizeof(name));
    if (gethostname(name, 255) == 0 && name[0] != '\0')
        m_localNames.insert(LowerCase(name));
    ForEachInterfaceAddress([this](const sockaddr* address) {
        const std::string bytes = AddressBytes(address);
        if (!bytes.empty())
            m_localNumeric.insert(bytes);
    });
}

bool CAddressManager::IsLocalAddress(const std::string& address)
{
    std::string host = address;
    unsigned int port = 0;
    SplitKey(address, host, port);
    host = CSocketUtils::StripBrackets(host);
    const std::string bytes = NumericBytes(host);
    std::string name = LowerCase(host);
    if (!name.empty() && name.back() == '.')
        name.pop_back();
    std::lock_guard<std::mutex> hold(m_mutex);
    if (!bytes.empty())
        return IsUnspecified(bytes) || m_localNumeric.count(bytes) != 0;
    // "localhost" and every name under it are this machine's by definition (RFC 6761).
    const std::string under = ".localhost";
    return name == "localhost" || m_localNames.count(name) != 0 ||
           (name.size() > under.size() && name.compare(name.size() - under.size(), under.size(), under) == 0);
}

bool CAddressManager::IsThisMachine(const sockaddr_storage& address)
{
    const std::string bytes = AddressBytes(reinterpret_cast<const sockaddr*>(&address));
    if (bytes.empty())
        return false;
    if (IsLoopbackOrUnspecified(bytes))
        return true;
    std::lock_guard<std::mutex> hold(m_mutex);
    RefreshOwnAddressesLocked();
    return m_ownAddresses.count(bytes) != 0;
}

void CAddressManager::StopRequest()
{
    std::set<CSyncWaiter*> waiters;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        waiters = m_syncWaiters;
    }
    for (CSyncWaiter* waiter : waiters)
        waiter->GiveUp();
}

void CAddressManager::WakeWaitersForTesting()
{
    std::lock_guard<std::mutex> hold(m_mutex);
    for (CSyncWaiter* waiter : m_syncWaiters)
        waiter->Poke();
}

// ---- the cache ----

bool CAddressManager::FindAddressInCache(const std::string& key, AddressPtr& address)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return FindLocked(key, address);
}

bool CAddressManager::FindLocked(const std::string& key, AddressPtr& address)
{
    const auto entry = m_cache.find(CacheName(key));
    if (entry == m_cache.end())
        return false;
    const SAddressInfo& info = entry->second.info;
    if (!IsFresh(info)) {
        EraseLocked(entry);
        return false;
    }
    m_recency.splice(m_recency.begin(), m_recency, entry->second.recency);
    address = WithPort(info.m_address, key);
    return true;
}

bool CAddressManager::IsFresh(const SAddressInfo& info)
{
    return QOX::clock() - info.m_time <= info.m_lifetime; // unsigned: one wrap is harmless
}

void CAddressManager::InsertLocked(const std::string& name, const AddressPtr& address, int lifetimeSeconds)
{
    if (m_cache.count(name) != 0 || lifetimeSeconds == 0)
        return; // the first answer for a name stays; a lifetime of 0 keeps none
    SweepLocked();
    while (!m_cache.empty() && m_cache.size() >= m_cacheLimit)
        EraseLocked(m_cache.find(m_recency.back()));
    if (m_cacheLimit == 0)
        return;
    m_recency.push_front(name);
    SEntry entry;
    entry.info.m_time = QOX::clock();
    entry.info.m_lifetime = address ? CACHE_LIFETIME_RESOLVED : CACHE_LIFETIME_FAILED;
    // Ticks are microseconds in 32 bits: a longer lifetime than the default could wrap.
    if (lifetimeSeconds > 0 && static_cast<uint32_t>(lifetimeSeconds) < CACHE_LIFETIME_RESOLVED / 1000000u)
        entry.info.m_lifetime = static_cast<uint32_t>(lifetimeSeconds) * 1000000u;
    entry.info.m_address = address;
    entry.recency = m_recency.begin();
    m_cache.emplace(name, std::move(entry));
}

void CAddressManager::SweepLocked()
{
    auto position = m_recency.end();
    for (int looked = 0; looked < SWEEP_PER_INSERT && position != m_recency.begin(); ++looked) {
        --position;
        const auto entry = m_cache.find(*position);
        if (IsFresh(entry->second.info))
            continue;
        const auto next = std::next(position);
        EraseLocked(entry);
        position = next;
    }
}

void CAddressManager::EraseLocked(std::unordered_map<std::string, SEntry>::iterator entry)
{
    m_recency.erase(entry->second.recency);
    m_cache.erase(entry);
}

void CAddressManager::SetCacheLimit(size_t names)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_cacheLimit = names;
    while (m_cache.size() > m_cacheLimit)
        EraseLocked(m_cache.find(m_recency.back()));
}

size_t CAddressManager::GetCacheLimit()
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_cacheLimit;
}

size_t CAddressManager::GetCacheSize()
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_cache.size();
}

// ---- lookups ----

CAddressManager::AddressPtr CAddressManager::ResolveLocally(const std::string& /*key*/)
{
    return {};
}

bool CAddressManager::IsPlausibleHostName(const std::string& name)
{
    if (name.empty() || name.size() > 255)
        return false;
    return std::none_of(name.begin(), name.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte <= 0x20 || byte == 0x7f;
    });
}

bool CAddressManager::Lookup(const std::string& key, IWaiter* waiter, AddressPtr& address)
{
    IResolveAddress* resolver = nullptr;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        address.Reset();
        if (!m_initialized || !m_resolver || !waiter || !IsPlausibleHostName(CacheName(key)))
            return true;
        if (FindLocked(key, address))
            return true;
        const std::string name = CacheName(key);
        SPending& pending = m_pending[name];
        if (pending.waiters.empty() && pending.askedKey.empty()) {
            pending.askedKey = key;
            resolver = m_resolver;
        }
        pending.waiters.push_back({waiter, key});
        m_waiterNames[waiter] = name;
    }
    // Without our lock, so a resolver that answers on this thread can deliver its answer.
    if (resolver)
        resolver->ResolveAddressAsync(key);
    return false;
}

void CAddressManager::CancelLookup(IWaiter* waiter)
{
    IResolveAddress* resolver = nullptr;
    std::string cancelled;
    {
        std::unique_lock<std::mutex> hold(m_mutex);
        cancelled = WithdrawLocked(waiter);
        resolver = m_resolver;
        const std::thread::id self = std::this_thread::get_id();
        m_changed.wait(hold, [&] {
            return std::none_of(m_deliveries.begin(), m_deliveries.end(), [&](const SDelivery& delivery) {
                return delivery.waiter == waiter && delivery.thread != self;
            });
        });
    }
    if (resolver && !cancelled.empty())
        resolver->CancelRequest(cancelled);
}

std::string CAddressManager::WithdrawLocked(IWaiter* waiter)
{
    const auto named = m_waiterNames.find(waiter);
    if (named == m_waiterNames.end())
        return {};
    const auto pending = m_pending.find(named->second);
    m_waiterNames.erase(named);
    if (pending == m_pending.end())
        return {};
    auto& waiters = pending->second.waiters;
    waiters.erase(std::remove_if(waiters.begin(), waiters.end(),
                                 [&](const SWaiting& waiting) { return waiting.waiter == waiter; }),
                  waiters.end());
    if (!waiters.empty())
        return {};
    std::string asked = pending->second.askedKey;
    m_pending.erase(pending);
    return asked;
}

CAddressManager::AddressPtr CAddressManager::QueryAddress(const std::string& key)
{
    CSyncWaiter waiter;
    const uint32_t start = QOX::clock();
    AddressPtr address;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        if (!m_initialized)
            return {};
        m_syncWaiters.insert(&waiter);
    }
    if (Lookup(key, &waiter, address)) {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_syncWaiters.erase(&waiter);
        return address;
    }
    waiter.Wait(start, address);
    CancelLookup(&waiter);
    std::lock_guard<std::mutex> hold(m_mutex);
    m_syncWaiters.erase(&waiter);
    return address;
}

CAddressManager::AddressPtr CAddressManager::ResolveAddress(const std::string& key)
{
    AddressPtr address;
    if (FindAddressInCache(key, address))
        return address;
    address = ResolveLocally(key);
    if (address)
        return address;
    return QueryAddress(key);
}

void CAddressManager::OnResolveAddressCompleted(int status, const std::string& address, AddressPtr result)
{
    OnResolveAddressCompletedFor(status, address, std::move(result), DEFAULT_LIFETIME);
}

void CAddressManager::OnResolveAddressCompletedFor(int /*status*/, const std::string& address, AddressPtr result,
                                                   int lifetimeSeconds)
{
    std::vector<SWaiting> waiters;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        if (!m_initialized)
            return;
        ++m_resolverCalls;
        const std::string name = CacheName(address);
        InsertLocked(name, result, lifetimeSeconds);
        const auto pending = m_pending.find(name);
        if (pending != m_pending.end()) {
            waiters = std::move(pending->second.waiters);
            m_pending.erase(pending);
        }
        for (const SWaiting& waiting : waiters) {
            m_waiterNames.erase(waiting.waiter);
            m_deliveries.push_back({waiting.waiter, std::this_thread::get_id()});
        }
    }
    Deliver(waiters, result);
    std::lock_guard<std::mutex> hold(m_mutex);
    --m_resolverCalls;
    m_changed.notify_all();
}

// The waiters were entered in m_deliveries by the caller; each leaves it once told.
void CAddressManager::Deliver(const std::vector<SWaiting>& waiters, const AddressPtr& result)
{
    for (const SWaiting& waiting : waiters) {
        waiting.waiter->OnLookupDone(WithPort(result, waiting.key));
        std::lock_guard<std::mutex> hold(m_mutex);
        const std::thread::id self = std::this_thread::get_id();
        const auto found = std::find_if(m_deliveries.begin(), m_deliveries.end(), [&](const SDelivery& delivery) {
            return delivery.waiter == waiting.waiter && delivery.thread == self;
        });
        if (found != m_deliveries.end())
            m_deliveries.erase(found);
        m_changed.notify_all();
    }
}

// ---- the machine itself ----

void CAddressManager::SetProxyPort(unsigned int port)
{
    SetProxyPorts({port});
}

void CAddressManager::SetProxyPorts(const std::vector<unsigned int>& ports)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_proxyPorts.clear();
    std::copy_if(ports.begin(), ports.end(), std::back_inserter(m_proxyPorts), [](unsigned int port) { return port != 0; });
}

bool CAddressManager::IsProxyPort(unsigned int port)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return std::find(m_proxyPorts.begin(), m_proxyPorts.end(), port) != m_proxyPorts.end();
}

bool CAddressManager::IsProxyItself(const IZRTConnectionAddress& address)
{
    sockaddr_storage storage{};
    int length = sizeof(storage);
    if (!address.GetSockAddr(reinterpret_cast<sockaddr*>(&storage), &length))
        return false;
    const std::string bytes = AddressBytes(reinterpret_cast<const sockaddr*>(&storage));
    std::lock_guard<std::mutex> hold(m_mutex);
    if (bytes.empty() ||
        std::find(m_proxyPorts.begin(), m_proxyPorts.end(), address.GetPortNumber()) == m_proxyPorts.end())
        return false;
    if (IsLoopbackOrUnspecified(bytes))
        return true;
    RefreshOwnAddressesLocked();
    return m_ownAddresses.count(bytes) != 0;
}

void CAddressManager::RefreshOwnAddressesLocked()
{
    const long long now = NowMilliseconds();
    if (m_ownAddressesFixed || (m_ownAddressesTime != 0 && now - m_ownAddressesTime < OWN_ADDRESS_REFRESH_MS))
        return;
    m_ownAddressesTime = now;
    m_ownAddresses.clear();
    ForEachInterfaceAddress([this](const sockaddr* address) {
        const std::string bytes = AddressBytes(address);
        if (!bytes.empty())
            m_ownAddresses.insert(bytes);
    });
}

void CAddressManager::SetLocalAddressesForTesting(const std::set<std::string>& addresses)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_localNames.clear();
    m_localNumeric.clear();
    for (const std::string& text : addresses) {
        const std::string bytes = NumericBytes(text);
        if (bytes.empty())
            m_localNames.insert(LowerCase(text));
        else
            m_localNumeric.insert(bytes);
    }
}

void CAddressManager::SetOwnAddressesForTesting(const std::set<std::string>& addresses)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_ownAddresses.clear();
    m_ownAddressesFixed = true;
    for (const std::string& text : addresses) {
        QOX::CRefCountPtr<IZRTConnectionAddress> parsed = CTCPIPAddress::FromText(text.c_str(), 0);
        sockaddr_storage storage{};
        int length = sizeof(storage);
        if (parsed && parsed->GetSockAddr(reinterpret_cast<sockaddr*>(&storage), &length))
            m_ownAddresses.insert(AddressBytes(reinterpret_cast<const sockaddr*>(&storage)));
    }
}

} // namespace Proxy
} // namespace ZRT
