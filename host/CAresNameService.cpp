#if defined(ZRT_WITH_CARES)

#include "host/CAresNameService.h"

#include <netinet/in.h>
#include <sys/epoll.h>

#include <chrono>
#include <cstring>
#include <future>

#include "runtime/CRefCount_Base.h"

namespace ZRT {
namespace Host {

namespace {
// c-ares's own limits per server: what it waits for one answer, and how often it asks.
constexpr int ATTEMPT_TIMEOUT_MS = 2000;
constexpr int ATTEMPTS = 2;
} // namespace

// One c-ares socket as the loop watches it.
class CAresNameService::CSocketWatch : public QOX::CRefCount_Base, public IEventHandler {
public:
    CSocketWatch(CAresNameService& owner, int socket) : m_owner(owner), m_socket(socket) {}
    long AddRef() override { return QOX::CRefCount_Base::AddRef(); }
    long ReleaseRef() override { return QOX::CRefCount_Base::ReleaseRef(); }
    void* GetReferencedObject() const override { return QOX::CRefCount_Base::GetReferencedObject(); }
    void OnEvents(uint32_t events) override { m_owner.Process(m_socket, events); }

private:
    CAresNameService& m_owner;
    int m_socket;
};

CAresNameService::CAresNameService(CEventLoop& loop, const std::string& servers, int lookupTimeoutMs,
                                   const CSocketPreparer& preparer)
    : m_loop(loop), m_lookupTimeoutMs(lookupTimeoutMs), m_preparer(preparer)
{
    ares_library_init(ARES_LIB_INIT_ALL);
    ares_options options;
    std::memset(&options, 0, sizeof(options));
    options.timeout = ATTEMPT_TIMEOUT_MS;
    options.tries = ATTEMPTS;
    options.sock_state_cb = &CAresNameService::OnSocketState;
    options.sock_state_cb_data = this;
    char lookups[] = "fb"; // the hosts file, then DNS
    options.lookups = lookups;
    const int mask = ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES | ARES_OPT_SOCK_STATE_CB | ARES_OPT_LOOKUPS;
    // Set up here, used on the loop's thread only from now on (Post orders the two).
    if (ares_init_options(&m_channel, &options, mask) != ARES_SUCCESS) {
        m_channel = nullptr;
        return;
    }
    m_ready = servers.empty() || ares_set_servers_ports_csv(m_channel, servers.c_str()) == ARES_SUCCESS;
    ares_set_socket_callback(m_channel, &CAresNameService::PrepareSocket, this);
    // Questions leave from the outgoing addresses and interface too.
    sockaddr_storage local{};
    socklen_t length = 0;
    if (m_preparer.GetOutgoingAddress(AF_INET, local, length))
        ares_set_local_ip4(m_channel, ntohl(reinterpret_cast<const sockaddr_in&>(local).sin_addr.s_addr));
    if (m_preparer.GetOutgoingAddress(AF_INET6, local, length))
        ares_set_local_ip6(m_channel, reinterpret_cast<const sockaddr_in6&>(local).sin6_addr.s6_addr);
    if (!m_preparer.GetInterface().empty())
        ares_set_local_dev(m_channel, m_preparer.GetInterface().c_str());
}

int CAresNameService::PrepareSocket(ares_socket_t socket, int /*type*/, void* self)
{
    // Non-zero makes c-ares close the socket and try the next server, or fail the query.
    return static_cast<CAresNameService*>(self)->m_preparer.Prepare(socket, CSocketPreparer::EPurpose::Lookup) ? ARES_SUCCESS : -1;
}

CAresNameService::~CAresNameService()
{
    if (m_loop.IsLoopThread() || !m_loop.IsRunning()) {
        Shutdown();
    } else {
        std::promise<void> done;
        m_loop.Post([&] {
            Shutdown();
            done.set_value();
        });
        done.get_future().wait();
    }
    ares_library_cleanup();
}

void CAresNameService::Shutdown()
{
    for (auto& entry : m_lookups) {
        if (entry.second.timer != 0)
            m_loop.CancelDelayed(entry.second.timer);
    }
    m_lookups.clear();
    if (m_timeoutTimer != 0)
        m_loop.CancelDelayed(m_timeoutTimer);
    m_timeoutTimer = 0;
    if (m_channel)
        ares_destroy(m_channel); // answers with ARES_EDESTRUCTION: no lookup is left to hear them
    m_channel = nullptr;
    for (auto& entry : m_sockets)
        m_loop.Remove(entry.second.first, entry.first);
    m_sockets.clear();
}

uint64_t CAresNameService::Start(const std::string& host, Answer answer)
{
    const uint64_t id = m_nextId++;
    m_loop.Post([this, id, host, answer = std::move(answer)]() mutable { Begin(id, host, std::move(answer)); });
    return id;
}

void CAresNameService::Abandon(uint64_t id)
{
    {
        const std::lock_guard<std::mutex> lock(m_abandonLock);
        m_abandoned.insert(id);
    }
    m_loop.Post([this, id] {
        {
            const std::lock_guard<std::mutex> lock(m_abandonLock);
            m_abandoned.erase(id);
        }
        const auto lookup = m_lookups.find(id);
        if (lookup == m_lookups.end())
            return;
        if (lookup->second.timer != 0)
            m_loop.CancelDelayed(lookup->second.timer);
        // The query itself runs out within c-ares's own limits; nobody hears its answer.
        m_lookups.erase(lookup);
    });
}

void CAresNameService::Begin(uint64_t id, const std::string& host, Answer answer)
{
    if (!m_ready || !m_channel) {
        answer({}, -1);
        return;
    }
    SLookup& lookup = m_lookups[id];
    lookup.answer = std::move(answer);
    lookup.timer = m_loop.PostDelayed(m_lookupTimeoutMs, [this, id] {
        const auto expired = m_lookups.find(id);
        if (expired != m_lookups.end())
            expired->second.timer = 0;
        Finish(id, {});
    });
    ares_addrinfo_hints hints;
    std::memset(&hints, 0, sizeof(hints));
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    // No sorting: it would open a socket per answer to rank them.
    hints.ai_flags = ARES_AI_NOSORT;
    ares_getaddrinfo(m_channel, host.c_str(), nullptr, &hints, &CAresNameService::OnAnswer, new SQuery{this, id});
    ScheduleTimeouts();
}

void CAresNameService::OnAnswer(void* argument, int status, int /*timeouts*/, ares_addrinfo* result)
{
    std::unique_ptr<SQuery> query(static_cast<SQuery*>(argument));
    std::vector<sockaddr_storage> addresses;
    for (int pass = 0; pass < 2 && status == ARES_SUCCESS && result; ++pass) {
        const int family = pass == 0 ? AF_INET : AF_INET6;
        for (const ares_addrinfo_node* node = result->nodes; node; node = node->ai_next) {
            if (node->ai_family != family || !node->ai_addr || node->ai_addrlen > sizeof(sockaddr_storage))
                continue;
            sockaddr_storage address{};
            std::memcpy(&address, node->ai_addr, node->ai_addrlen);
            addresses.push_back(address);
        }
    }
    if (result)
        ares_freeaddrinfo(result);
    if (status != ARES_EDESTRUCTION)
        query->service->Finish(query->id, addresses);
}

void CAresNameService::Finish(uint64_t id, const std::vector<sockaddr_storage>& addresses)
{
    const auto lookup = m_lookups.find(id);
    if (lookup == m_lookups.end())
        return; // answered already, abandoned, or out of time
    if (lookup->second.timer != 0)
        m_loop.CancelDelayed(lookup->second.timer);
    Answer answer = std::move(lookup->second.answer);
    m_lookups.erase(lookup);
    {
        const std::lock_guard<std::mutex> lock(m_abandonLock);
        if (m_abandoned.count(id) != 0)
            return;
    }
    answer(addresses, -1);
}

void CAresNameService::OnSocketState(void* data, ares_socket_t socket, int readable, int writable)
{
    static_cast<CAresNameService*>(data)->Watch(socket, readable != 0, writable != 0);
}

void CAresNameService::Watch(int socket, bool readable, bool writable)
{
    const uint32_t wanted = (readable ? EPOLLIN : 0u) | (writable ? EPOLLOUT : 0u);
    const auto watched = m_sockets.find(socket);
    if (wanted == 0) {
        if (watched != m_sockets.end()) {
            m_loop.Remove(watched->second.first, socket);
            m_sockets.erase(watched);
        }
        return;
    }
    if (watched != m_sockets.end()) {
        m_loop.Modify(watched->second.first, socket, wanted);
        return;
    }
    QOX::CRefCountPtr<IEventHandler> handler(new CSocketWatch(*this, socket));
    const uint64_t token = m_loop.Add(socket, wanted, handler);
    if (token != 0)
        m_sockets[socket] = {token, handler};
}

void CAresNameService::Process(int socket, uint32_t events)
{
    if (!m_channel)
        return;
    const bool readable = (events & (EPOLLIN | EPOLLERR | EPOLLHUP)) != 0;
    const bool writable = (events & EPOLLOUT) != 0;
    ares_process_fd(m_channel, readable ? socket : ARES_SOCKET_BAD, writable ? socket : ARES_SOCKET_BAD);
    ScheduleTimeouts();
}

// One timer for c-ares's retries, armed only while queries are under way.
void CAresNameService::ScheduleTimeouts()
{
    if (m_timeoutTimer != 0)
        m_loop.CancelDelayed(m_timeoutTimer);
    m_timeoutTimer = 0;
    if (!m_channel)
        return;
    timeval left{};
    if (!ares_timeout(m_channel, nullptr, &left))
        return;
    const long long ms = static_cast<long long>(left.tv_sec) * 1000 + left.tv_usec / 1000 + 1;
    m_timeoutTimer = m_loop.PostDelayed(static_cast<int>(ms), [this] {
        m_timeoutTimer = 0;
        if (!m_channel)
            return;
        ares_process_fd(m_channel, ARES_SOCKET_BAD, ARES_SOCKET_BAD);
        ScheduleTimeouts();
    });
}

} // namespace Host
} // namespace ZRT

#endif // ZRT_WITH_CARES
