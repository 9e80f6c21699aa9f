#include "proxy/address/CAddressManager.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

#include "runtime/Clock.h"

namespace ZRT {
namespace Proxy {

CAddressManager* CAddressManager::GetInstance()
{
    static CAddressManager instance;
    return &instance;
}

CAddressManager::CAddressManager() = default;

CAddressManager::~CAddressManager() = default;

bool CAddressManager::Init(IResolveAddress* resolver)
{
    QOX::CLock hold(m_mutex);
    if (!m_initialized && resolver) {
        m_resolver = resolver;
        m_initialized = true;
        m_resolver->AddNotification(this);
        CollectLocalAddresses();
    }
    return m_resolver != nullptr;
}

void CAddressManager::CollectLocalAddresses()
{
    m_localAddresses.clear();
    char name[256];
    std::memset(name, 0, sizeof(name));
    if (gethostname(name, 255) != 0)
        return;
    // gethostbyname is not reentrant; m_mutex serialises our own calls and nothing else in the
    // engine uses it.
    const hostent* entry = gethostbyname(name);
    if (!entry)
        return;
    if (entry->h_name)
        m_localAddresses.insert(entry->h_name);
    for (char** alias = entry->h_aliases; alias && *alias; ++alias)
        m_localAddresses.insert(*alias);
    for (char** raw = entry->h_addr_list; raw && *raw; ++raw) {
        char text[100];
        if (inet_ntop(entry->h_addrtype, *raw, text, sizeof(text)))
            m_localAddresses.insert(text);
    }
}

void CAddressManager::Terminate()
{
    QOX::CLock hold(m_mutex);
    if (!m_initialized)
        return;
    m_resolver->RemoveNotification(this);
    m_cache.clear();
    m_resolver = nullptr;
    m_initialized = false;
    ++m_stopGeneration;
    m_changed.notify_all();
}

bool CAddressManager::IsLocalAddress(const std::string& address)
{
    const std::string host = address.substr(0, address.find(':'));
    QOX::CLock hold(m_mutex);
    return m_localAddresses.count(host) != 0;
}

void CAddressManager::StopRequest()
{
    QOX::CLock hold(m_mutex);
    ++m_stopGeneration;
    m_changed.notify_all();
}

bool CAddressManager::FindAddressInCache(const std::string& key, QOX::CRefCountPtr<IZRTConnectionAddress>& address)
{
    QOX::CLock hold(m_mutex);
    const auto entry = m_cache.find(key);
    if (entry == m_cache.end())
        return false;
    const uint32_t age = QOX::clock() - entry->second.m_time; // unsigned: one wrap is harmless
    const uint32_t lifetime = entry->second.m_address ? CACHE_LIFETIME_RESOLVED : CACHE_LIFETIME_FAILED;
    if (age > lifetime) {
        m_cache.erase(entry);
        return false;
    }
    address = entry->second.m_address;
    return true;
}

QOX::CRefCountPtr<IZRTConnectionAddress> CAddressManager::ResolveLocally(const std::string& /*key*/)
{
    return {};
}

QOX::CRefCountPtr<IZRTConnectionAddress> CAddressManager::QueryAddress(const std::string& key)
{
    IResolveAddress* resolver = nullptr;
    uint64_t generation = 0;
    {
        QOX::CLock hold(m_mutex);
        if (!m_initialized || !m_resolver)
            return {};
        resolver = m_resolver;
        generation = m_stopGeneration;
    }
    const auto deadline = std::chrono::steady_clock::now()
                          + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                              std::chrono::duration<double>(QUERY_TIMEOUT_SECONDS));

    // Without our lock, so a resolver that answers on this thread can store its answer.
    resolver->ResolveAddressAsync(key);

    QOX::CRefCountPtr<IZRTConnectionAddress> found;
    std::unique_lock<QOX::CRecursiveMutex> hold(m_mutex);
    for (;;) {
        if (FindAddressInCache(key, found))
            return found;
        if (std::chrono::steady_clock::now() >= deadline || generation != m_stopGeneration)
            return {};
        // Every answer and every stop notifies under m_mutex, so no wake-up is missed.
        m_changed.wait_until(hold, deadline);
    }
}

QOX::CRefCountPtr<IZRTConnectionAddress> CAddressManager::ResolveAddress(const std::string& key)
{
    QOX::CRefCountPtr<IZRTConnectionAddress> address;
    if (FindAddressInCache(key, address))
        return address;
    address = ResolveLocally(key);
    if (address)
        return address;
    return QueryAddress(key);
}

void CAddressManager::OnResolveAddressCompleted(int /*status*/, const std::string& address,
                                                QOX::CRefCountPtr<IZRTConnectionAddress> result)
{
    QOX::CLock hold(m_mutex);
    SAddressInfo info;
    info.m_time = QOX::clock();
    info.m_address = result;
    m_cache.emplace(address, info); // the first answer for a key stays
    m_changed.notify_all();
}

void CAddressManager::SetLocalAddressesForTesting(const std::set<std::string>& addresses)
{
    QOX::CLock hold(m_mutex);
    m_localAddresses = addresses;
}

size_t CAddressManager::GetCacheSizeForTesting()
{
    QOX::CLock hold(m_mutex);
    return m_cache.size();
}

} // namespace Proxy
} // namespace ZRT
