#include "LoadScenarios.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <iostream>
#include <thread>

#include "BulkLoad.h"
#include "ProcessTree.h"
#include "Stats.h"
#include "TxDriver.h"

namespace ZRT::Bench {

namespace {

constexpr auto kOpTimeout = std::chrono::seconds(5);
// A transfer slower than bulk bytes per kBulkCap is stopped there and its rate taken over the part
// done; this keeps the full run bounded even for a slow proxy.
constexpr auto kBulkCap = std::chrono::seconds(20);
constexpr auto kSettle = std::chrono::milliseconds(200);
// Bulk downloads for the bystander test ask for more than they can get before they are closed.
constexpr uint64_t kEndless = 1ull << 40;

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

std::vector<std::string> ColumnNames(const std::vector<SProxyTarget>& targets) {
  std::vector<std::string> names;
  names.reserve(targets.size());
  for (const SProxyTarget& t : targets) names.push_back(t.name);
  return names;
}

std::vector<SProxyTarget> WithDirect(std::vector<SProxyTarget> proxies) {
  proxies.insert(proxies.begin(), SProxyTarget::Direct());
  return proxies;
}

void ChargeCpu(const SProcessSample& before, const SProcessSample& after, double units, double scale,
               double& perUnit, double& kernelShare) {
  // A helper process that ended unreaped between the samples takes its time with it.
  const bool monotonic = after.cpuTicks >= before.cpuTicks && after.systemTicks >= before.systemTicks;
  const double ticks = monotonic ? static_cast<double>(after.cpuTicks - before.cpuTicks) : std::nan("");
  const double system = monotonic ? static_cast<double>(after.systemTicks - before.systemTicks) : std::nan("");
  perUnit = units > 0 ? CProcessTree::TicksToMillis(1) * ticks / 1000.0 * scale / units : std::nan("");
  kernelShare = ticks > 0 ? 100.0 * system / ticks : std::nan("");
}

struct SUdpSocket {
  int fd = -1;
  ~SUdpSocket() {
    if (fd >= 0) ::close(fd);
  }
};

}  // namespace

std::string SizeText(uint64_t bytes) {
  if (bytes >= (1ull << 30) && bytes % (1ull << 30) == 0) return std::to_string(bytes >> 30) + " GiB";
  if (bytes >= (1ull << 20) && bytes % (1ull << 20) == 0) return std::to_string(bytes >> 20) + " MiB";
  if (bytes >= (1ull << 10) && bytes % (1ull << 10) == 0) return std::to_string(bytes >> 10) + " KiB";
  return std::to_string(bytes) + " B";
}

CLoadScenarios::CLoadScenarios(const SBenchSettings& settings, std::vector<SProxyTarget> proxies,
                               const std::string& ours)
    : m_settings(settings),
      m_targets(WithDirect(std::move(proxies))),
      m_ours(ours),
      m_table(ColumnNames(m_targets), ours) {
  DeclareRows();
}

void CLoadScenarios::DeclareRows() {
  const std::string bulk = SizeText(m_settings.bulkBytes);
  m_table.AddRow("bulk-socks", "Download " + bulk + ", 1 stream, SOCKS5 (MB/s)", true);
  m_table.AddRow("bulk-http", "Download " + bulk + ", 1 stream, HTTP GET (MB/s)", true);
  m_table.AddRow("bulk-connect", "Download " + bulk + ", 1 stream, HTTP CONNECT (MB/s)", true);
  m_table.AddRow("upload-socks", "Upload " + bulk + ", 1 stream, SOCKS5 (MB/s)", true);
  for (const char* key : {"bulk-socks", "bulk-http", "bulk-connect", "upload-socks"}) {
    const std::string k(key);
    const std::string what = (k == "upload-socks" ? "Upload, SOCKS5" : k == "bulk-socks" ? "Download, SOCKS5"
                              : k == "bulk-http"  ? "Download, HTTP GET" : "Download, HTTP CONNECT");
    m_table.AddRow("cpu-" + k, what + ": proxy CPU per GiB relayed (s)", false);
    m_table.AddInfoRow("cpu-" + k + "-sys", what + ": kernel share of that CPU (%)");
  }
  const std::string small = SizeText(m_settings.smallBytes);
  for (const char* shape : {"tx", "txc"}) {
    const bool untilClose = std::string(shape) == "txc";
    for (const char* proto : {"socks", "http"}) {
      const std::string name = std::string(proto) == "socks" ? "SOCKS5" : "HTTP GET";
      for (int c : m_settings.concurrency) {
        const std::string key = std::string(shape) + "-" + proto + "-" + std::to_string(c);
        const std::string what = name + " connect+handshake+GET " + small +
                                 (untilClose ? "+read until close" : "+close") + ", c=" + std::to_string(c);
        m_table.AddRow(key + "-rate", what + " (tx/s)", true);
        m_table.AddRow(key + "-p50", what + ", p50 (ms)", false);
        m_table.AddRow(key + "-p99", what + ", p99 (ms)", false);
        if (c == 1) continue;
        m_table.AddRow(key + "-cpu", what + ": proxy CPU per transaction (us)", false);
        m_table.AddInfoRow(key + "-sys", what + ": kernel share of that CPU (%)");
      }
    }
  }
  const std::string idle = std::to_string(m_settings.idleTunnels) + " idle SOCKS5 tunnels";
  char secs[32];
  std::snprintf(secs, sizeof secs, "%g s", m_settings.idleSeconds);
  m_table.AddRow("idle-cpu", idle + ": proxy CPU over " + secs + " (ms)", false);
  m_table.AddRow("idle-wake", idle + ": wake-ups/s (voluntary switches)", false);
  m_table.AddRow("idle-threads", idle + ": threads (all processes) while held", false);
  m_table.AddRow("idle-rss", idle + ": RSS over the fresh process, per tunnel (KiB)", false);
  m_table.AddRow("idle-pss", idle + ": PSS over the fresh process, per tunnel (KiB)", false);
  for (const char* proto : {"socks", "connect"}) {
    const std::string used = std::to_string(m_settings.usedTunnels) + " idle " +
                             (std::string(proto) == "socks" ? "SOCKS5" : "HTTP CONNECT") +
                             " tunnels that carried 1 MiB each way";
    m_table.AddRow(std::string("used-") + proto + "-rss", used + ": RSS over the fresh process, per tunnel (KiB)",
                   false);
    m_table.AddRow(std::string("used-") + proto + "-fds", used + ": descriptors per tunnel", false);
  }
  m_table.AddRow("udp", "UDP echo round trips, 64 B, one client (1/s)", true);
  for (const char* proto : {"socks", "http"}) {
    const std::string name = std::string(proto) == "socks" ? "SOCKS5" : "HTTP GET";
    const std::string key = std::string("ttfb-") + proto;
    m_table.AddRow(key + "-p50", "Time to first byte, " + name + ", p50 (us)", false);
    m_table.AddRow(key + "-p99", "Time to first byte, " + name + ", p99 (us)", false);
  }
  for (const char* proto : {"socks", "http"}) {
    const std::string what = std::to_string(m_settings.burstClients) + " clients at once, " +
                             (std::string(proto) == "socks" ? "SOCKS5" : "HTTP GET") + " transaction";
    const std::string key = std::string("burst-") + proto;
    m_table.AddRow(key + "-max", what + ": slowest (ms)", false);
    m_table.AddRow(key + "-late", what + ": over 900 ms, i.e. a SYN retried (clients)", false);
  }
  DeclareLaterRows();
}

void CLoadScenarios::DeclareLaterRows() {
  const std::string bystander = "Bystander SOCKS5 transaction (GET 100 B)";
  m_table.AddRow("bys-0-p50", bystander + ", no bulk download, p50 (ms)", false);
  m_table.AddRow("bys-0-p99", bystander + ", no bulk download, p99 (ms)", false);
  for (const int streams : m_settings.bulkStreams) {
    const std::string key = "bys-" + std::to_string(streams);
    const std::string beside = bystander + " beside " + std::to_string(streams) + " SOCKS5 bulk download" +
                               (streams == 1 ? "" : "s");
    m_table.AddRow(key + "-p50", beside + ", p50 (ms)", false);
    if (streams != m_settings.bulkStreams.back()) continue;
    m_table.AddRow(key + "-p99", beside + ", p99 (ms)", false);
    m_table.AddRow(key + "-rate", "The " + std::to_string(streams) +
                   " SOCKS5 bulk downloads beside the bystander, together (MB/s)", true);
  }
  const std::string stalled = std::to_string(m_settings.stalledDownloads) +
                              " stalled downloads (the client never reads), ";
  m_table.AddRow("stall-socks", stalled + "SOCKS5: memory tied up per download (KiB)", false);
  m_table.AddRow("stall-http", stalled + "HTTP GET: memory tied up per download (KiB)", false);
  m_table.AddRow("headers-small", std::to_string(m_settings.heldHeaders) + " clients each holding an unfinished " +
                 SizeText(m_settings.heldHeaderSmallBytes) + " HTTP request header: proxy RSS per client (KiB)",
                 false);
  m_table.AddRow("headers-small-tcp", "... the same clients: TCP buffer memory (all sockets) per client (KiB)", false);
  m_table.AddRow("headers", std::to_string(m_settings.heldHeaders) + " clients each holding an unfinished " +
                 SizeText(m_settings.heldHeaderBytes) + " HTTP request header: proxy RSS per client (KiB)",
                 false);
  m_table.AddRow("headers-tcp", "... the same clients: TCP buffer memory (all sockets) per client (KiB)", false);
  m_table.AddRow("rss-headers", "RSS once the clients holding unfinished headers have gone (MiB)", false);
  m_table.AddRow("rss-headers-ratio", "... over the freshly started process (ratio)", false);
  m_table.AddRow("rss-end", "RSS once every client of the load tests (bulk to bystander) has gone (MiB)", false);
  m_table.AddRow("rss-end-ratio", "... over the freshly started process (ratio)", false);
}

void CLoadScenarios::Progress(const std::string& text) const { std::cerr << text << std::endl; }

std::vector<const SProxyTarget*> CLoadScenarios::TargetsFor(EPath path, bool withDirect) const {
  std::vector<const SProxyTarget*> out;
  for (const SProxyTarget& t : m_targets) {
    if (t.IsDirect() ? withDirect : t.Supports(path)) out.push_back(&t);
  }
  return out;
}

void CLoadScenarios::CheckAlive(const char* after) {
  for (const SProxyTarget& t : m_targets) {
    if (t.IsDirect() || t.pid <= 0 || m_reportedDead.count(t.name)) continue;
    if (CProcessTree(t.pid).Alive()) continue;
    m_reportedDead.insert(t.name);
    m_table.Note(t.name + " (pid " + std::to_string(t.pid) + ") was no longer running after the " +
                 after + " test.");
  }
}

void CLoadScenarios::WarmUp(EPath path) const {
  for (const SProxyTarget* t : TargetsFor(path, true)) {
    const EPath p = t->IsDirect() ? EPath::Direct : path;
    CProxyClient(*t, p, m_settings.httpDest).Fetch(m_settings.smallBytes, Clock::now() + kOpTimeout);
  }
}

void CLoadScenarios::Run() {
  const auto& tests = m_settings.tests;
  // Memory is measured against each proxy as it was started, and the idle test runs first: an
  // allocator keeps freed memory, so a growth measured after earlier load would read near zero.
  for (const SProxyTarget& t : m_targets) {
    if (t.pid > 0) m_fresh[t.name] = CProcessTree(t.pid).Sample();
  }
  if (tests.count("idle")) {
    RunIdle();
    CheckAlive("idle-tunnel");
  }
  // Right after the idle test, so no heavier load has grown the heaps first.
  if (tests.count("used")) {
    RunUsedTunnels(EPath::Socks5, "used-socks");
    RunUsedTunnels(EPath::HttpConnect, "used-connect");
    CheckAlive("used-tunnel");
  }
  if (tests.count("bulk")) {
    RunBulk(EPath::Socks5, "bulk-socks");
    RunBulk(EPath::HttpGet, "bulk-http");
    RunBulk(EPath::HttpConnect, "bulk-connect");
    CheckAlive("download");
  }
  if (tests.count("upload")) {
    RunUpload();
    CheckAlive("upload");
  }
  if (tests.count("tx")) {
    RunTransactions(EPath::Socks5, "tx-socks");
    RunTransactions(EPath::HttpGet, "tx-http");
    CheckAlive("transaction");
  }
  if (tests.count("txclose")) {
    RunTransactions(EPath::Socks5, "txc-socks", true);
    RunTransactions(EPath::HttpGet, "txc-http", true);
    CheckAlive("read-until-close transaction");
  }
  if (tests.count("udp")) {
    RunUdp();
    CheckAlive("UDP");
  }
  if (tests.count("ttfb")) {
    RunTtfb(EPath::Socks5, "ttfb-socks");
    RunTtfb(EPath::HttpGet, "ttfb-http");
    CheckAlive("time-to-first-byte");
  }
  if (tests.count("burst")) {
    RunBurst(EPath::Socks5, "burst-socks");
    RunBurst(EPath::HttpGet, "burst-http");
    CheckAlive("burst");
  }
  if (tests.count("bystander")) {
    RunBystander();
    CheckAlive("bystander");
  }
  if (tests.count("stall")) {
    RunStalled(EPath::Socks5, "stall-socks");
    RunStalled(EPath::HttpGet, "stall-http");
    CheckAlive("stalled-download");
  }
  if (tests.count("headers")) {
    RunHeldHeaders();
    CheckAlive("unfinished-header");
    RecordRssAtEnd("rss-headers", true);
  }
  if (tests.count("rssend")) RecordRssAtEnd("rss-end", false);
}

bool CLoadScenarios::Skipping(const std::string& group, const SProxyTarget& t) const {
  const auto it = m_failures.find(group + "/" + t.name);
  return it != m_failures.end() && it->second >= 2;
}

void CLoadScenarios::Record(const std::string& group, const SProxyTarget& t, bool ok) {
  if (ok) return;
  if (++m_failures[group + "/" + t.name] == 2) {
    m_table.Note(t.name + " failed twice in \"" + group + "\" and was not tried again there.");
  }
}

void CLoadScenarios::RunBulk(EPath path, const std::string& key) {
  WarmUp(path);
  for (int run = 1; run <= m_settings.runs; ++run) {
    for (const SProxyTarget* t : TargetsFor(path, true)) {
      if (Skipping(key, *t)) {
        m_table.Add(key, t->name, std::nan(""));
        continue;
      }
      const EPath p = t->IsDirect() ? EPath::Direct : path;
      const SProcessSample before = t->pid > 0 ? CProcessTree(t->pid).Sample() : SProcessSample();
      const auto now = Clock::now();
      const SFetchResult r = CProxyClient(*t, p, m_settings.httpDest)
                                 .Fetch(m_settings.bulkBytes, now + kBulkCap + kOpTimeout, now + kBulkCap);
      const bool ok = (r.ok || r.cut) && r.bodyBytes > 0;
      RecordCpuPerGiB("cpu-" + key, *t, before, ok ? r.bodyBytes : 0);
      const double rate =
          ok ? static_cast<double>(r.bodyBytes) / 1e6 / Seconds(r.done - r.requested) : std::nan("");
      m_table.Add(key, t->name, rate);
      Record(key, *t, ok);
      if (r.cut) {
        m_table.Note(t->name + ", download " + PathName(path) + " run " + std::to_string(run) +
                     ": stopped after " + std::to_string(r.bodyBytes >> 20) +
                     " MiB at the time cap; the rate covers that part.");
      }
      Progress("[download " + std::string(PathName(path)) + "] run " + std::to_string(run) + " " +
               t->name + ": " + (ok ? FormatFigure(rate) + " MB/s" : "failed"));
    }
  }
}

void CLoadScenarios::RunUpload() {
  const std::string key = "upload-socks";
  for (int run = 1; run <= m_settings.runs; ++run) {
    for (const SProxyTarget* t : TargetsFor(EPath::Socks5, true)) {
      if (Skipping(key, *t)) {
        m_table.Add(key, t->name, std::nan(""));
        continue;
      }
      const EPath p = t->IsDirect() ? EPath::Direct : EPath::Socks5;
      const SProcessSample before = t->pid > 0 ? CProcessTree(t->pid).Sample() : SProcessSample();
      const auto now = Clock::now();
      double seconds = 0;
      uint64_t sent = 0;
      const bool ok = CProxyClient(*t, p, m_settings.httpDest)
                          .Upload(m_settings.bulkBytes, now + kBulkCap + kOpTimeout, now + kBulkCap,
                                  sent, seconds) &&
                      sent > 0 && seconds > 0;
      const double rate = ok ? static_cast<double>(sent) / 1e6 / seconds : std::nan("");
      RecordCpuPerGiB("cpu-" + key, *t, before, ok ? sent : 0);
      m_table.Add(key, t->name, rate);
      Record(key, *t, ok);
      if (ok && sent < m_settings.bulkBytes) {
        m_table.Note(t->name + ", upload run " + std::to_string(run) + ": stopped after " +
                     std::to_string(sent >> 20) + " MiB at the time cap; the rate covers that part.");
      }
      Progress("[upload SOCKS5] run " + std::to_string(run) + " " + t->name + ": " +
               (ok ? FormatFigure(rate) + " MB/s" : "failed"));
    }
  }
}

STxFigures CLoadScenarios::MeasureTransactions(const SProxyTarget& t, EPath path, int clients,
                                                bool untilClose) const {
  const auto length = std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(m_settings.txSeconds));
  const CTxDriver driver(t, t.IsDirect() ? EPath::Direct : path, m_settings.httpDest, m_settings.smallBytes,
                         untilClose);
  const CProcessTree tree(t.pid);
  const SProcessSample before = t.pid > 0 ? tree.Sample() : SProcessSample();
  const Clock::time_point start = Clock::now();
  const STxResult result = driver.Run(clients, length, kOpTimeout);
  const double elapsed = Seconds(Clock::now() - start);
  STxFigures f;
  f.errors = result.failures;
  const double done = static_cast<double>(result.latenciesMs.size());
  f.perSecond = done > 0 ? done / elapsed : std::nan("");
  f.p50Ms = Percentile(result.latenciesMs, 0.50);
  f.p99Ms = Percentile(result.latenciesMs, 0.99);
  f.cpuUsPerTx = std::nan("");
  f.kernelShare = std::nan("");
  if (t.pid > 0) ChargeCpu(before, tree.Sample(), done, 1e6, f.cpuUsPerTx, f.kernelShare);
  return f;
}

