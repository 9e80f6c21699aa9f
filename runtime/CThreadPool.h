#pragma once

#include <pthread.h>

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <vector>

namespace QOX {

// What a host wants run on each thread of a pool, first and last.
struct SThreadHooks {
    void (*onStart)(void* context) = nullptr;
    void (*onStop)(void* context) = nullptr;
    void* context = nullptr;
};

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
// Every pool thread blocks SIGPIPE (the relay writes into sockets with splice, which raises it
// on a peer that went away; the host's process must not die of it) and runs the pool's hooks as
// its first and last thing, so that a host can attach it to a VM.
//
// Instance() is the process-wide pool, created on first use and never destroyed: threads still
// idle at exit die with the process. Each proxy and each direct host has a pool of its own, so
// that stopping one ends exactly its threads (EndAll) and no other's.
class CThreadPool {
public:
    static constexpr int IDLE_LIFETIME_MS = 2000;
    static constexpr size_t MAX_IDLE = 256;
    using Entry = void* (*)(void*);

    using SHooks = SThreadHooks;

    static CThreadPool& Instance();

    CThreadPool() = default;
    explicit CThreadPool(const SHooks& hooks) : m_hooks(hooks) {}
    ~CThreadPool();
    CThreadPool(const CThreadPool&) = delete;
    CThreadPool& operator=(const CThreadPool&) = delete;

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
    // Waits for every job to end, then ends every thread: afterwards no thread of the pool runs
    // a job or a hook. The owner must have stopped whatever the jobs run (or this waits for
    // ever), and must not call it from a thread of the pool. The destructor does this.
    void EndAll();

    // Idle threads now (for tests).
    size_t GetIdleCount();
    const SHooks& GetHooks() const { return m_hooks; }

private:
    struct SWorker {
        CThreadPool* pool = nullptr;
        pthread_t thread{};
        size_t stackSize = 0;
        Entry entry = nullptr;
        Finish finish = nullptr;
        void* argument = nullptr;
        bool leave = false;
        std::condition_variable wake;
    };

    static void* Main(void* argument);
    // After a job: true with the next job stored in the worker, false when the thread is to end.
    bool AwaitWork(SWorker& worker);

    const SHooks m_hooks{};
    // Guards the lists below.
    std::mutex m_mutex;
    std::condition_variable m_changed; // a worker went idle or ended
    std::vector<SWorker*> m_idle;
    std::vector<pthread_t> m_ended; // drained threads, for DrainIdle to join
    size_t m_busy = 0;              // threads running a job
    // Threads that left on their own (expired, or beyond MAX_IDLE) and are still on their way
    // out: a pool's destructor waits for them, since they run its hooks.
    size_t m_leaving = 0;
};

} // namespace QOX
