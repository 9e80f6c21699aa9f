#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

#include "runtime/CRefCountPtr.h"
#include "transport/CEventLoop.h"

namespace ZRT {
namespace Proxy {

// What a connection has its event loop watch: up to three descriptors (the client socket, the
// host link's reader descriptor, the handler's own descriptor) with the readiness they reported
// and not yet acted on, the connection's one wake-up time, and its share of the loop's turn budget.
// Every operation runs on the loop's thread (the connection's thread).
class CConnectionWatches {
public:
    enum ERole { CLIENT = 0, LINK = 1, HANDLER = 2, ROLE_COUNT = 3 };
    using Clock = std::chrono::steady_clock;
    // Readiness of one descriptor, on the loop's thread.
    using Ready = std::function<void(ERole role, uint32_t events)>;

    CConnectionWatches() = default;
    ~CConnectionWatches();
    CConnectionWatches(const CConnectionWatches&) = delete;
    CConnectionWatches& operator=(const CConnectionWatches&) = delete;

    void Start(CEventLoop& loop, const Ready& ready);
    CEventLoop* GetLoop() const { return m_loop; }

    // Watches descriptor for events (0 with a descriptor of -1 takes the role out of the loop;
    // the client stays watched with no events, so that its reset is still reported). False when
    // the loop would not take it.
    bool Watch(ERole role, int descriptor, uint32_t events);
    void Unwatch(ERole role) { Watch(role, -1, 0); }
    // The client socket is closed right after: its close takes it out of epoll.
    void ForgetClient();
    uint32_t GetEvents(ERole role) const { return m_watches[role].events; }
    void AddReady(ERole role, uint32_t events) { m_watches[role].ready |= events; }
    uint32_t TakeReady(ERole role);

    // A stream in full flow takes its turns with the loop's bulk budget (CEventLoop). Only such
    // a stream spends it: the rest is served before the bulk streams of a turn, and would
    // otherwise spend what they are owed.
    void SetBulk(bool bulk);
    bool IsBulk() const { return m_bulk; }
    bool HasTurnBudget() const { return !m_bulk || m_loop->GetTurnBudget() > 0; }
    void SpendTurnBudget(int bytes);

    // Runs task once, in milliseconds (-1: never); a wake-up already set for no later stays.
    void WakeUpIn(int milliseconds, const std::function<void()>& task);
    // The wake-up ran.
    void OnWokenUp() { m_timer = 0; }
    void Close();

private:
    // One descriptor as its loop sees it; forwards readiness to the connection.
    class CWatch;
    struct SWatch {
        QOX::CRefCountPtr<IEventHandler> handler;
        int descriptor = -1;
        uint64_t token = 0;
        uint32_t events = 0;
        uint32_t ready = 0; // reported, not acted on yet
    };

    void Remove(SWatch& watch);

    CEventLoop* m_loop = nullptr;
    SWatch m_watches[ROLE_COUNT];
    bool m_bulk = false;
    uint64_t m_timer = 0;
    Clock::time_point m_timerDue{};
};

} // namespace Proxy
} // namespace ZRT
