#include "host/CThreadNameService.h"

#include <netdb.h>
#include <signal.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

namespace ZRT {
namespace Host {

namespace {
std::vector<sockaddr_storage> LookUp(const std::string& host)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* results = nullptr;
    std::vector<sockaddr_storage> addresses;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &results) != 0 || !results)
        return addresses;
    for (int pass = 0; pass < 2; ++pass) {
        const int family = pass == 0 ? AF_INET : AF_INET6;
        for (const addrinfo* entry = results; entry; entry = entry->ai_next) {
            if (entry->ai_family != family || entry->ai_addrlen > sizeof(sockaddr_storage))
                continue;
            sockaddr_storage address{};
            std::memcpy(&address, entry->ai_addr, entry->ai_addrlen);
            addresses.push_back(address);
        }
    }
    freeaddrinfo(results);
    return addresses;
}
} // namespace

CThreadNameService::~CThreadNameService()
{
    std::vector<std::thread> threads;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
        m_waiting.clear();
        for (auto& running : m_running)
            running.second = true;
        threads.swap(m_threads);
    }
    m_wake.notify_all();
    for (std::thread& thread : threads)
        thread.join();
}

uint64_t CThreadNameService::Start(const std::string& host, Answer answer)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const uint64_t id = m_nextId++;
    m_waiting.push_back({id, host, std::move(answer)});
    if (m_idle == 0 && m_threads.size() < MAX_THREADS)
        m_threads.emplace_back([this] { Main(); });
    else
        m_wake.notify_one();
    return id;
}

void CThreadNameService::Abandon(uint64_t id)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_waiting.erase(std::remove_if(m_waiting.begin(), m_waiting.end(),
                                   [&](const SLookup& lookup) { return lookup.id == id; }),
                    m_waiting.end());
    const auto running = m_running.find(id);
    if (running != m_running.end())
        running->second = true;
}

void CThreadNameService::Main()
{
    // Like every thread of the host: no signal of a broken pipe reaches the process from here.
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    if (m_hooks.onStart)
        m_hooks.onStart(m_hooks.context);
    Work();
    if (m_hooks.onStop)
        m_hooks.onStop(m_hooks.context);
}

void CThreadNameService::Work()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        ++m_idle;
        m_wake.wait(lock, [this] { return m_stopping || !m_waiting.empty(); });
        --m_idle;
        if (m_stopping)
            return;
        SLookup lookup = std::move(m_waiting.front());
        m_waiting.pop_front();
        m_running[lookup.id] = false;
        lock.unlock();
        const std::vector<sockaddr_storage> addresses = LookUp(lookup.host);
        lock.lock();
        const bool abandoned = m_running[lookup.id];
        m_running.erase(lookup.id);
        if (abandoned)
            continue;
        lock.unlock();
        lookup.answer(addresses);
        lock.lock();
    }
}

} // namespace Host
} // namespace ZRT
