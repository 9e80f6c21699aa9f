#include "host/CDirectResolver.h"

#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>

#include "transport/CTCPIPAddress.h"

namespace ZRT {
namespace Host {

namespace {
bool ParsePort(const std::string& text, unsigned int& port)
{
    if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    const unsigned long value = std::strtoul(text.c_str(), nullptr, 10);
    if (value > 65535)
        return false;
    port = static_cast<unsigned int>(value);
    return true;
}

// Splits "host:port" or "[v6]:port"; the host comes back without brackets.
bool SplitDestination(const std::string& address, std::string& host, unsigned int& port)
{
    const size_t colon = address.rfind(':');
    if (colon == std::string::npos || !ParsePort(address.substr(colon + 1), port))
        return false;
    host = address.substr(0, colon);
    if (!host.empty() && host.front() == '[') {
        if (host.size() < 2 || host.back() != ']')
            return false;
        host = host.substr(1, host.size() - 2);
    }
    return !host.empty() && host.find_first_of("[]") == std::string::npos;
}
} // namespace

CDirectResolver::CDirectResolver(int workers)
{
    for (int i = 0; i < std::max(workers, 1); ++i)
        m_workers.emplace_back([this] { Work(); });
}

CDirectResolver::~CDirectResolver()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
        m_requests.clear();
    }
    m_wake.notify_all();
    for (std::thread& worker : m_workers)
        worker.join();
}

int CDirectResolver::ResolveAddressAsync(const std::string& address)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopping)
            return -1;
        m_requests.push_back(address);
    }
    m_wake.notify_one();
    return 0;
}

int CDirectResolver::CancelRequest(const std::string& /*address*/)
{
    return -1;
}

int CDirectResolver::AddNotification(IResolveAddressCompletedNotification* notification)
{
    if (!notification)
        return -1;
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& registration : m_registrations) {
        if (registration->notification == notification)
            return 0;
    }
    m_registrations.push_back(std::make_shared<SRegistration>(SRegistration{notification, false}));
    return 0;
}

int CDirectResolver::RemoveNotification(IResolveAddressCompletedNotification* notification)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto found = std::find_if(m_registrations.begin(), m_registrations.end(),
                              [&](const auto& registration) { return registration->notification == notification; });
    if (found == m_registrations.end())
        return -1;
    // A delivery holding this registration sees the mark; it is never waited for.
    (*found)->removed = true;
    m_registrations.erase(found);
    return 0;
}

QOX::CRefCountPtr<IZRTConnectionAddress> CDirectResolver::Resolve(const std::string& address)
{
    std::string host;
    unsigned int port = 0;
    if (!SplitDestination(address, host, port))
        return {};
    QOX::CRefCountPtr<IZRTConnectionAddress> numeric = CTCPIPAddress::FromText(host.c_str(), port);
    if (numeric)
        return numeric;

    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* results = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &results) != 0 || !results)
        return {};
    const addrinfo* chosen = nullptr;
    for (const addrinfo* entry = results; entry; entry = entry->ai_next) {
        if (entry->ai_family == AF_INET) {
            chosen = entry;
            break;
        }
        if (entry->ai_family == AF_INET6 && !chosen)
            chosen = entry;
    }
    QOX::CRefCountPtr<IZRTConnectionAddress> resolved;
    if (chosen) {
        sockaddr_storage storage{};
        std::copy_n(reinterpret_cast<const unsigned char*>(chosen->ai_addr), chosen->ai_addrlen,
                    reinterpret_cast<unsigned char*>(&storage));
        if (storage.ss_family == AF_INET)
            reinterpret_cast<sockaddr_in*>(&storage)->sin_port = htons(static_cast<uint16_t>(port));
        else
            reinterpret_cast<sockaddr_in6*>(&storage)->sin6_port = htons(static_cast<uint16_t>(port));
        auto* address = new CTCPIPAddress();
        resolved = address;
        if (!address->SetAddress(*reinterpret_cast<sockaddr*>(&storage), chosen->ai_addrlen))
            resolved.Reset();
    }
    freeaddrinfo(results);
    return resolved;
}

void CDirectResolver::Work()
{
    for (;;) {
        std::string address;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_wake.wait(lock, [this] { return m_stopping || !m_requests.empty(); });
            if (m_stopping)
                return;
            address = std::move(m_requests.front());
            m_requests.pop_front();
        }
        Deliver(address, Resolve(address));
    }
}

void CDirectResolver::Deliver(const std::string& address, const QOX::CRefCountPtr<IZRTConnectionAddress>& result)
{
    std::vector<std::shared_ptr<SRegistration>> registrations;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        registrations = m_registrations;
    }
    const int status = result ? STATUS_RESOLVED : STATUS_FAILED;
    for (const auto& registration : registrations) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (registration->removed)
                continue;
        }
        registration->notification->OnResolveAddressCompleted(status, address, result);
    }
}

} // namespace Host
} // namespace ZRT
