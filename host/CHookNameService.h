#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "transport/CEventLoop.h"
#include "host/INameService.h"

namespace ZRT {
namespace Host {

// Name lookups by the host's own resolver (a C hook of the embedding API): each name is handed
// to it with a reply function that may be called once, on any thread, at once or later. A
// lookup not replied to within its time limit counts as failed; replies to lookups that were
// abandoned or timed out, or that come after the service is gone, are ignored.
//
// Threads: Start and Abandon come from any thread; the hook is called on Start's caller's
// thread; an answer is called on the thread that replies, or on the loop's for a time-out.
class CHookNameService : public INameService {
public:
    using Reply = std::function<void(const std::vector<sockaddr_storage>& addresses, int lifetimeSeconds)>;
    using Resolve = std::function<void(const std::string& name, Reply reply)>;

    CHookNameService(CEventLoop& loop, Resolve resolve, int lookupTimeoutMs);
    // Later replies are ignored; waits for a reply being delivered on another thread.
    ~CHookNameService() override;
    CHookNameService(const CHookNameService&) = delete;
    CHookNameService& operator=(const CHookNameService&) = delete;

    uint64_t Start(const std::string& host, Answer answer) override;
    void Abandon(uint64_t id) override;

private:
    // What a reply function holds: it outlives the service, which detaches it when it goes.
    struct SShared {
        std::mutex mutex; // guards service
        CHookNameService* service;
    };

    void Finish(uint64_t id, const std::vector<sockaddr_storage>& addresses, int lifetimeSeconds);

    CEventLoop& m_loop;
    Resolve m_resolve;
    const int m_lookupTimeoutMs;
    std::shared_ptr<SShared> m_shared;
    // Guards the lookups under way.
    std::mutex m_mutex;
    std::map<uint64_t, std::pair<Answer, uint64_t>> m_lookups; // id -> answer, timer
    uint64_t m_nextId = 1;
};

} // namespace Host
} // namespace ZRT