void CLoadScenarios::RecordCpuPerGiB(const std::string& key, const SProxyTarget& t,
                                     const SProcessSample& before, uint64_t bytes) {
  if (t.pid <= 0) return;
  double perGiB = std::nan("");
  double share = std::nan("");
  ChargeCpu(before, CProcessTree(t.pid).Sample(), static_cast<double>(bytes) / (1ull << 30), 1.0, perGiB, share);
  m_table.Add(key, t.name, perGiB);
  m_table.Add(key + "-sys", t.name, share);
}

void CLoadScenarios::RunTransactions(EPath path, const std::string& prefix, bool untilClose) {
  WarmUp(path);
  for (int clients : m_settings.concurrency) {
    const std::string key = prefix + "-" + std::to_string(clients);
    long totalErrors = 0;
    std::string failing;
    std::map<std::string, uint64_t> overflows;
    for (int run = 1; run <= m_settings.runs; ++run) {
      for (const SProxyTarget* t : TargetsFor(path, true)) {
        STxFigures f;
        f.perSecond = f.p50Ms = f.p99Ms = f.cpuUsPerTx = f.kernelShare = std::nan("");
        if (!Skipping(key, *t)) {
          const uint64_t overflowsBefore = CProcessTree::ListenOverflows();
          f = MeasureTransactions(*t, path, clients, untilClose);
          Record(key, *t, !std::isnan(f.perSecond));
          overflows[t->name] += CProcessTree::ListenOverflows() - overflowsBefore;
        }
        m_table.Add(key + "-rate", t->name, f.perSecond);
        m_table.Add(key + "-p50", t->name, f.p50Ms);
        m_table.Add(key + "-p99", t->name, f.p99Ms);
        if (t->pid > 0) {
          m_table.Add(key + "-cpu", t->name, f.cpuUsPerTx);
          m_table.Add(key + "-sys", t->name, f.kernelShare);
        }
        if (f.errors > 0 && failing.find(t->name) == std::string::npos) failing += " " + t->name;
        totalErrors += f.errors;
        Progress(std::string(untilClose ? "[read-until-close transactions " : "[transactions ") +
                 PathName(path) + " x" + std::to_string(clients) +
                 "] run " + std::to_string(run) + " " + t->name + ": " + FormatFigure(f.perSecond) +
                 " tx/s, p50 " + FormatFigure(f.p50Ms) + " ms, p99 " + FormatFigure(f.p99Ms) + " ms" +
                 (t->pid > 0 ? ", proxy CPU " + FormatFigure(f.cpuUsPerTx) + " us/tx" : "") +
                 (f.errors ? ", " + std::to_string(f.errors) + " failed" : ""));
        std::this_thread::sleep_for(kSettle);
      }
    }
    for (const auto& entry : overflows) {
      if (entry.second == 0) continue;
      m_table.Note(entry.first + ", " + PathName(path) + " transactions, c=" + std::to_string(clients) +
                   ": the listen queue overflowed " + std::to_string(entry.second) +
                   " times over all runs (each such client retries its SYN about 1 s later).");
    }
    if (totalErrors > 0) {
      m_table.Note(std::string(PathName(path)) + " transactions, c=" + std::to_string(clients) + ": " + std::to_string(totalErrors) + " failed over all runs (" +
                   failing.substr(1) + "); rates count completed ones only.");
    }
  }
}

