#pragma once

#if defined(ZRT_WITH_CARES)

#include <ares.h>

#include <atomic>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "transport/CEventLoop.h"
#include "host/CSocketPreparer.h"
#include "host/INameService.h"

namespace ZRT {
namespace Host {

// Name lookups with c-ares on one CEventLoop: DNS (servers from /etc/resolv.conf, or those
// given) and the hosts file, any number at once, none waiting for another, each given up after
// its time limit. The channel, its sockets and its timers live on the loop's thread; a timer
// exists only while lookups are under way, so an idle service costs nothing.
//
// Threads: its owner makes and destroys it (the destructor waits for the loop); Start and
// Abandon come from any thread and hand the work to the loop; answers are called on the
// loop's thread.
class CAresNameService : public INameService {
public:
    // servers: "ADDR[:PORT],..." to use instead of the system's; empty for the system's.
    // Every socket the channel opens goes through the preparer first.
    CAresNameService(CEventLoop& loop, const std::string& servers, int lookupTimeoutMs,
                     const CSocketPreparer& preparer = CSocketPreparer());
    // Ends every lookup (no answer is called afterwards); waits for the loop to do so.
    ~CAresNameService() override;
    CAresNameService(const CAresNameService&) = delete;
    CAresNameService& operator=(const CAresNameService&) = delete;

    // False when the channel could not be set up: every lookup then fails at once.
    bool IsReady() const { return m_ready; }

    uint64_t Start(const std::string& host, Answer answer) override;
    void Abandon(uint64_t id) override;

private:
    class CSocketWatch;

    static int PrepareSocket(ares_socket_t socket, int type, void* self);
    struct SLookup {
        Answer answer;
        uint64_t timer = 0;
    };
    struct SQuery {
        CAresNameService* service;
        uint64_t id;
    };

    // All below run on the loop's thread.
    void Begin(uint64_t id, const std::string& host, Answer answer);
    void Finish(uint64_t id, const std::vector<sockaddr_storage>& addresses);
    void Watch(int socket, bool readable, bool writable);
    void Process(int socket, uint32_t events);
    void ScheduleTimeouts();
    void Shutdown();
    static void OnSocketState(void* data, ares_socket_t socket, int readable, int writable);
    static void OnAnswer(void* argument, int status, int timeouts, ares_addrinfo* result);

    CEventLoop& m_loop;
    const int m_lookupTimeoutMs;
    const CSocketPreparer m_preparer;
    ares_channel m_channel = nullptr;
    bool m_ready = false;
    // Loop's thread only.
    std::map<uint64_t, SLookup> m_lookups;
    std::map<int, std::pair<uint64_t, QOX::CRefCountPtr<IEventHandler>>> m_sockets;
    uint64_t m_timeoutTimer = 0;
    // Ids handed out by Start, from any thread.
    std::atomic<uint64_t> m_nextId{1};
    // Guards m_abandoned: Abandon marks a lookup at once on its caller's thread, so no answer
    // starts after it returns, though the loop forgets the lookup later.
    std::mutex m_abandonLock;
    std::set<uint64_t> m_abandoned;
};

} // namespace Host
} // namespace ZRT

#endif // ZRT_WITH_CARES
