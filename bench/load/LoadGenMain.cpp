// zrt-loadgen: load generator of the side-by-side benchmark.
//   zrt-loadgen freeport                 print a free TCP port on 127.0.0.1
//   zrt-loadgen wait HOST:PORT SECONDS   wait until HOST:PORT accepts connections
//   zrt-loadgen bench --http-dest A:P --udp-dest A:P [--proxy NAME:CAPS:HOST:PORT:PID]...
//                     [--ours NAME] [--runs N] [--bulk-bytes N] [--small-bytes N]
//                     [--tx-seconds S] [--concurrency 1,16,64] [--idle-tunnels N]
//                     [--idle-seconds S] [--udp-seconds S] [--ttfb-samples N] [--burst-clients N]
//                     [--side-dest A:P] [--bystander-samples N] [--bystander-seconds S]
//                     [--bulk-streams 1,4,8,32]
//                     [--used-tunnels N] [--stalled-downloads N] [--held-headers N]
//                     [--tests bulk,upload,tx,txclose,idle,used,udp,ttfb,burst,bystander,stall,headers,
//                              rssend]
//                     [--strict 1]
//                     [--format table|figures]
//   zrt-loadgen table --columns A,B,... [--ours NAME] < FIGURES
//                     FIGURES: lines as bench --format figures prints them (see
//                     CResultTable::PrintFigures; VALUE nan for a failed run), from any number of
//                     runs; prints the same Markdown table as bench, rows in the order first seen.
// CAPS letters: s SOCKS5 CONNECT, u SOCKS5 UDP ASSOCIATE, h HTTP GET, c HTTP CONNECT.
// The bench command prints the Markdown table on stdout and its progress on stderr. With --strict 1
// it exits with 3 when a run of the direct path or of --ours failed (for smoke tests).
#include <arpa/inet.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>
#include <thread>

#include "LoadScenarios.h"

namespace {

using namespace ZRT::Bench;

int Usage() {
  std::cerr << "usage: zrt-loadgen freeport | wait HOST:PORT SECONDS | bench --http-dest A:P "
               "--udp-dest A:P [--proxy NAME:CAPS:HOST:PORT:PID]... [options]\n";
  return 2;
}

int FreePort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
    return 1;
  }
  std::cout << ntohs(a.sin_port) << std::endl;
  ::close(fd);
  return 0;
}

int WaitFor(const std::string& where, double seconds) {
  SEndpoint ep;
  if (!SEndpoint::Parse(where, ep)) return Usage();
  const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                      std::chrono::duration<double>(seconds));
  while (Clock::now() < end) {
    CBenchSocket s;
    if (s.Connect(ep.addr, Clock::now() + std::chrono::milliseconds(500))) return 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  std::cerr << "zrt-loadgen: nothing accepts on " << where << '\n';
  return 1;
}

std::vector<std::string> SplitCommas(const std::string& text) {
  std::vector<std::string> out;
  std::stringstream ss(text);
  std::string item;
  while (std::getline(ss, item, ',')) {
    if (!item.empty()) out.push_back(item);
  }
  return out;
}

void RaiseDescriptorLimit() {
  rlimit lim{};
  if (::getrlimit(RLIMIT_NOFILE, &lim) == 0 && lim.rlim_cur < lim.rlim_max) {
    lim.rlim_cur = lim.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &lim);
  }
}

bool ParseOption(SBenchSettings& s, const std::string& name, const std::string& value,
                 std::vector<SProxyTarget>& proxies, std::string& ours, bool& strict, bool& figures) {
  if (name == "--http-dest") return SEndpoint::Parse(value, s.httpDest);
  if (name == "--udp-dest") return SEndpoint::Parse(value, s.udpDest);
  if (name == "--side-dest") return SEndpoint::Parse(value, s.sideDest);
  if (name == "--strict") {
    strict = value == "1";
    return true;
  }
  if (name == "--format") {
    figures = value == "figures";
    return figures || value == "table";
  }
  if (name == "--ours") {
    ours = value;
    return true;
  }
  if (name == "--proxy") {
    SProxyTarget t;
    if (!SProxyTarget::Parse(value, t)) return false;
    proxies.push_back(t);
    return true;
  }
  if (name == "--runs") s.runs = std::atoi(value.c_str());
  else if (name == "--bulk-bytes") s.bulkBytes = std::strtoull(value.c_str(), nullptr, 10);
  else if (name == "--small-bytes") s.smallBytes = std::strtoull(value.c_str(), nullptr, 10);
  else if (name == "--tx-seconds") s.txSeconds = std::atof(value.c_str());
  else if (name == "--idle-tunnels") s.idleTunnels = std::atoi(value.c_str());
  else if (name == "--idle-seconds") s.idleSeconds = std::atof(value.c_str());
  else if (name == "--udp-seconds") s.udpSeconds = std::atof(value.c_str());
  else if (name == "--ttfb-samples") s.ttfbSamples = std::atoi(value.c_str());
  else if (name == "--burst-clients") s.burstClients = std::atoi(value.c_str());
  else if (name == "--bystander-samples") s.bystanderSamples = std::atoi(value.c_str());
  else if (name == "--bystander-seconds") s.bystanderSeconds = std::atof(value.c_str());
  else if (name == "--used-tunnels") s.usedTunnels = std::atoi(value.c_str());
  else if (name == "--stalled-downloads") s.stalledDownloads = std::atoi(value.c_str());
  else if (name == "--held-headers") s.heldHeaders = std::atoi(value.c_str());
  else if (name == "--bulk-streams") {
    s.bulkStreams.clear();
    for (const std::string& c : SplitCommas(value)) s.bulkStreams.push_back(std::atoi(c.c_str()));
  }
  else if (name == "--concurrency") {
    s.concurrency.clear();
    for (const std::string& c : SplitCommas(value)) s.concurrency.push_back(std::atoi(c.c_str()));
  } else if (name == "--tests") {
    const std::vector<std::string> tests = SplitCommas(value);
    s.tests = std::set<std::string>(tests.begin(), tests.end());
  } else {
    return false;
  }
  return true;
}

