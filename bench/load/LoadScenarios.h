#pragma once
// The side-by-side measurements. Every measure is taken runs times, the targets interleaved within
// each run (direct, A, B, C, direct, A, B, C, ...), and recorded per run in the result table.
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "ProcessTree.h"
#include "ProxyClient.h"
#include "ResultTable.h"

namespace ZRT::Bench {

struct SBenchSettings {
  SEndpoint httpDest;  // serves GET /bytes/N, POST /upload and POST /echo
  SEndpoint udpDest;   // UDP echo
  SEndpoint sideDest;  // a second destination process for the bystander (else httpDest)
  int runs = 5;
  uint64_t bulkBytes = 1ull << 30;
  uint64_t smallBytes = 100;
  double txSeconds = 1.0;
  std::vector<int> concurrency{1, 16, 64};
  int idleTunnels = 1000;
  double idleSeconds = 10.0;
  double udpSeconds = 1.0;
  int ttfbSamples = 200;
  int burstClients = 2000;
  int bystanderSamples = 200;
  double bystanderSeconds = 8.0;  // at most this long for one figure's samples
  std::vector<int> bulkStreams{1, 4, 8, 32};  // the last one also gets p99 and throughput rows
  int usedTunnels = 1000;
  int stalledDownloads = 32;
  int heldHeaders = 2000;
  size_t heldHeaderBytes = 60 * 1024;
  size_t heldHeaderSmallBytes = 2 * 1024;  // measured first: what an ordinary unfinished header costs
  std::set<std::string> tests{"bulk", "upload", "tx",        "txclose", "idle",    "used",  "udp",
                              "ttfb", "burst",  "bystander", "stall",   "headers", "rssend"};
};

// One measurement of closed-loop transactions.
struct STxFigures {
  double perSecond = 0;
  double p50Ms = 0;
  double p99Ms = 0;
  long errors = 0;
  double cpuUsPerTx = 0;   // the proxy's CPU per completed transaction; NaN for the direct path
  double kernelShare = 0;  // stime / (utime + stime) of that CPU, in percent
};

class CLoadScenarios {
 public:
  CLoadScenarios(const SBenchSettings& settings, std::vector<SProxyTarget> proxies,
                 const std::string& ours);

  void Run();
  const CResultTable& Table() const { return m_table; }

 private:
  void DeclareRows();
  void DeclareLaterRows();
  void RunBulk(EPath path, const std::string& key);
  void RunUpload();
  // untilClose: the client reads each answer until the connection closes instead of closing first.
  void RunTransactions(EPath path, const std::string& prefix, bool untilClose = false);
  void RunIdle();
  void RunUdp();
  void RunTtfb(EPath path, const std::string& prefix);
  // Every client of a burst connects at the same moment and runs one transaction: a listen
  // queue that overflows shows as connects retried after 1 s or 3 s.
  void RunBurst(EPath path, const std::string& prefix);

  // A bystander's small SOCKS5 transactions timed while `streams` bulk downloads run (0: none).
  void RunBystander();
  bool MeasureBystander(const SProxyTarget& t, int streams, double& p50Ms, double& p99Ms, double& bulkMBps);
  // Tunnels that carried 1 MB each way, then idle: memory and descriptors per tunnel.
  void RunUsedTunnels(EPath path, const std::string& prefix);
  bool MeasureUsedTunnels(const SProxyTarget& t, EPath path, double& rssKiB, double& fdsPerTunnel);
  // Downloads whose clients never read while the destination keeps sending.
  void RunStalled(EPath path, const std::string& key);
  double MeasureStalled(const SProxyTarget& t, EPath path);
  // Clients that each sent most of an HTTP request header and never end it.
  void RunHeldHeaders();
  bool MeasureHeldHeaders(const SProxyTarget& t, size_t bytes, double& rssKiB, double& tcpKiB);
  // The proxies' RSS once every client has gone, in MiB and over the freshly started process
  // (httpOnly: of the proxies that serve HTTP GET).
  void RecordRssAtEnd(const std::string& key, bool httpOnly);

  STxFigures MeasureTransactions(const SProxyTarget& t, EPath path, int clients, bool untilClose) const;
  // Records the proxy's CPU between two samples per GiB relayed, and its kernel share.
  void RecordCpuPerGiB(const std::string& key, const SProxyTarget& t, const SProcessSample& before,
                       uint64_t bytes);
  bool MeasureIdle(const SProxyTarget& t, double& cpuMs, double& wakeups, double& rssKiB,
                   double& pssKiB);
  double MeasureUdp(const SProxyTarget& t, long& lost) const;
  void WarmUp(EPath path) const;
  std::vector<const SProxyTarget*> TargetsFor(EPath path, bool withDirect) const;
  void CheckAlive(const char* after);
  // A target that failed twice in one group of runs is not tried again in that group, so a broken
  // proxy cannot stretch the benchmark by its time-outs.
  bool Skipping(const std::string& group, const SProxyTarget& t) const;
  void Record(const std::string& group, const SProxyTarget& t, bool ok);
  void Progress(const std::string& text) const;

  SBenchSettings m_settings;
  std::vector<SProxyTarget> m_targets;  // direct first
  std::string m_ours;
  CResultTable m_table;
  std::set<std::string> m_reportedDead;
  std::map<std::string, int> m_failures;  // group + target -> failed runs
  std::map<std::string, SProcessSample> m_fresh;  // each proxy as started
};

std::string SizeText(uint64_t bytes);

}  // namespace ZRT::Bench
