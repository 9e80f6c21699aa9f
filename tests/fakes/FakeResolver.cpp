#include "fakes/FakeResolver.h"

#include <chrono>
#include <cstdlib>

#include "transport/CTCPIPAddress.h"

namespace ZRT {
namespace Testing {

FakeResolver::FakeResolver() = default;

FakeResolver::~FakeResolver()
{
    JoinPending();
}

void FakeResolver::Script(const std::string& key, const std::string& numericHost)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_script[key] = numericHost;
}

QOX::CRefCountPtr<IZRTConnectionAddress> FakeResolver::Lookup(const std::string& key)
{
    const size_t colon = key.rfind(':');
    if (colon == std::string::npos)
        return {};
    std::string host = key.substr(0, colon);
    const unsigned int port = static_cast<unsigned int>(std::atoi(key.c_str() + colon + 1));
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        const auto scripted = m_script.find(key);
        if (scripted != m_script.end())
            return CTCPIPAddress::FromText(scripted->second.c_str(), port);
        if (!m_resolveNumeric)
            return {};
    }
    if (host == "localhost")
        host = "127.0.0.1";
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    return CTCPIPAddress::FromText(host.c_str(), port);
}

int FakeResolver::ResolveAddressAsync(const std::string& address)
{
    EMode mode;
    int delay;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        ++m_requests[address];
        mode = m_mode;
        delay = m_delayMs;
    }
    switch (mode) {
    case ANSWER_AT_ONCE:
        Answer(address, Lookup(address));
        break;
    case ANSWER_EMPTY:
        Answer(address, {});
        break;
    case ANSWER_LATER: {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_pending.emplace_back([this, address, delay] {
            std::this_thread::sleep_for(std::chrono::milliseconds(delay));
            Answer(address, Lookup(address));
        });
        break;
    }
    case NEVER_ANSWER:
        break;
    }
    return 0;
}

int FakeResolver::CancelRequest(const std::string& /*address*/)
{
    return 0;
}

int FakeResolver::AddNotification(IResolveAddressCompletedNotification* notification)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_notifications.insert(notification);
    return 0;
}

int FakeResolver::RemoveNotification(IResolveAddressCompletedNotification* notification)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_notifications.erase(notification);
    return 0;
}

void FakeResolver::Answer(const std::string& key, QOX::CRefCountPtr<IZRTConnectionAddress> result)
{
    std::set<IResolveAddressCompletedNotification*> targets;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        targets = m_notifications;
    }
    for (auto* target : targets)
        target->OnResolveAddressCompleted(0, key, result);
}

int FakeResolver::GetRequestCount(const std::string& key)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    const auto found = m_requests.find(key);
    return found == m_requests.end() ? 0 : found->second;
}

int FakeResolver::GetTotalRequests()
{
    std::lock_guard<std::mutex> hold(m_mutex);
    int total = 0;
    for (const auto& entry : m_requests)
        total += entry.second;
    return total;
}

int FakeResolver::GetNotificationCount()
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return static_cast<int>(m_notifications.size());
}

void FakeResolver::JoinPending()
{
    std::vector<std::thread> pending;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        pending.swap(m_pending);
    }
    for (auto& thread : pending)
        thread.join();
}

} // namespace Testing
} // namespace ZRT