int Bench(int argc, char** argv) {
  SBenchSettings settings;
  std::vector<SProxyTarget> proxies;
  std::string ours = "zrt-proxy";
  bool strict = false;
  bool figures = false;
  for (int i = 2; i + 1 < argc; i += 2) {
    if (!ParseOption(settings, argv[i], argv[i + 1], proxies, ours, strict, figures)) {
      std::cerr << "zrt-loadgen: bad option " << argv[i] << ' ' << argv[i + 1] << '\n';
      return Usage();
    }
  }
  if (argc % 2 != 0 || settings.httpDest.port == 0 || settings.udpDest.port == 0 ||
      settings.runs < 1 || settings.runs > 100 || settings.idleTunnels < 1 || settings.usedTunnels < 1 ||
      settings.stalledDownloads < 1 || settings.heldHeaders < 1 || settings.bystanderSamples < 1 ||
      settings.bulkStreams.empty()) {
    return Usage();
  }
  for (int c : settings.concurrency) {
    if (c < 1 || c > 1024) return Usage();
  }
  for (int c : settings.bulkStreams) {
    if (c < 1 || c > 256) return Usage();
  }
  RaiseDescriptorLimit();
  CLoadScenarios scenarios(settings, proxies, ours);
  scenarios.Run();
  const CResultTable& table = scenarios.Table();
  if (figures) {
    table.PrintFigures(std::cout);
  } else {
    table.Print(std::cout);
  }
  return strict && (table.HasFailure("direct") || table.HasFailure(ours)) ? 3 : 0;
}

std::vector<std::string> SplitTabs(const std::string& line) {
  std::vector<std::string> out;
  size_t from = 0;
  for (int i = 0; i < 8; ++i) {
    const size_t tab = line.find('\t', from);
    out.push_back(line.substr(from, tab == std::string::npos ? std::string::npos : tab - from));
    if (tab == std::string::npos) break;
    from = tab + 1;
  }
  return out;
}

void DeclareRow(CResultTable& table, const std::string& key, const std::string& better, const std::string& label) {
  if (better == "-") {
    table.AddInfoRow(key, label);
  } else {
    table.AddRow(key, label, better == "higher");
  }
}

// Medians and ratios for figures measured outside the load generator (by run.sh's tools).
int Table(int argc, char** argv) {
  std::vector<std::string> columns;
  std::string ours = "zrt-proxy";
  for (int i = 2; i + 1 < argc; i += 2) {
    const std::string name = argv[i];
    if (name == "--columns") {
      columns = SplitCommas(argv[i + 1]);
    } else if (name == "--ours") {
      ours = argv[i + 1];
    } else {
      return Usage();
    }
  }
  if (argc % 2 != 0 || columns.empty()) return Usage();
  CResultTable table(columns, ours);
  std::set<std::string> declared;
  std::string line;
  for (int n = 0; n < 1000000 && std::getline(std::cin, line); ++n) {
    const std::vector<std::string> f = SplitTabs(line);
    if (f.size() == 2 && f[0] == "note") {
      table.Note(f[1]);
      continue;
    }
    if (f.size() == 4 && f[0] == "row") {
      if (declared.insert(f[1]).second) DeclareRow(table, f[1], f[2], f[3]);
      continue;
    }
    if (f.size() != 5) continue;
    if (declared.insert(f[0]).second) DeclareRow(table, f[0], f[1], f[2]);
    table.Add(f[0], f[3], f[4] == "nan" ? std::nan("") : std::atof(f[4].c_str()));
  }
  table.Print(std::cout);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  if (argc < 2) return Usage();
  const std::string command = argv[1];
  if (command == "freeport" && argc == 2) return FreePort();
  if (command == "wait" && argc == 4) return WaitFor(argv[2], std::atof(argv[3]));
  if (command == "bench") return Bench(argc, argv);
  if (command == "table") return Table(argc, argv);
  return Usage();
}
