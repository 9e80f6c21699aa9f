#pragma once
// Client side of the proxy protocols under test: SOCKS5 CONNECT, HTTP proxy GET with an absolute
// URI and HTTP CONNECT tunnels, plus the direct path that serves as the physical limit.
#include <cstdint>
#include <string>

#include "BenchSocket.h"

namespace ZRT::Bench {

enum class EPath { Direct, Socks5, HttpGet, HttpConnect };

const char* PathName(EPath path);

// One proxy under test (or the direct path, which has no endpoint).
struct SProxyTarget {
  std::string name;
  std::string caps;  // s = SOCKS5 CONNECT, u = UDP ASSOCIATE, h = HTTP GET, c = HTTP CONNECT
  SEndpoint endpoint;
  int pid = 0;

  bool IsDirect() const { return name == "direct"; }
  bool Supports(EPath path) const;
  bool SupportsUdp() const { return IsDirect() || caps.find('u') != std::string::npos; }
  // "name:caps:host:port:pid"
  static bool Parse(const std::string& text, SProxyTarget& out);
  static SProxyTarget Direct();
};

struct SFetchResult {
  bool ok = false;
  bool cut = false;  // stopped at the time cap: bodyBytes and done cover the part received
  uint64_t bodyBytes = 0;
  Clock::time_point start;      // before connect
  Clock::time_point requested;  // request sent (handshakes done)
  Clock::time_point firstByte;  // first response byte
  Clock::time_point done;       // last body byte
};

class CProxyClient {
 public:
  CProxyClient(const SProxyTarget& target, EPath path, const SEndpoint& dest)
      : m_target(target), m_path(path), m_dest(dest) {}

  // Connects and runs the proxy handshake; afterwards the socket is a byte stream to the
  // destination (for HttpGet: a connection to the proxy ready for one request).
  bool Open(CBenchSocket& sock, Clock::time_point deadline) const;
  // GET /bytes/N through the path; reads the whole body, discarding it. At cap the transfer stops
  // and the result is marked cut; deadline bounds every wait. With untilClose the client then
  // reads on until the connection closes (as an HTTP/1.0 client does), and done is that moment.
  SFetchResult Fetch(uint64_t bytes, Clock::time_point deadline,
                     Clock::time_point cap = Clock::time_point::max(), bool untilClose = false) const;
  // POST of N bytes to the sink: sent counts the body bytes written and seconds runs from the first
  // of them to the sink's answer. At cap sending stops, and seconds covers what was sent.
  bool Upload(uint64_t bytes, Clock::time_point deadline, Clock::time_point cap, uint64_t& sent,
              double& seconds) const;

  // Opens the path and sends GET /bytes/N without reading anything back.
  bool StartDownload(CBenchSocket& sock, uint64_t bytes, Clock::time_point deadline) const;
  // Opens a tunnel (SOCKS5 or HTTP CONNECT) and sends N bytes to the destination's echo, which
  // answers with N bytes and then leaves the connection open and idle.
  bool Exchange(CBenchSocket& sock, uint64_t bytes, Clock::time_point deadline) const;

  static bool Socks5Connect(CBenchSocket& sock, const SEndpoint& dest, Clock::time_point deadline);
  // UDP ASSOCIATE: on success relay holds the address to send datagrams to.
  static bool Socks5UdpAssociate(CBenchSocket& sock, const SEndpoint& proxy, sockaddr_in& relay,
                                 Clock::time_point deadline);

 private:
  bool Socks5Greeting(CBenchSocket& sock, Clock::time_point deadline) const;
  bool HttpConnect(CBenchSocket& sock, Clock::time_point deadline) const;
  std::string RequestLine(const std::string& method, const std::string& path) const;

  const SProxyTarget& m_target;
  EPath m_path;
  SEndpoint m_dest;
};

// Parses the status code and Content-Length of a response header block; -1 where missing.
bool ParseResponseHead(const std::string& head, int& status, int64_t& contentLength);

}  // namespace ZRT::Bench
