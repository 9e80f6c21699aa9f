#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "host/INameService.h"
#include "runtime/CThreadPool.h"

namespace ZRT {
namespace Host {

// Name lookups with the C library's getaddrinfo, for builds without c-ares: up to MAX_THREADS
// lookups run at once, each on a thread of its own; more wait their turn, and a lookup that is
// abandoned before its turn never runs. A name whose servers do not answer holds its thread for
// the C library's own time-outs, so this cannot promise what CAresNameService does; nor can the
// host's socket hook see the C library's sockets. Each thread runs the hooks first and last.
// Start and Abandon come from any thread; answers are called on the lookup's own thread.
class CThreadNameService : public INameService {
public:
    static constexpr size_t MAX_THREADS = 16;

    explicit CThreadNameService(const QOX::SThreadHooks& hooks = QOX::SThreadHooks()) : m_hooks(hooks) {}
    // Waits for the lookups under way; those waiting are dropped.
    ~CThreadNameService() override;
    CThreadNameService(const CThreadNameService&) = delete;
    CThreadNameService& operator=(const CThreadNameService&) = delete;

    uint64_t Start(const std::string& host, Answer answer) override;
    void Abandon(uint64_t id) override;

private:
    struct SLookup {
        uint64_t id;
        std::string host;
        Answer answer;
    };

    void Main();
    void Work();

    const QOX::SThreadHooks m_hooks;

    // Guards everything below.
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<SLookup> m_waiting;
    std::map<uint64_t, bool> m_running; // id -> abandoned
    std::vector<std::thread> m_threads;
    size_t m_idle = 0;
    uint64_t m_nextId = 1;
    bool m_stopping = false;
};

} // namespace Host
} // namespace ZRT
