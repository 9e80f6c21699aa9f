// The memory measurements of CLoadScenarios: tunnels that carried data, stalled downloads,
// unfinished request headers, and what stays once every client has gone.
#include <poll.h>

#include <algorithm>
#include <cmath>
#include <thread>

#include "LoadScenarios.h"

namespace ZRT::Bench {

namespace {

constexpr auto kOpTimeout = std::chrono::seconds(5);
constexpr uint64_t kExchangeBytes = 1ull << 20;
constexpr uint64_t kEndless = 1ull << 40;

double KiB(double bytes) { return bytes / 1024.0; }

int ClosedByPeer(const std::vector<CBenchSocket>& socks) {
  int closed = 0;
  for (const CBenchSocket& s : socks) {
    pollfd p{s.Fd(), POLLIN, 0};
    if (::poll(&p, 1, 0) > 0) ++closed;
  }
  return closed;
}

// Waits until the system's TCP buffer memory holds still (the senders' windows are full, or the
// sockets of an earlier measurement are gone); false when it did not within the time allowed.
bool WaitForTcpMemoryToSettle(int maxSteps) {
  uint64_t last = CProcessTree::TcpMemoryBytes();
  int steady = 0;
  for (int i = 0; i < maxSteps && steady < 3; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const uint64_t now = CProcessTree::TcpMemoryBytes();
    const uint64_t change = now > last ? now - last : last - now;
    steady = change <= std::max<uint64_t>(last / 100, 256 * 1024) ? steady + 1 : 0;
    last = now;
  }
  return steady >= 3;
}

}  // namespace

bool CLoadScenarios::MeasureUsedTunnels(const SProxyTarget& t, EPath path, double& rssKiB, double& fdsPerTunnel) {
  const CProcessTree tree(t.pid);
  const SProcessSample before = tree.Sample();
  const CProxyClient client(t, path, m_settings.httpDest);
  std::vector<CBenchSocket> tunnels;
  tunnels.reserve(static_cast<size_t>(m_settings.usedTunnels));
  int failures = 0;
  for (int i = 0; i < m_settings.usedTunnels && failures < 3; ++i) {
    CBenchSocket sock;
    if (client.Exchange(sock, kExchangeBytes, Clock::now() + kOpTimeout)) {
      tunnels.push_back(std::move(sock));
    } else {
      ++failures;
    }
  }
  if (static_cast<int>(tunnels.size()) != m_settings.usedTunnels) {
    m_table.Note(t.name + ": only " + std::to_string(tunnels.size()) + " of " +
                 std::to_string(m_settings.usedTunnels) + " " + PathName(path) + " tunnels carried 1 MiB each way.");
    return false;
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  const SProcessSample held = tree.Sample();
  const int closed = ClosedByPeer(tunnels);
  if (closed > 0) {
    m_table.Note(t.name + ": " + std::to_string(closed) + " used " + PathName(path) + " tunnels were closed by the proxy.");
  }
  const double n = static_cast<double>(tunnels.size());
  rssKiB = (static_cast<double>(held.rssKiB) - static_cast<double>(m_fresh[t.name].rssKiB)) / n;
  fdsPerTunnel = static_cast<double>(held.descriptors - before.descriptors) / n;
  return true;
}

void CLoadScenarios::RunUsedTunnels(EPath path, const std::string& prefix) {
  for (int run = 1; run <= m_settings.runs; ++run) {
    for (const SProxyTarget* t : TargetsFor(path, false)) {
      // The HTTP CONNECT rows are for proxies without SOCKS5, and ours.
      if (path == EPath::HttpConnect && t->Supports(EPath::Socks5) && t->name != m_ours) continue;
      double rss = std::nan(""), fds = std::nan("");
      const bool skip = Skipping(prefix, *t);
      const auto start = Clock::now();
      const bool ok = !skip && t->pid > 0 && MeasureUsedTunnels(*t, path, rss, fds);
      const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
      if (!skip) Record(prefix, *t, ok);
      m_table.Add(prefix + "-rss", t->name, rss);
      m_table.Add(prefix + "-fds", t->name, fds);
      Progress("[used tunnels " + std::string(PathName(path)) + "] run " + std::to_string(run) + " " + t->name +
               ": " + (ok ? "RSS +" + FormatFigure(rss) + " KiB/tunnel, " + FormatFigure(fds) + " descriptors/tunnel"
                          : skip ? "skipped" : "failed") + " (" + FormatFigure(seconds) + " s)");
      if (!skip) std::this_thread::sleep_for(std::chrono::seconds(1));
    }
  }
}

double CLoadScenarios::MeasureStalled(const SProxyTarget& t, EPath path) {
  const CProcessTree tree(t.pid);
  const bool proxied = t.pid > 0;
  if (!WaitForTcpMemoryToSettle(100)) {
    m_table.Note(t.name + ": the system's TCP buffer memory did not settle before a stalled-download run.");
  }
  const uint64_t tcpBefore = CProcessTree::TcpMemoryBytes();
  const uint64_t rssBefore = proxied ? tree.Sample().rssKiB : 0;
  const CProxyClient client(t, t.IsDirect() ? EPath::Direct : path, m_settings.httpDest);
  std::vector<CBenchSocket> stalled;
  for (int i = 0; i < m_settings.stalledDownloads; ++i) {
    CBenchSocket sock;
    if (!client.StartDownload(sock, kEndless, Clock::now() + kOpTimeout)) return std::nan("");
    stalled.push_back(std::move(sock));
  }
  WaitForTcpMemoryToSettle(40);
  const double tcp = static_cast<double>(CProcessTree::TcpMemoryBytes()) - static_cast<double>(tcpBefore);
  // A helper process that ended meanwhile (Dante's) would make the growth negative.
  const double rss =
      proxied ? std::max(0.0, static_cast<double>(tree.Sample().rssKiB) - static_cast<double>(rssBefore)) * 1024 : 0;
  const int64_t pipes = proxied ? tree.PipeBytes() : 0;
  if (pipes < 0) m_table.Note(t.name + ": its pipes could not be read; the stalled-download rows leave them out.");
  const double n = static_cast<double>(stalled.size());
  Progress("[stalled " + std::string(PathName(path)) + "] " + t.name + " per download: TCP buffers " +
           FormatFigure(KiB(tcp / n)) + " KiB, proxy RSS " + FormatFigure(KiB(rss / n)) + " KiB, pipes " +
           FormatFigure(KiB(static_cast<double>(std::max<int64_t>(pipes, 0)) / n)) + " KiB");
  return KiB((tcp + rss + static_cast<double>(std::max<int64_t>(pipes, 0))) / n);
}

void CLoadScenarios::RunStalled(EPath path, const std::string& key) {
  for (int run = 1; run <= m_settings.runs; ++run) {
    for (const SProxyTarget* t : TargetsFor(path, true)) {
      // Each proxy once: SOCKS5 where it has it, else HTTP; ours and the direct path both ways.
      if (path == EPath::HttpGet && t->Supports(EPath::Socks5) && !t->IsDirect() && t->name != m_ours) continue;
      const bool skip = Skipping(key, *t);
      const double kib = skip ? std::nan("") : MeasureStalled(*t, path);
      if (!skip) Record(key, *t, !std::isnan(kib));
      m_table.Add(key, t->name, kib);
      Progress("[stalled " + std::string(PathName(path)) + "] run " + std::to_string(run) + " " + t->name + ": " +
               (std::isnan(kib) ? std::string("failed") : FormatFigure(kib) + " KiB per download"));
      // The stalled connections are torn down before the next target is measured.
      std::this_thread::sleep_for(std::chrono::seconds(1));
    }
  }
}

bool CLoadScenarios::MeasureHeldHeaders(const SProxyTarget& t, size_t bytes, double& rssKiB, double& tcpKiB) {
  const CProcessTree tree(t.pid);
  WaitForTcpMemoryToSettle(100);
  const uint64_t rssBefore = tree.Sample().rssKiB;
  const uint64_t tcpBefore = CProcessTree::TcpMemoryBytes();
  const std::string hostPort = m_settings.httpDest.ToString();
  std::string head = "GET http://" + hostPort + "/bytes/100 HTTP/1.1\r\nHost: " + hostPort + "\r\nX-Padding: ";
  head.append(bytes > head.size() ? bytes - head.size() : 0, 'h');
  std::vector<CBenchSocket> clients;
  clients.reserve(static_cast<size_t>(m_settings.heldHeaders));
  int failures = 0;
  for (int i = 0; i < m_settings.heldHeaders && failures < 3; ++i) {
    CBenchSocket sock;
    const auto deadline = Clock::now() + kOpTimeout;
    if (sock.Connect(t.endpoint.addr, deadline) && sock.SendAll(head, deadline)) {
      clients.push_back(std::move(sock));
    } else {
      ++failures;
    }
  }
  if (static_cast<int>(clients.size()) != m_settings.heldHeaders) {
    m_table.Note(t.name + ": only " + std::to_string(clients.size()) + " of " +
                 std::to_string(m_settings.heldHeaders) + " clients could send their unfinished header.");
    return false;
  }
  std::this_thread::sleep_for(std::chrono::seconds(1));
  const uint64_t rssHeld = tree.Sample().rssKiB;
  const uint64_t tcpHeld = CProcessTree::TcpMemoryBytes();
  const int closed = ClosedByPeer(clients);
  if (closed > 0) {
    m_table.Note(t.name + ": closed " + std::to_string(closed) + " of " + std::to_string(clients.size()) +
                 " clients holding an unfinished header within a second.");
  }
  const double n = static_cast<double>(clients.size());
  rssKiB = (static_cast<double>(rssHeld) - static_cast<double>(rssBefore)) / n;
  tcpKiB = KiB(static_cast<double>(tcpHeld) - static_cast<double>(tcpBefore)) / n;
  return true;
}

void CLoadScenarios::RunHeldHeaders() {
  // The small headers first: their clients' going gives the memory back before the large ones.
  const std::pair<const char*, size_t> sizes[] = {{"headers-small", m_settings.heldHeaderSmallBytes},
                                                  {"headers", m_settings.heldHeaderBytes}};
  for (int run = 1; run <= m_settings.runs; ++run) {
    for (const SProxyTarget* t : TargetsFor(EPath::HttpGet, false)) {
      const bool skip = Skipping("headers", *t) || t->pid <= 0;
      for (const auto& [key, bytes] : sizes) {
        double rss = std::nan(""), tcp = std::nan("");
        const bool ok = !skip && MeasureHeldHeaders(*t, bytes, rss, tcp);
        if (!skip) Record("headers", *t, ok);
        m_table.Add(key, t->name, rss);
        m_table.Add(std::string(key) + "-tcp", t->name, tcp);
        Progress("[unfinished headers, " + SizeText(bytes) + "] run " + std::to_string(run) + " " + t->name + ": " +
                 (ok ? "RSS " + FormatFigure(rss) + " KiB, TCP buffers " + FormatFigure(tcp) + " KiB per client"
                     : std::string("failed")));
        if (!skip) std::this_thread::sleep_for(std::chrono::seconds(1));
      }
    }
  }
}

void CLoadScenarios::RecordRssAtEnd(const std::string& key, bool httpOnly) {
  std::this_thread::sleep_for(std::chrono::seconds(1));
  for (const SProxyTarget& t : m_targets) {
    if (t.pid <= 0 || (httpOnly && !t.Supports(EPath::HttpGet)) || !CProcessTree(t.pid).Alive()) continue;
    const SProcessSample now = CProcessTree(t.pid).Sample();
    const SProcessSample& fresh = m_fresh[t.name];
    m_table.Add(key, t.name, static_cast<double>(now.rssKiB) / 1024.0);
    if (fresh.rssKiB > 0) {
      m_table.Add(key + "-ratio", t.name, static_cast<double>(now.rssKiB) / static_cast<double>(fresh.rssKiB));
    }
  }
}

}  // namespace ZRT::Bench
