#include "host/CDirectResolver.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "transport/CSocketUtils.h"
#include "transport/CTCPIPAddress.h"
#include "transport/IResolveAddressLifetimeNotification.h"

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

QOX::CRefCountPtr<IZRTConnectionAddress> WithPort(const sockaddr_storage& found, unsigned int port)
{
    sockaddr_storage storage = found;
    socklen_t length = 0;
    if (storage.ss_family == AF_INET) {
        reinterpret_cast<sockaddr_in&>(storage).sin_port = htons(static_cast<uint16_t>(port));
        length = sizeof(sockaddr_in);
    } else if (storage.ss_family == AF_INET6) {
        reinterpret_cast<sockaddr_in6&>(storage).sin6_port = htons(static_cast<uint16_t>(port));
        length = sizeof(sockaddr_in6);
    } else {
        return {};
    }
    auto* address = new CTCPIPAddress();
    QOX::CRefCountPtr<IZRTConnectionAddress> held(address);
    if (!address->SetAddress(*reinterpret_cast<sockaddr*>(&storage), length))
        return {};
    return held;
}
} // namespace

CDirectResolver::CDirectResolver(INameService& names) : m_names(names) {}

CDirectResolver::~CDirectResolver()
{
    std::map<std::string, SPending> pending;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        pending.swap(m_pending);
    }
    for (const auto& entry : pending)
        m_names.Abandon(entry.second.id);
}

bool CDirectResolver::SplitDestination(const std::string& address, std::string& host, unsigned int& port)
{
    const size_t colon = address.rfind(':');
    if (colon == std::string::npos || !ParsePort(address.substr(colon + 1), port))
        return false;
    // A bracket left after stripping a pair ("[::1", "[]") makes no host.
    host = CSocketUtils::StripBrackets(address.substr(0, colon));
    return !host.empty() && host.find_first_of("[]") == std::string::npos;
}

QOX::CRefCountPtr<IZRTConnectionAddress> CDirectResolver::ParseNumeric(const std::string& host, unsigned int port)
{
    QOX::CRefCountPtr<IZRTConnectionAddress> numeric = CTCPIPAddress::FromText(host.c_str(), port);
    if (numeric)
        return numeric;
    // The shorter IPv4 forms the C library also reads: 127.1, 2130706433, 0x7f000001.
    in_addr v4{};
    if (host.find_first_not_of("0123456789abcdefxABCDEFX.") != std::string::npos || inet_aton(host.c_str(), &v4) == 0)
        return {};
    sockaddr_storage storage{};
    storage.ss_family = AF_INET;
    reinterpret_cast<sockaddr_in&>(storage).sin_addr = v4;
    return WithPort(storage, port);
}

int CDirectResolver::ResolveAddressAsync(const std::string& address)
{
    std::string host;
    unsigned int port = 0;
    if (!SplitDestination(address, host, port)) {
        Deliver(address, {}, 1);
        return 0;
    }
    QOX::CRefCountPtr<IZRTConnectionAddress> numeric = ParseNumeric(host, port);
    if (numeric) {
        // Answered on the caller's thread, which holds no lock of the engine.
        Deliver(address, numeric, 1);
        return 0;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto pending = m_pending.find(address);
        if (pending != m_pending.end()) {
            ++pending->second.requests;
            return 0;
        }
        // Entered first, so an answer that comes at once finds it.
        m_pending[address] = SPending{0, 1};
    }
    const uint64_t id =
        m_names.Start(host, [this, address, port](const std::vector<sockaddr_storage>& found, int lifetimeSeconds) {
            Answered(address, port, found, lifetimeSeconds);
    });
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto pending = m_pending.find(address);
    if (pending != m_pending.end())
        pending->second.id = id;
    return 0;
}

int CDirectResolver::CancelRequest(const std::string& address)
{
    uint64_t abandoned = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto pending = m_pending.find(address);
        if (pending == m_pending.end())
            return -1;
        if (--pending->second.requests > 0)
            return 0;
        abandoned = pending->second.id;
        m_pending.erase(pending);
    }
    m_names.Abandon(abandoned);
    return 0;
}

void CDirectResolver::Answered(const std::string& text, unsigned int port, const std::vector<sockaddr_storage>& addresses,
                               int lifetimeSeconds)
{
    int requests = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto pending = m_pending.find(text);
        if (pending == m_pending.end())
            return; // cancelled
        requests = pending->second.requests;
        m_pending.erase(pending);
    }
    // The first usable address answers; the others travel with it, for a connect that cannot
    // reach it.
    QOX::CRefCountPtr<IZRTConnectionAddress> result;
    std::vector<sockaddr_storage> others;
    for (const sockaddr_storage& address : addresses) {
        if (result)
            others.push_back(address);
        else
            result = WithPort(address, port);
    }
    if (result && !others.empty()) {
        auto* first = static_cast<CTCPIPAddress*>(result.Get()); // WithPort makes only these
        first->SetAlternatives(others);
        result = first->WithPort(port);
    }
    Deliver(text, result, requests, lifetimeSeconds);
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

void CDirectResolver::Deliver(const std::string& address, const QOX::CRefCountPtr<IZRTConnectionAddress>& result,
                              int times, int lifetimeSeconds)
{
    std::vector<std::shared_ptr<SRegistration>> registrations;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        registrations = m_registrations;
    }
    const int status = result ? STATUS_RESOLVED : STATUS_FAILED;
    for (int time = 0; time < times; ++time) {
        for (const auto& registration : registrations) {
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                if (registration->removed)
                    continue;
            }
            auto* timed = dynamic_cast<IResolveAddressLifetimeNotification*>(registration->notification);
            if (timed)
                timed->OnResolveAddressCompletedFor(status, address, result, lifetimeSeconds);
            else
                registration->notification->OnResolveAddressCompleted(status, address, result);
        }
    }
}

} // namespace Host
} // namespace ZRT
