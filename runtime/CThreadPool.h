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
// Process-wide, created on first use and never destroyed: threads still idle at exit die with
// the process.
class CThreadPool {
public:
    static constexpr int IDLE_LIFETIME_MS = 2000;
    static constexpr size_t MAX_IDLE = 256;
    using Entry = void* (*)(void*);

    static CThreadPool& Instance();

    // Runs entry(argument) on an idle thread with this stack size, or on a new one, and stores
    // that thread's id in *thread before the entry can run. False when no thread could be had.
    bool Start(size_t stackSize, Entry entry, void* argument, pthread_t* thread);

    // Idle threads now (for tests).
    size_t GetIdleCount();

private:
    struct SWorker {
        pthread_t thread{};
        size_t stackSize = 0;
        Entry entry = nullptr;
        void* argument = nullptr;
        std::condition_variable wake;
    };

    CThreadPool() = default;
    static void* Main(void* argument);
    // After a job: true with the next job stored in the worker, false when the thread is to end.
    bool AwaitWork(SWorker& worker);

    std::mutex m_mutex;
    std::vector<SWorker*> m_idle;
};

} // namespace QOX
