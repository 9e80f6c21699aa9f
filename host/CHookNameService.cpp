#include "host/CHookNameService.h"

#include <utility>

namespace ZRT {
namespace Host {

CHookNameService::CHookNameService(CEventLoop& loop, Resolve resolve, int lookupTimeoutMs)
    : m_loop(loop), m_resolve(std::move(resolve)), m_lookupTimeoutMs(lookupTimeoutMs),
      m_shared(std::make_shared<SShared>())
{
    m_shared->service = this;
}

CHookNameService::~CHookNameService()
{
    {
        // After this no reply reaches us; one under way finishes first (it holds the lock).
        std::lock_guard<std::mutex> detach(m_shared->mutex);
        m_shared->service = nullptr;
    }
    std::lock_guard<std::mutex> hold(m_mutex);
    for (auto& lookup : m_lookups)
        m_loop.CancelDelayed(lookup.second.second);
    m_lookups.clear();
}

uint64_t CHookNameService::Start(const std::string& host, Answer answer)
{
    uint64_t id = 0;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        id = m_nextId++;
        const uint64_t timer = m_loop.PostDelayed(m_lookupTimeoutMs, [shared = m_shared, id] {
            std::lock_guard<std::mutex> detach(shared->mutex);
            if (shared->service)
                shared->service->Finish(id, {}, -1);
        });
        m_lookups[id] = {std::move(answer), timer};
    }
    // Without our lock: the hook may reply at once, on this thread.
    m_resolve(host, [shared = m_shared, id](const std::vector<sockaddr_storage>& addresses, int lifetimeSeconds) {
        std::lock_guard<std::mutex> detach(shared->mutex);
        if (shared->service)
            shared->service->Finish(id, addresses, lifetimeSeconds);
    });
    return id;
}

void CHookNameService::Abandon(uint64_t id)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    const auto lookup = m_lookups.find(id);
    if (lookup == m_lookups.end())
        return;
    m_loop.CancelDelayed(lookup->second.second);
    m_lookups.erase(lookup);
}

void CHookNameService::Finish(uint64_t id, const std::vector<sockaddr_storage>& addresses, int lifetimeSeconds)
{
    Answer answer;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        const auto lookup = m_lookups.find(id);
        if (lookup == m_lookups.end())
            return; // answered already, abandoned, or out of time
        answer = std::move(lookup->second.first);
        m_loop.CancelDelayed(lookup->second.second);
        m_lookups.erase(lookup);
    }
    answer(addresses, lifetimeSeconds);
}

} // namespace Host
} // namespace ZRT
