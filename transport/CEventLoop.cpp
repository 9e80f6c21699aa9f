#include "transport/CEventLoop.h"

#include <memory>
#include <utility>

#include <sys/epoll.h>

#include <cerrno>

namespace ZRT {

namespace {
constexpr int MAX_EVENTS = 64;

bool AddToEpoll(int epoll, int socket, uint32_t events, uint64_t token)
{
    epoll_event event{};
    event.events = events;
    event.data.u64 = token;
    return epoll_ctl(epoll, EPOLL_CTL_ADD, socket, &event) == 0;
}
} // namespace

CEventLoop::CEventLoop() : m_epoll(epoll_create1(EPOLL_CLOEXEC)), m_wake(true)
{
    if (m_epoll.IsValid()) {
        AddToEpoll(m_epoll.Get(), m_stopEvent.GetWaitHandle(), EPOLLIN, STOP_TOKEN);
        AddToEpoll(m_epoll.Get(), m_wake.GetWaitHandle(), EPOLLIN, WAKE_TOKEN);
    }
}

CEventLoop::~CEventLoop()
{
    Stop();
}

bool CEventLoop::Start()
{
    return m_epoll.IsValid() && StartThread(false);
}

void CEventLoop::Stop()
{
    if (GetThreadStatus() == STATUS_RUNNING || GetThreadStatus() == STATUS_STOPPING)
        StopThread(-1);
    // Released outside the lock: a handler's destructor may come back to Remove.
    std::map<uint64_t, SWatch> handlers;
    std::deque<Task> tasks;
    DelayedQueue delayed;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        handlers.swap(m_handlers);
        tasks.swap(m_tasks);
        delayed.swap(m_delayed);
        m_delayedById.clear();
    }
}

uint64_t CEventLoop::Add(int socket, uint32_t events, QOX::CRefCountPtr<IEventHandler> handler)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const uint64_t token = m_nextToken++;
    if (!AddToEpoll(m_epoll.Get(), socket, events, token))
        return 0;
    m_handlers[token].handler = std::move(handler);
    return token;
}

bool CEventLoop::Modify(uint64_t token, int socket, uint32_t events)
{
    epoll_event event{};
    event.events = events;
    event.data.u64 = token;
    return epoll_ctl(m_epoll.Get(), EPOLL_CTL_MOD, socket, &event) == 0;
}

void CEventLoop::Remove(uint64_t token, int socket)
{
    QOX::CRefCountPtr<IEventHandler> handler; // released after the lock: its end may call back
    std::lock_guard<std::mutex> lock(m_mutex);
    epoll_ctl(m_epoll.Get(), EPOLL_CTL_DEL, socket, nullptr);
    handler = TakeHandlerLocked(token);
}

void CEventLoop::Forget(uint64_t token)
{
    QOX::CRefCountPtr<IEventHandler> handler; // released after the lock: its end may call back
    std::lock_guard<std::mutex> lock(m_mutex);
    handler = TakeHandlerLocked(token);
}

QOX::CRefCountPtr<IEventHandler> CEventLoop::TakeHandlerLocked(uint64_t token)
{
    auto found = m_handlers.find(token);
    if (found == m_handlers.end())
        return {};
    QOX::CRefCountPtr<IEventHandler> handler = std::move(found->second.handler);
    m_handlers.erase(found);
    return handler;
}

void CEventLoop::SetBulk(uint64_t token, bool bulk)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto found = m_handlers.find(token);
    if (found != m_handlers.end())
        found->second.bulk = bulk;
}

void CEventLoop::Post(Task task)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_tasks.push_back(std::move(task));
    }
    // The loop's own thread runs the tasks before it sleeps again: no wake-up needed.
    if (!IsLoopThread())
        m_wake.SignalEvent();
}

uint64_t CEventLoop::PostDelayed(int milliseconds, Task task)
{
    uint64_t id = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        id = m_nextDelayedId++;
        auto entry = m_delayed.emplace(Clock::now() + std::chrono::milliseconds(milliseconds),
                                       std::make_pair(id, std::move(task)));
        m_delayedById.emplace(id, entry);
    }
    // The loop's own thread works out its next time-out before it sleeps again.
    if (!IsLoopThread())
        m_wake.SignalEvent();
    return id;
}

void CEventLoop::CancelDelayed(uint64_t id)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto found = m_delayedById.find(id);
        if (found == m_delayedById.end())
            return;
        auto closure = std::make_shared<Task>(std::move(found->second->second.second));
        m_delayed.erase(found->second);
        m_delayedById.erase(found);
        m_tasks.push_back([closure] {});
    }
    if (!IsLoopThread())
        m_wake.SignalEvent();
}

int CEventLoop::Run()
{
    epoll_event events[MAX_EVENTS];
    for (;;) {
        const int count = epoll_wait(m_epoll.Get(), events, MAX_EVENTS, NextTimeout());
        if (count < 0 && errno != EINTR)
            return 0;
        m_budget = TURN_BUDGET;
        RunTasks();
        // The rest before bulk: a small exchange waits for no bulk work of its own turn.
        for (int i = 0; i < count; ++i) {
            const uint64_t token = events[i].data.u64;
            if (token == STOP_TOKEN)
                return 1;
            if (token == WAKE_TOKEN)
                m_wake.ResetEvent();
            else
                Dispatch(token, events[i].events);
        }
        DispatchDeferred();
    }
}

void CEventLoop::Dispatch(uint64_t token, uint32_t events)
{
    QOX::CRefCountPtr<IEventHandler> handler;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto found = m_handlers.find(token);
        if (found == m_handlers.end())
            return;
        SWatch& watch = found->second;
        if (watch.deferred || watch.bulk) {
            // Served after the rest, in order of arrival behind those put off earlier; until
            // then it only collects events.
            watch.deferredEvents |= events;
            if (!watch.deferred)
                m_deferred.push_back(token);
            watch.deferred = true;
            return;
        }
        handler = watch.handler;
    }
    handler->OnEvents(events);
}

void CEventLoop::DispatchDeferred()
{
    for (size_t waiting = m_deferred.size(); waiting > 0 && m_budget > 0; --waiting) {
        const uint64_t token = m_deferred.front();
        m_deferred.pop_front();
        QOX::CRefCountPtr<IEventHandler> handler;
        uint32_t events = 0;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            auto found = m_handlers.find(token);
            if (found == m_handlers.end())
                continue;
            found->second.deferred = false;
            events = std::exchange(found->second.deferredEvents, 0u);
            handler = found->second.handler;
        }
        handler->OnEvents(events);
    }
}

void CEventLoop::RunTasks()
{
    std::deque<Task> ready;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ready.swap(m_tasks);
        const Clock::time_point now = Clock::now();
        while (!m_delayed.empty() && m_delayed.begin()->first <= now) {
            m_delayedById.erase(m_delayed.begin()->second.first);
            ready.push_back(std::move(m_delayed.begin()->second.second));
            m_delayed.erase(m_delayed.begin());
        }
    }
    for (Task& task : ready)
        task();
}

int CEventLoop::NextTimeout()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_tasks.empty() || !m_deferred.empty())
        return 0;
    if (m_delayed.empty())
        return -1;
    const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(m_delayed.begin()->first - Clock::now());
    // Rounded up, so a delayed task is never woken for a moment too early and spun on.
    return wait.count() < 0 ? 0 : static_cast<int>(wait.count()) + 1;
}

} // namespace ZRT