bool CLoadScenarios::MeasureIdle(const SProxyTarget& t, double& cpuMs, double& wakeups,
                                 double& rssKiB, double& pssKiB) {
  const CProcessTree tree(t.pid);
  const SProcessSample& fresh = m_fresh[t.name];
  std::vector<CBenchSocket> tunnels;
  tunnels.reserve(static_cast<size_t>(m_settings.idleTunnels));
  int failures = 0;
  for (int i = 0; i < m_settings.idleTunnels && failures < 3; ++i) {
    CBenchSocket sock;
    const auto deadline = Clock::now() + kOpTimeout;
    if (sock.Connect(t.endpoint.addr, deadline) &&
        CProxyClient::Socks5Connect(sock, m_settings.httpDest, deadline)) {
      tunnels.push_back(std::move(sock));
    } else {
      ++failures;
    }
  }
  if (static_cast<int>(tunnels.size()) != m_settings.idleTunnels) {
    m_table.Note(t.name + ": only " + std::to_string(tunnels.size()) + " of " +
                 std::to_string(m_settings.idleTunnels) + " idle tunnels could be opened.");
    return false;
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  const SProcessSample held = tree.Sample();
  std::this_thread::sleep_for(std::chrono::duration<double>(m_settings.idleSeconds));
  const SProcessSample after = tree.Sample();
  int closed = 0;
  for (const CBenchSocket& s : tunnels) {
    pollfd p{s.Fd(), POLLIN, 0};
    if (::poll(&p, 1, 0) > 0) ++closed;
  }
  tunnels.clear();
  const double n = static_cast<double>(m_settings.idleTunnels);
  cpuMs = CProcessTree::TicksToMillis(after.cpuTicks - held.cpuTicks);
  wakeups = static_cast<double>(CProcessTree::WakeupsBetween(held, after)) / m_settings.idleSeconds;
  m_table.Add("idle-threads", t.name, held.threads);
  rssKiB = (static_cast<double>(held.rssKiB) - static_cast<double>(fresh.rssKiB)) / n;
  pssKiB = (static_cast<double>(held.pssKiB) - static_cast<double>(fresh.pssKiB)) / n;
  Progress("[idle] " + t.name + ": " + std::to_string(held.processes) + " processes, " +
           std::to_string(held.threads) + " threads while holding the tunnels");
  if (closed > 0) {
    m_table.Note(t.name + ": " + std::to_string(closed) + " idle tunnels were closed by the proxy.");
  }
  return true;
}

void CLoadScenarios::RunIdle() {
  for (int run = 1; run <= m_settings.runs; ++run) {
    for (const SProxyTarget* t : TargetsFor(EPath::Socks5, false)) {
      double cpu = std::nan(""), wake = std::nan(""), rss = std::nan(""), pss = std::nan("");
      const bool skip = Skipping("idle", *t);
      const bool ok = !skip && t->pid > 0 && MeasureIdle(*t, cpu, wake, rss, pss);
      if (!skip) Record("idle", *t, ok);
      if (!ok) m_table.Add("idle-threads", t->name, std::nan(""));
      m_table.Add("idle-cpu", t->name, cpu);
      m_table.Add("idle-wake", t->name, wake);
      m_table.Add("idle-rss", t->name, rss);
      m_table.Add("idle-pss", t->name, pss);
      Progress("[idle] run " + std::to_string(run) + " " + t->name + ": " +
               (ok ? "CPU " + FormatFigure(cpu) + " ms, " + FormatFigure(wake) + " wake-ups/s, RSS +" +
                         FormatFigure(rss) + " KiB/tunnel, PSS +" + FormatFigure(pss) + " KiB/tunnel"
                   : skip ? "skipped" : "failed"));
      // Let the proxy tear the tunnels down before the next one is measured.
      if (!skip) std::this_thread::sleep_for(std::chrono::seconds(1));
    }
  }
}

double CLoadScenarios::MeasureUdp(const SProxyTarget& t, long& lost) const {
  lost = 0;
  CBenchSocket control;
  sockaddr_in relay = m_settings.udpDest.addr;
  if (!t.IsDirect() &&
      !CProxyClient::Socks5UdpAssociate(control, t.endpoint, relay, Clock::now() + kOpTimeout)) {
    return std::nan("");
  }
  SUdpSocket udp;
  udp.fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (udp.fd < 0 || ::bind(udp.fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0 ||
      ::connect(udp.fd, reinterpret_cast<sockaddr*>(&relay), sizeof relay) != 0) {
    return std::nan("");
  }
  // SOCKS5 UDP header towards the echo: RSV RSV FRAG ATYP=1 addr port.
  unsigned char out[10 + 64] = {0, 0, 0, 1};
  std::memcpy(out + 4, &m_settings.udpDest.addr.sin_addr, 4);
  std::memcpy(out + 8, &m_settings.udpDest.addr.sin_port, 2);
  const size_t header = t.IsDirect() ? 0 : 10;
  unsigned char* payload = out + 10;
  std::memset(payload, 'p', 64);
  unsigned char in[2048];
  long ok = 0;
  const auto start = Clock::now();
  const auto end = start + std::chrono::duration_cast<Clock::duration>(
                               std::chrono::duration<double>(m_settings.udpSeconds));
  for (uint32_t seq = 1; seq < 100000000 && Clock::now() < end; ++seq) {
    std::memcpy(payload, &seq, sizeof seq);
    if (::send(udp.fd, out + 10 - header, header + 64, 0) < 0) return std::nan("");
    bool answered = false;
    for (int reads = 0; reads < 100 && !answered; ++reads) {
      pollfd p{udp.fd, POLLIN, 0};
      if (::poll(&p, 1, 200) <= 0) break;
      const ssize_t n = ::recv(udp.fd, in, sizeof in, 0);
      if (n < 0) return std::nan("");
      // A late answer to an earlier datagram is skipped.
      answered = static_cast<size_t>(n) >= header + 64 && std::memcmp(in + header, &seq, sizeof seq) == 0;
    }
    if (answered) {
      ++ok;
    } else {
      ++lost;
    }
  }
  return static_cast<double>(ok) / Seconds(Clock::now() - start);
}

void CLoadScenarios::RunUdp() {
  std::vector<const SProxyTarget*> targets;
  for (const SProxyTarget& t : m_targets) {
    if (t.SupportsUdp()) targets.push_back(&t);
  }
  for (int run = 1; run <= m_settings.runs; ++run) {
    for (const SProxyTarget* t : targets) {
      long lost = 0;
      const double rate = Skipping("udp", *t) ? std::nan("") : MeasureUdp(*t, lost);
      Record("udp", *t, !std::isnan(rate));
      m_table.Add("udp", t->name, rate);
      Progress("[udp] run " + std::to_string(run) + " " + t->name + ": " +
               (std::isnan(rate) ? std::string("failed") : FormatFigure(rate) + " round trips/s") +
               (lost ? ", " + std::to_string(lost) + " lost" : ""));
      if (lost > 0) {
        m_table.Note(t->name + ": " + std::to_string(lost) + " UDP datagrams lost in run " +
                     std::to_string(run) + " (200 ms wait each).");
      }
    }
  }
}

void CLoadScenarios::RunTtfb(EPath path, const std::string& prefix) {
  WarmUp(path);
  for (int run = 1; run <= m_settings.runs; ++run) {
    for (const SProxyTarget* t : TargetsFor(path, true)) {
      const CProxyClient client(*t, t->IsDirect() ? EPath::Direct : path, m_settings.httpDest);
      std::vector<double> samples;
      int failed = 0;
      for (int i = 0; i < m_settings.ttfbSamples && failed < 3 && !Skipping(prefix, *t); ++i) {
        const SFetchResult r = client.Fetch(m_settings.smallBytes, Clock::now() + kOpTimeout);
        if (r.ok) samples.push_back(Seconds(r.firstByte - r.start) * 1e6);
        failed += r.ok ? 0 : 1;
      }
      // Percentiles over the samples that worked, unless failures make them meaningless.
      const bool ok = failed < 3 && !samples.empty();
      Record(prefix, *t, ok);
      if (ok && failed > 0) {
        m_table.Note(t->name + ": " + std::to_string(failed) + " failed requests in the " +
                     PathName(path) + " time-to-first-byte run " + std::to_string(run) + ".");
      }
      const double p50 = ok ? Percentile(samples, 0.50) : std::nan("");
      const double p99 = ok ? Percentile(samples, 0.99) : std::nan("");
      m_table.Add(prefix + "-p50", t->name, p50);
      m_table.Add(prefix + "-p99", t->name, p99);
      Progress("[ttfb " + std::string(PathName(path)) + "] run " + std::to_string(run) + " " +
               t->name + ": p50 " + FormatFigure(p50) + " us, p99 " + FormatFigure(p99) + " us");
    }
  }
}

void CLoadScenarios::RunBurst(EPath path, const std::string& prefix) {
  WarmUp(path);
  for (int run = 1; run <= m_settings.runs; ++run) {
    for (const SProxyTarget* t : TargetsFor(path, true)) {
      if (Skipping(prefix, *t)) {
        m_table.Add(prefix + "-max", t->name, std::nan(""));
        m_table.Add(prefix + "-late", t->name, std::nan(""));
        continue;
      }
      const CTxDriver driver(*t, t->IsDirect() ? EPath::Direct : path, m_settings.httpDest, m_settings.smallBytes,
                             false);
      // No time to go on for: each client runs its one transaction. 10 s leaves room for a
      // SYN retried twice (1 s, then 3 s) to count as late rather than lost.
      const STxResult r = driver.Run(m_settings.burstClients, Clock::duration::zero(), std::chrono::seconds(10));
      const bool ok = r.failures == 0 && !r.latenciesMs.empty();
      double slowest = 0;
      long late = 0;
      for (const double ms : r.latenciesMs) {
        slowest = std::max(slowest, ms);
        late += ms > 900.0 ? 1 : 0;
      }
      m_table.Add(prefix + "-max", t->name, ok ? slowest : std::nan(""));
      m_table.Add(prefix + "-late", t->name, ok ? static_cast<double>(late) : std::nan(""));
      Record(prefix, *t, ok);
      if (r.failures > 0) {
        m_table.Note(t->name + ", burst " + PathName(path) + " run " + std::to_string(run) + ": " +
                     std::to_string(r.failures) + " of " + std::to_string(m_settings.burstClients) +
                     " clients failed.");
      }
      Progress("[burst " + std::string(PathName(path)) + "] run " + std::to_string(run) + " " + t->name + ": " +
               (ok ? "slowest " + FormatFigure(slowest) + " ms, " + std::to_string(late) + " late" : "failed"));
    }
  }
}

bool CLoadScenarios::MeasureBystander(const SProxyTarget& t, int streams, double& p50Ms, double& p99Ms,
                                      double& bulkMBps) {
  const EPath path = t.IsDirect() ? EPath::Direct : EPath::Socks5;
  const SEndpoint& side = m_settings.sideDest.port != 0 ? m_settings.sideDest : m_settings.httpDest;
  CBulkLoad bulk;
  if (streams > 0) {
    if (!bulk.Start(CProxyClient(t, path, m_settings.httpDest), streams, kEndless, Clock::now() + kOpTimeout)) {
      return false;
    }
    // Until every download moves bytes, then a little longer for the windows to open.
    for (int i = 0; i < 50 && bulk.Bytes() < static_cast<uint64_t>(streams) << 20; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  const CProxyClient bystander(t, path, side);
  std::vector<double> samples;
  const auto start = Clock::now();
  // Samples stop at the cap even if fewer were taken: a proxy that starves the bystander must not
  // stretch the run.
  const auto cap = start + std::chrono::duration_cast<Clock::duration>(
                               std::chrono::duration<double>(m_settings.bystanderSeconds));
  const uint64_t bytesBefore = bulk.Bytes();
  int failed = 0;
  for (int i = 0; i < m_settings.bystanderSamples && failed < 3 && Clock::now() < cap; ++i) {
    const SFetchResult r = bystander.Fetch(m_settings.smallBytes, Clock::now() + kOpTimeout);
    if (r.ok) samples.push_back(Seconds(r.done - r.start) * 1e3);
    failed += r.ok ? 0 : 1;
  }
  const double elapsed = Seconds(Clock::now() - start);
  bulkMBps = static_cast<double>(bulk.Bytes() - bytesBefore) / 1e6 / elapsed;
  if (bulk.Ended() > 0) {
    m_table.Note(t.name + ": " + std::to_string(bulk.Ended()) + " of " + std::to_string(streams) +
                 " bulk downloads ended early in the bystander test.");
  }
  if (static_cast<int>(samples.size()) < m_settings.bystanderSamples) {
    m_table.Note(t.name + ", bystander beside " + std::to_string(streams) + " downloads: " +
                 std::to_string(samples.size()) + " of " + std::to_string(m_settings.bystanderSamples) +
                 " samples in the time allowed (" + std::to_string(failed) + " failed).");
  }
  if (failed >= 3 || samples.empty()) return false;
  p50Ms = Percentile(samples, 0.50);
  p99Ms = Percentile(samples, 0.99);
  return true;
}

void CLoadScenarios::RunBystander() {
  WarmUp(EPath::Socks5);
  std::vector<int> levels{0};
  levels.insert(levels.end(), m_settings.bulkStreams.begin(), m_settings.bulkStreams.end());
  for (int run = 1; run <= m_settings.runs; ++run) {
    for (const SProxyTarget* t : TargetsFor(EPath::Socks5, true)) {
      for (const int streams : levels) {
        const std::string key = "bys-" + std::to_string(streams);
        double p50 = std::nan(""), p99 = std::nan(""), rate = std::nan("");
        const bool ok = !Skipping(key, *t) && MeasureBystander(*t, streams, p50, p99, rate);
        Record(key, *t, ok);
        m_table.Add(key + "-p50", t->name, ok ? p50 : std::nan(""));
        m_table.Add(key + "-p99", t->name, ok ? p99 : std::nan(""));
        m_table.Add(key + "-rate", t->name, ok ? rate : std::nan(""));
        Progress("[bystander] run " + std::to_string(run) + " " + t->name + ", " + std::to_string(streams) +
                 " downloads: " + (ok ? "p50 " + FormatFigure(p50) + " ms, p99 " + FormatFigure(p99) + " ms, bulk " +
                                            FormatFigure(rate) + " MB/s"
                                      : std::string("failed")));
        std::this_thread::sleep_for(kSettle);
      }
    }
  }
}

}  // namespace ZRT::Bench
