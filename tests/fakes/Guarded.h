#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace ZRT {
namespace Testing {

// State that the engine's threads change while the test reads it: every access holds one
// mutex, and each change wakes whoever waits for a condition on it.
class Guarded {
public:
    // f's result, computed under the lock; return copies, never references into the state.
    template <class F>
    auto Locked(F&& f) const
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        return f();
    }

    // Runs f under the lock and wakes the waiters before letting go of it: a waiter may destroy
    // the object as soon as its wait returns, which it cannot do before the lock is free.
    template <class F>
    void Change(F&& f)
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        f();
        m_changed.notify_all();
    }

    // Until pred, checked under the lock, holds; false if the time ran out first.
    template <class P>
    bool WaitFor(P&& pred, int timeoutMs = 10000) const
    {
        std::unique_lock<std::mutex> hold(m_mutex);
        return m_changed.wait_for(hold, std::chrono::milliseconds(timeoutMs), pred);
    }

protected:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
};

} // namespace Testing
} // namespace ZRT
