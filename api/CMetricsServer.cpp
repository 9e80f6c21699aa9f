#include "api/CMetricsServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iterator>
#include <utility>

#include "api/CLogText.h"
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
    const char* labelName; // "" for none
    const char* labelValue;
    CProxyStats::ECounter counter;
};

// Metrics that share a name are written together under one HELP and TYPE.
const SMetric METRICS[] = {
    {"zrtproxy_connections_total", "counter", "Client connections accepted.", "", "", CProxyStats::CONNECTIONS_TOTAL},
    {"zrtproxy_connections_active", "gauge", "Client connections open now.", "", "", CProxyStats::CONNECTIONS_ACTIVE},
    {"zrtproxy_socks5_connections_total", "counter", "Clients that spoke SOCKS5.", "", "", CProxyStats::SOCKS5_TOTAL},
    {"zrtproxy_socks4_connections_total", "counter", "Clients that spoke SOCKS4 or 4A.", "", "", CProxyStats::SOCKS4_TOTAL},
    {"zrtproxy_http_connections_total", "counter", "Clients that spoke the HTTP proxy protocol.", "", "",
     CProxyStats::HTTP_TOTAL},
    {"zrtproxy_refused_total", "counter", "Clients refused, by reason.", "reason", "bad_request",
     CProxyStats::REFUSED_BAD_REQUEST},
    {"zrtproxy_refused_total", "counter", "", "reason", "no_destination", CProxyStats::REFUSED_NO_DESTINATION},
    {"zrtproxy_refused_total", "counter", "", "reason", "unreachable", CProxyStats::REFUSED_UNREACHABLE},
    {"zrtproxy_refused_total", "counter", "", "reason", "not_allowed", CProxyStats::REFUSED_NOT_ALLOWED},
    {"zrtproxy_refused_total", "counter", "", "reason", "auth_failed", CProxyStats::REFUSED_AUTH_FAILED},
    {"zrtproxy_refused_total", "counter", "", "reason", "over_limit", CProxyStats::REFUSED_OVER_LIMIT},
    {"zrtproxy_refused_total", "counter", "", "reason", "source_limit", CProxyStats::REFUSED_SOURCE_LIMIT},
    {"zrtproxy_refused_total", "counter", "", "reason", "denied", CProxyStats::REFUSED_DENIED},
    {"zrtproxy_timeouts_total", "counter", "Connections closed by the handshake or idle time-out.", "", "",
     CProxyStats::TIMED_OUT},
    {"zrtproxy_bytes_total", "counter", "Bytes relayed, by direction.", "direction", "client_to_host",
     CProxyStats::BYTES_CLIENT_TO_HOST},
    {"zrtproxy_bytes_total", "counter", "", "direction", "host_to_client", CProxyStats::BYTES_HOST_TO_CLIENT},
    {"zrtproxy_udp_datagrams_total", "counter", "UDP datagrams relayed, by direction.",
     "direction", "client_to_host", CProxyStats::UDP_DATAGRAMS_CLIENT_TO_HOST},
    {"zrtproxy_udp_datagrams_total", "counter", "", "direction", "host_to_client",
     CProxyStats::UDP_DATAGRAMS_HOST_TO_CLIENT},
    {"zrtproxy_udp_datagrams_dropped_total", "counter", "UDP datagrams too large to relay whole.", "", "",
     CProxyStats::UDP_DATAGRAMS_DROPPED},
    {"zrtproxy_log_lines_dropped_total", "counter", "Log lines lost because the log sink was behind.", "", "",
     CProxyStats::LOG_LINES_DROPPED},
    {"zrtproxy_http_requests_total", "counter", "Requests answered on persistent HTTP connections.", "", "",
     CProxyStats::HTTP_REQUESTS_TOTAL},
    {"zrtproxy_http_origin_reuses_total", "counter", "Requests sent on an idle origin connection kept for them.", "",
     "", CProxyStats::HTTP_ORIGINS_REUSED},
};

const char* const LOOPBACK[] = {"127.0.0.0/8", "::1"};

// A label value as the text format wants it: escaped like a log field (a quote too), and every
// backslash of that doubled, so that a parser reads back the escaped text.
std::string LabelValue(const char* text)
{
    std::string value;
    for (const char c : CLogText::Escape(text, CLogText::TEXT_LIMIT, "\"")) {
        value += c;
        if (c == '\\')
            value += c;
    }
    return value;
}

// Rounded up, so that a poll does not wake just before the deadline and spin to it.
int MillisecondsUntil(std::chrono::steady_clock::time_point when)
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(when - std::chrono::steady_clock::now());
    return left.count() < 0 ? 0 : static_cast<int>(left.count());
}
} // namespace

CMetricsServer::~CMetricsServer()
{
    Stop();
}

// Loopback alone unless told otherwise.
bool CMetricsServer::SetAllowList(const std::vector<std::string>& allow, std::string& error)
{
    m_allow.clear();
    std::vector<std::string> blocks = allow;
    if (blocks.empty())
        blocks.assign(std::begin(LOOPBACK), std::end(LOOPBACK));
    for (const std::string& block : blocks) {
        Proxy::CAddressRange range;
        if (!range.Parse(block)) {
            error = "metrics-allow: '" + block + "' is not an address block";
            return false;
        }
        m_allow.push_back(range);
    }
    return true;
}

