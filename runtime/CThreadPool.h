#pragma once

#include <pthread.h>

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <vector>

namespace QOX {

// The operating-system threads behind CThread. A thread whose work ended waits here for the
// next CThread to start instead of exiting, so a proxy that serves short connections does not
// pay for creating a thread, tearing it down and releasing its stack (an inter-processor TLB
// flush) every time. Idle threads sleep on a condition without waking and exit after
// IDLE_LIFETIME_MS unused, or at once beyond MAX_IDLE, so the process returns to its own size
// soon after a burst.
//
// DrainIdle ends and joins every idle thread, so that a host can unload the library once it
// stopped what it started (no pool thread then runs its code); a thread that leaves on its own
// (expired, or beyond MAX_IDLE) detaches itself.
//
// Process-wide, created on first use and never destroyed: threads still idle at exit die with
// the process.
class CThreadPool {
public:
    static constexpr int IDLE_LIFETIME_MS = 2000;
    static constexpr size_t MAX_IDLE = 256;
    using Entry = void* (*)(void*);

    static CThreadPool& Instance();

    using Finish = void (*)(void*);

    // Runs entry(argument) on an idle thread with this stack size, or on a new one, and stores
    // that thread's id in *thread before the entry can run; then finish(argument), once the
    // thread is back with the pool (idle, or leaving to be joined). So whoever learns from
    // `finish` that the work ended may drain the pool and finds that thread in it. False when no
    // thread could be had (neither function runs then).
    bool Start(size_t stackSize, Entry entry, Finish finish, void* argument, pthread_t* thread);
    // Ends every idle thread (and those about to go idle) and joins them. Threads still running
    // a CThread are left alone.
    void DrainIdle();

    // Idle threads now (for tests).
    size_t GetIdleCount();

private:
    struct SWorker {
        pthread_t thread{};
        size_t stackSize = 0;
        Entry entry = nullptr;
        Finish finish = nullptr;
        void* argument = nullptr;
        bool leave = false;
        std::condition_variable wake;
    };

    CThreadPool() = default;
    static void* Main(void* argument);
    // After a job: true with the next job stored in the worker, false when the thread is to end.
    bool AwaitWork(SWorker& worker);

    std::mutex m_mutex;
    std::condition_variable m_changed; // a worker went idle or ended
    std::vector<SWorker*> m_idle;
    std::vector<pthread_t> m_ended; // drained threads, for DrainIdle to join
};

} // namespace QOX
