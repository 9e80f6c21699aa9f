#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>

#include "transport/CSocketHandle.h"
#include "transport/IEventHandler.h"
#include "runtime/CEvent.h"
#include "runtime/CRefCountPtr.h"
#include "runtime/CThread.h"

namespace ZRT {

// One event thread: an epoll loop over sockets (the proxy's clients, the direct host's links),
// plus a queue of tasks and delayed tasks run on the same thread. It sleeps in epoll_wait until a socket, a task or the
// next delayed task is due; nothing wakes it while idle.
//
// Registrations are named by tokens, never reused, so an event still in flight for a socket that
// was removed (and whose number may already belong to a new socket) finds nothing.
//
// Fair turns: each turn (one epoll_wait, then the tasks, then the events) has a budget of
// TURN_BUDGET bytes for bulk traffic. Handlers report the bytes they move (SpendTurnBudget). A
// registration marked bulk (SetBulk: a stream in full flow) joins a queue served after the rest
// of the turn's events, oldest first, while the budget lasts; what is left waits at the head of
// the queue for the next turn. Everything else (new clients, negotiations, small exchanges) is
// served first in every turn, so each of its steps waits behind at most one budget's worth of
// bulk work, however many streams are in full flow. The budget is small for that reason: a
// transaction takes several steps, and each may wait that long.
class CEventLoop : private QOX::CThread {
public:
    using Task = std::function<void()>;
    static constexpr size_t TURN_BUDGET = 256 * 1024;

    CEventLoop();
    ~CEventLoop() override;
    CEventLoop(const CEventLoop&) = delete;
    CEventLoop& operator=(const CEventLoop&) = delete;

    // The pool the thread comes from (the process-wide one unless set); set before Start.
    using QOX::CThread::SetThreadPool;
    bool Start();
    // Stops the thread and drops every registration and pending task (releasing their references).
    // From inside one of the loop's own callbacks it cannot wait for itself: the tasks of the
    // turn under way still run (a task posted by that callback too) before the thread ends.
    void Stop();

    // Watches socket for events (EPOLLIN/EPOLLOUT); the loop holds a reference on the handler
    // until Remove. Returns the token, or 0 on failure. Any thread.
    uint64_t Add(int socket, uint32_t events, QOX::CRefCountPtr<IEventHandler> handler);
    bool Modify(uint64_t token, int socket, uint32_t events);
    // After it returns no new OnEvents starts for this token; one running on the loop's thread
    // may still finish.
    void Remove(uint64_t token, int socket);
    // As Remove, for a socket the caller closes right after (and holds the only descriptor of):
    // the close takes it out of epoll, so no call is made for that.
    void Forget(uint64_t token);

    void Post(Task task);
    // Returns an id for CancelDelayed (never 0).
    uint64_t PostDelayed(int milliseconds, Task task);
    // On the loop's thread: the task will not run. From another thread, one already due may still
    // be running or about to. Its closure is released later on the loop's thread, outside every
    // lock, since dropping it may destroy what it holds; safe to call under a caller's own lock.
    void CancelDelayed(uint64_t id);

    // Marks a registration as bulk traffic (or no longer). Loop thread.
    void SetBulk(uint64_t token, bool bulk);
    // Bytes of bulk traffic the current turn may still move (0: none), and what was moved. Loop
    // thread.
    size_t GetTurnBudget() const { return m_budget; }
    void SpendTurnBudget(size_t bytes) { m_budget = bytes >= m_budget ? 0 : m_budget - bytes; }

    bool IsLoopThread() const { return QOX::CThread::IsCurrentThread(*this); }
    bool IsRunning() const { return GetThreadStatus() == STATUS_RUNNING; }

private:
    struct SWatch {
        QOX::CRefCountPtr<IEventHandler> handler;
        bool bulk = false;
        bool deferred = false;       // in m_deferred
        uint32_t deferredEvents = 0; // what came while it waited there
    };

    // Under m_mutex: takes the handler of token out of the table (empty when there is none).
    QOX::CRefCountPtr<IEventHandler> TakeHandlerLocked(uint64_t token);
    using Clock = std::chrono::steady_clock;
    static constexpr uint64_t STOP_TOKEN = 1;
    static constexpr uint64_t WAKE_TOKEN = 2;
    static constexpr uint64_t FIRST_TOKEN = 16;

    int Run() override;
    void Dispatch(uint64_t token, uint32_t events);
    // Serves the bulk registrations that earlier turns put off, oldest first, while the budget lasts.
    void DispatchDeferred();
    void RunTasks();
    int NextTimeout();

    CSocketHandle m_epoll;
    QOX::CEvent m_wake;
    // Guards the handler table, the task queue, the delayed tasks and the counters below. A
    // leaf, except that loop callers may hold their own lock (ARCHITECTURE.md); never held while
    // a handler or task runs.
    std::mutex m_mutex;
    std::map<uint64_t, SWatch> m_handlers;
    std::deque<Task> m_tasks;
    using DelayedQueue = std::multimap<Clock::time_point, std::pair<uint64_t, Task>>;
    DelayedQueue m_delayed;
    std::map<uint64_t, DelayedQueue::iterator> m_delayedById;
    uint64_t m_nextToken = FIRST_TOKEN;
    uint64_t m_nextDelayedId = 1;
    // Loop thread only: the bulk registrations put off, and the budget of the current turn.
    std::deque<uint64_t> m_deferred;
    size_t m_budget = TURN_BUDGET;
};

} // namespace ZRT