bool CMetricsServer::Start(const std::string& address, int port, const std::vector<std::string>& allow,
                           QOX::CThreadPool* pool, std::string& error)
{
    if (!SetAllowList(allow, error))
        return false;
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
        listen(socket, 64) != 0 || getsockname(socket, reinterpret_cast<sockaddr*>(&local), &length) != 0) {
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
    std::vector<SScraper> scrapers;
    std::vector<pollfd> entries;
    for (;;) {
        entries.assign({{m_stopEvent.GetWaitHandle(), POLLIN, 0}, {m_listenSocket, POLLIN, 0}});
        int timeout = -1;
        for (const SScraper& scraper : scrapers) {
            entries.push_back({scraper.socket.Get(), static_cast<short>(scraper.answer.empty() ? POLLIN : POLLOUT), 0});
            const int left = MillisecondsUntil(scraper.deadline);
            timeout = timeout < 0 ? left : std::min(timeout, left);
        }
        if (poll(entries.data(), entries.size(), timeout) < 0 && errno != EINTR)
            return 0;
        if (entries[0].revents != 0)
            return 0;
        const Clock::time_point now = Clock::now();
        size_t kept = 0;
        for (size_t i = 0; i < scrapers.size(); ++i) {
            const bool ready = entries[i + 2].revents != 0;
            if ((ready && !Step(scrapers[i])) || (!ready && now >= scrapers[i].deadline))
                continue; // done with, or out of time: closed as it goes
            if (kept != i)
                scrapers[kept] = std::move(scrapers[i]);
            ++kept;
        }
        scrapers.resize(kept);
        if (entries[1].revents & POLLIN)
            Accept(scrapers);
    }
}

void CMetricsServer::Accept(std::vector<SScraper>& scrapers) const
{
    // A few each round, so that a flood of connections cannot keep the scrapers waiting.
    for (size_t round = 0; round < MAX_SCRAPERS; ++round) {
        sockaddr_storage peer{};
        socklen_t length = sizeof(peer);
        CSocketHandle client(accept4(m_listenSocket, reinterpret_cast<sockaddr*>(&peer), &length,
                                     SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!client.IsValid())
            return;
        if (!IsAllowed(peer))
            continue; // closed at once, before a byte is read
        if (scrapers.size() >= MAX_SCRAPERS) {
            // The oldest that has not sent its request yet gives way; with none, the newcomer.
            auto oldest = scrapers.end();
            for (auto at = scrapers.begin(); at != scrapers.end(); ++at) {
                if (at->answer.empty() && (oldest == scrapers.end() || at->deadline < oldest->deadline))
                    oldest = at;
            }
            if (oldest == scrapers.end())
                continue;
            scrapers.erase(oldest);
        }
        SScraper scraper;
        scraper.socket = std::move(client);
        scraper.deadline = Clock::now() + std::chrono::milliseconds(SCRAPE_TIMEOUT_MS);
        scrapers.push_back(std::move(scraper));
    }
}

bool CMetricsServer::IsAllowed(const sockaddr_storage& peer) const
{
    for (const Proxy::CAddressRange& range : m_allow) {
        if (range.Contains(peer))
            return true;
    }
    return false;
}

bool CMetricsServer::Step(SScraper& scraper) const
{
    if (scraper.answer.empty()) {
        // The request line and headers, up to a blank line.
        char chunk[2048];
        const ssize_t got = recv(scraper.socket.Get(), chunk, sizeof(chunk), MSG_DONTWAIT);
        if (got < 0 && (CSocketUtils::IsWouldBlock(errno) || errno == EINTR))
            return true;
        if (got <= 0)
            return false;
        scraper.request.append(chunk, static_cast<size_t>(got));
        if (scraper.request.size() > MAX_REQUEST)
            return false;
        if (scraper.request.find("\r\n\r\n") == std::string::npos && scraper.request.find("\n\n") == std::string::npos)
            return true;
        scraper.answer = Answer(scraper.request);
        scraper.deadline = Clock::now() + std::chrono::milliseconds(SCRAPE_TIMEOUT_MS);
    }
    // The scraper's socket is non-blocking: what it takes now, the rest when it polls writable.
    const ssize_t sent = CSocketUtils::SendSome(scraper.socket.Get(), scraper.answer.data() + scraper.sent,
                                                scraper.answer.size() - scraper.sent);
    if (sent < 0)
        return false;
    scraper.sent += static_cast<size_t>(sent);
    return scraper.sent < scraper.answer.size();
}

std::string CMetricsServer::Answer(const std::string& request) const
{
    const bool metrics = request.compare(0, 13, "GET /metrics ") == 0 || request.compare(0, 13, "GET /metrics?") == 0;
    const std::string body = metrics ? Render(m_stats) : "not found: the counters are at /metrics\n";
    return std::string(metrics ? "HTTP/1.0 200 OK\r\n" : "HTTP/1.0 404 Not Found\r\n") +
           "Content-Type: text/plain; version=0.0.4; charset=utf-8\r\n" +
           "Content-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
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
        if (*metric.labelName)
            page += std::string("{") + metric.labelName + "=\"" + LabelValue(metric.labelValue) + "\"}";
        page += " " + std::to_string(stats.Get(metric.counter)) + "\n";
    }
    return page;
}

} // namespace Api
} // namespace ZRT
