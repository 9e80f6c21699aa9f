#include "api/CMetricsServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "runtime/CThreadPool.h"
#include "transport/CSocketUtils.h"

namespace ZRT {
namespace Api {

namespace {
using Proxy::CProxyStats;

struct SMetric {
    const char* name;
    const char* type;
    const char* help;
    const char* label; // "" or key="value"
    CProxyStats::ECounter counter;
};

// Metrics that share a name are written together under one HELP and TYPE.
const SMetric METRICS[] = {
    {"zrtproxy_connections_total", "counter", "Client connections accepted.", "", CProxyStats::CONNECTIONS_TOTAL},
    {"zrtproxy_connections_active", "gauge", "Client connections open now.", "", CProxyStats::CONNECTIONS_ACTIVE},
    {"zrtproxy_socks5_connections_total", "counter", "Clients that spoke SOCKS5.", "", CProxyStats::SOCKS5_TOTAL},
    {"zrtproxy_http_connections_total", "counter", "Clients that spoke the HTTP proxy protocol.", "",
     CProxyStats::HTTP_TOTAL},
    {"zrtproxy_refused_total", "counter", "Clients refused, by reason.", "reason=\"bad_request\"",
     CProxyStats::REFUSED_BAD_REQUEST},
    {"zrtproxy_refused_total", "counter", "", "reason=\"no_destination\"", CProxyStats::REFUSED_NO_DESTINATION},
    {"zrtproxy_refused_total", "counter", "", "reason=\"unreachable\"", CProxyStats::REFUSED_UNREACHABLE},
    {"zrtproxy_refused_total", "counter", "", "reason=\"not_allowed\"", CProxyStats::REFUSED_NOT_ALLOWED},
    {"zrtproxy_refused_total", "counter", "", "reason=\"auth_failed\"", CProxyStats::REFUSED_AUTH_FAILED},
    {"zrtproxy_refused_total", "counter", "", "reason=\"over_limit\"", CProxyStats::REFUSED_OVER_LIMIT},
    {"zrtproxy_refused_total", "counter", "", "reason=\"source_limit\"", CProxyStats::REFUSED_SOURCE_LIMIT},
    {"zrtproxy_refused_total", "counter", "", "reason=\"denied\"", CProxyStats::REFUSED_DENIED},
    {"zrtproxy_timeouts_total", "counter", "Connections closed by the handshake or idle time-out.", "",
     CProxyStats::TIMED_OUT},
    {"zrtproxy_bytes_total", "counter", "Bytes relayed, by direction.", "direction=\"client_to_host\"",
     CProxyStats::BYTES_CLIENT_TO_HOST},
    {"zrtproxy_bytes_total", "counter", "", "direction=\"host_to_client\"", CProxyStats::BYTES_HOST_TO_CLIENT},
    {"zrtproxy_udp_datagrams_total", "counter", "UDP datagrams relayed, by direction.",
     "direction=\"client_to_host\"", CProxyStats::UDP_DATAGRAMS_CLIENT_TO_HOST},
    {"zrtproxy_udp_datagrams_total", "counter", "", "direction=\"host_to_client\"",
     CProxyStats::UDP_DATAGRAMS_HOST_TO_CLIENT},
    {"zrtproxy_udp_datagrams_dropped_total", "counter", "UDP datagrams too large to relay whole.", "",
     CProxyStats::UDP_DATAGRAMS_DROPPED},
    {"zrtproxy_log_lines_dropped_total", "counter", "Log lines lost because the log sink was behind.", "",
     CProxyStats::LOG_LINES_DROPPED},
};

bool SendAll(int socket, const std::string& text)
{
    size_t sent = 0;
    while (sent < text.size()) {
        const ssize_t result = send(socket, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (result < 0 && errno == EINTR)
            continue;
        if (result < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            pollfd entry{socket, POLLOUT, 0};
            if (poll(&entry, 1, CMetricsServer::SCRAPE_TIMEOUT_MS) <= 0)
                return false;
            continue;
        }
        if (result <= 0)
            return false;
        sent += static_cast<size_t>(result);
    }
    return true;
}
} // namespace

CMetricsServer::~CMetricsServer()
{
    Stop();
}

bool CMetricsServer::Start(const std::string& address, int port, QOX::CThreadPool* pool, std::string& error)
{
    sockaddr_storage local{};
    socklen_t length = 0;
    auto& v4 = reinterpret_cast<sockaddr_in&>(local);
    auto& v6 = reinterpret_cast<sockaddr_in6&>(local);
    if (inet_pton(AF_INET, address.c_str(), &v4.sin_addr) == 1) {
        v4.sin_family = AF_INET;
        v4.sin_port = htons(static_cast<uint16_t>(port));
        length = sizeof(v4);
    } else if (inet_pton(AF_INET6, address.c_str(), &v6.sin6_addr) == 1) {
        v6.sin6_family = AF_INET6;
        v6.sin6_port = htons(static_cast<uint16_t>(port));
        length = sizeof(v6);
    }
    const int socket = ::socket(local.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int one = 1;
    if (socket >= 0)
        setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    if (length == 0 || socket < 0 || bind(socket, reinterpret_cast<sockaddr*>(&local), length) != 0 ||
        listen(socket, 16) != 0 || getsockname(socket, reinterpret_cast<sockaddr*>(&local), &length) != 0) {
        error = "cannot serve metrics on " + address + ":" + std::to_string(port) + ": " + std::strerror(errno);
        CSocketUtils::CloseSocket(socket);
        return false;
    }
    m_port = ntohs(local.ss_family == AF_INET ? v4.sin_port : v6.sin6_port);
    m_listenSocket = socket;
    SetThreadPool(pool);
    if (!StartThread(false)) {
        error = "cannot start the metrics thread";
        CSocketUtils::CloseSocket(m_listenSocket);
        m_listenSocket = -1;
        return false;
    }
    return true;
}

void CMetricsServer::Stop()
{
    const int status = GetThreadStatus();
    if (status == STATUS_RUNNING || status == STATUS_STOPPING)
        StopThread(-1);
    CSocketUtils::CloseSocket(m_listenSocket);
    m_listenSocket = -1;
    m_port = 0;
}

int CMetricsServer::Run()
{
    const int stop = m_stopEvent.GetWaitHandle();
    for (;;) {
        pollfd fds[2] = {{m_listenSocket, POLLIN, 0}, {stop, POLLIN, 0}};
        if (poll(fds, 2, -1) < 0 && errno != EINTR)
            return 0;
        if (fds[1].revents != 0)
            return 0;
        if (!(fds[0].revents & POLLIN))
            continue;
        const int client = accept4(m_listenSocket, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (client < 0)
            continue;
        Serve(client, stop);
        CSocketUtils::CloseSocket(client);
    }
}

void CMetricsServer::Serve(int client, int stop)
{
    // The request line and headers, up to a blank line, within the time limit.
    std::string request;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(SCRAPE_TIMEOUT_MS);
    while (request.find("\r\n\r\n") == std::string::npos && request.find("\n\n") == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd entries[2] = {{client, POLLIN, 0}, {stop, POLLIN, 0}};
        if (left.count() <= 0 || request.size() > 8192 || poll(entries, 2, static_cast<int>(left.count())) <= 0 ||
            entries[1].revents != 0)
            return;
        char chunk[2048];
        const ssize_t got = recv(client, chunk, sizeof(chunk), 0);
        if (got <= 0)
            return;
        request.append(chunk, static_cast<size_t>(got));
    }
    const bool metrics = request.compare(0, 13, "GET /metrics ") == 0 || request.compare(0, 13, "GET /metrics?") == 0;
    const std::string body = metrics ? Render(m_stats) : "not found: the counters are at /metrics\n";
    const std::string head = std::string(metrics ? "HTTP/1.0 200 OK\r\n" : "HTTP/1.0 404 Not Found\r\n") +
                             "Content-Type: text/plain; version=0.0.4; charset=utf-8\r\n" +
                             "Content-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n";
    SendAll(client, head + body);
}

std::string CMetricsServer::Render(const Proxy::CProxyStats& stats)
{
    std::string page;
    const char* previous = "";
    for (const SMetric& metric : METRICS) {
        if (std::strcmp(metric.name, previous) != 0) {
            page += std::string("# HELP ") + metric.name + " " + metric.help + "\n";
            page += std::string("# TYPE ") + metric.name + " " + metric.type + "\n";
            previous = metric.name;
        }
        page += metric.name;
        if (*metric.label)
            page += std::string("{") + metric.label + "}";
        page += " " + std::to_string(stats.Get(metric.counter)) + "\n";
    }
    return page;
}

} // namespace Api
} // namespace ZRT
