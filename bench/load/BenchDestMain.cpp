// zrt-bench-dest: the loopback destinations of the side-by-side benchmark.
//   zrt-bench-dest [--http ADDR:PORT] [--udp ADDR:PORT] [--max-seconds S]
// Port 0 picks a free port. Prints "http ADDR:PORT", "udp ADDR:PORT" and then "ready", and serves
// until SIGTERM/SIGINT or --max-seconds (default 3600) have passed.
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "DestServer.h"
#include "UdpEcho.h"

namespace {

// Lock-free, so the signal handler may set it; both server threads read it.
std::atomic<bool> g_stop{false};

void OnSignal(int) { g_stop = true; }

int Usage() {
  std::fprintf(stderr, "usage: zrt-bench-dest [--http ADDR:PORT] [--udp ADDR:PORT] [--max-seconds S]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace ZRT::Bench;
  std::string http = "127.0.0.2:0";
  std::string udp = "127.0.0.2:0";
  double maxSeconds = 3600;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--http") == 0) {
      http = argv[i + 1];
    } else if (std::strcmp(argv[i], "--udp") == 0) {
      udp = argv[i + 1];
    } else if (std::strcmp(argv[i], "--max-seconds") == 0) {
      maxSeconds = std::atof(argv[i + 1]);
    } else {
      return Usage();
    }
  }
  if (argc % 2 == 0) return Usage();
  // Port 0 would make Parse fail, so parse with a placeholder port and clear it.
  SEndpoint httpAt, udpAt;
  const auto parse = [](const std::string& text, SEndpoint& out) {
    const bool any = text.size() > 2 && text.compare(text.size() - 2, 2, ":0") == 0;
    if (!SEndpoint::Parse(any ? text.substr(0, text.size() - 1) + "1" : text, out)) return false;
    if (any) {
      out.port = 0;
      out.addr.sin_port = 0;
    }
    return true;
  };
  if (!parse(http, httpAt) || !parse(udp, udpAt)) return Usage();
  std::signal(SIGTERM, OnSignal);
  std::signal(SIGINT, OnSignal);
  std::signal(SIGPIPE, SIG_IGN);
  CDestServer server;
  CUdpEcho echo;
  if (!server.Listen(httpAt) || !echo.Bind(udpAt)) {
    std::perror("zrt-bench-dest: listen");
    return 1;
  }
  std::printf("http %s:%u\nudp %s:%u\nready\n", httpAt.host.c_str(), server.Port(), udpAt.host.c_str(),
              echo.Port());
  std::fflush(stdout);
  echo.Start(g_stop);
  server.Serve(g_stop, maxSeconds);
  g_stop = true;
  return 0;
}
