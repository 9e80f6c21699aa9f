#include "ProxyClient.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <vector>

namespace ZRT::Bench {

namespace {

constexpr size_t kIoChunk = 256 * 1024;
// Connect plus proxy handshake: a proxy that takes longer is counted as failing.
constexpr auto kHandshakeTimeout = std::chrono::seconds(5);

char* IoBuffer() {
  thread_local std::vector<char> buffer(kIoChunk, 'u');
  return buffer.data();
}

bool ReadSocksReply(CBenchSocket& sock, sockaddr_in* bound, Clock::time_point deadline) {
  unsigned char head[4];
  if (!sock.RecvExact(head, sizeof head, deadline)) return false;
  if (head[0] != 5 || head[1] != 0) return false;
  unsigned char rest[262];
  size_t restLen = 0;
  if (head[3] == 1) {
    restLen = 6;
  } else if (head[3] == 4) {
    restLen = 18;
  } else if (head[3] == 3) {
    unsigned char nameLen = 0;
    if (!sock.RecvExact(&nameLen, 1, deadline)) return false;
    restLen = static_cast<size_t>(nameLen) + 2;
  } else {
    return false;
  }
  if (!sock.RecvExact(rest, restLen, deadline)) return false;
  if (bound == nullptr) return true;
  if (head[3] != 1) return false;  // the relay must be reachable over IPv4 loopback
  *bound = {};
  bound->sin_family = AF_INET;
  std::memcpy(&bound->sin_addr, rest, 4);
  std::memcpy(&bound->sin_port, rest + 4, 2);
  return true;
}

}  // namespace

const char* PathName(EPath path) {
  switch (path) {
    case EPath::Direct: return "direct";
    case EPath::Socks5: return "SOCKS5";
    case EPath::HttpGet: return "HTTP GET";
    case EPath::HttpConnect: return "HTTP CONNECT";
  }
  return "?";
}

bool SProxyTarget::Supports(EPath path) const {
  if (IsDirect()) return true;
  switch (path) {
    case EPath::Direct: return false;
    case EPath::Socks5: return caps.find('s') != std::string::npos;
    case EPath::HttpGet: return caps.find('h') != std::string::npos;
    case EPath::HttpConnect: return caps.find('c') != std::string::npos;
  }
  return false;
}

bool SProxyTarget::Parse(const std::string& text, SProxyTarget& out) {
  std::vector<std::string> parts;
  size_t from = 0;
  for (int i = 0; i < 8; ++i) {
    const size_t colon = text.find(':', from);
    parts.push_back(text.substr(from, colon == std::string::npos ? std::string::npos : colon - from));
    if (colon == std::string::npos) break;
    from = colon + 1;
  }
  if (parts.size() != 5 || parts[0].empty() || parts[0] == "direct") return false;
  out.name = parts[0];
  out.caps = parts[1];
  out.pid = std::atoi(parts[4].c_str());
  return SEndpoint::Parse(parts[2] + ":" + parts[3], out.endpoint);
}

SProxyTarget SProxyTarget::Direct() {
  SProxyTarget direct;
  direct.name = "direct";
  return direct;
}

bool ParseResponseHead(const std::string& head, int& status, int64_t& contentLength) {
  status = -1;
  contentLength = -1;
  const size_t sp = head.find(' ');
  if (head.compare(0, 5, "HTTP/") != 0 || sp == std::string::npos) return false;
  status = std::atoi(head.c_str() + sp + 1);
  size_t pos = 0;
  for (int line = 0; line < 200; ++line) {
    pos = head.find("\r\n", pos);
    if (pos == std::string::npos) break;
    pos += 2;
    static const char kName[] = "content-length:";
    if (strncasecmp(head.c_str() + pos, kName, sizeof kName - 1) == 0) {
      contentLength = std::atoll(head.c_str() + pos + sizeof kName - 1);
    }
  }
  return status > 0;
}

bool CProxyClient::Socks5Connect(CBenchSocket& sock, const SEndpoint& dest,
                                 Clock::time_point deadline) {
  const unsigned char greeting[3] = {5, 1, 0};
  unsigned char choice[2];
  if (!sock.SendAll(greeting, sizeof greeting, deadline)) return false;
  if (!sock.RecvExact(choice, sizeof choice, deadline) || choice[0] != 5 || choice[1] != 0) {
    return false;
  }
  unsigned char request[10] = {5, 1, 0, 1};
  std::memcpy(request + 4, &dest.addr.sin_addr, 4);
  std::memcpy(request + 8, &dest.addr.sin_port, 2);
  if (!sock.SendAll(request, sizeof request, deadline)) return false;
  return ReadSocksReply(sock, nullptr, deadline);
}

bool CProxyClient::Socks5UdpAssociate(CBenchSocket& sock, const SEndpoint& proxy,
                                      sockaddr_in& relay, Clock::time_point deadline) {
  if (!sock.Connect(proxy.addr, deadline)) return false;
  const unsigned char greeting[3] = {5, 1, 0};
  unsigned char choice[2];
  if (!sock.SendAll(greeting, sizeof greeting, deadline)) return false;
  if (!sock.RecvExact(choice, sizeof choice, deadline) || choice[1] != 0) return false;
  const unsigned char request[10] = {5, 3, 0, 1, 0, 0, 0, 0, 0, 0};
  if (!sock.SendAll(request, sizeof request, deadline)) return false;
  if (!ReadSocksReply(sock, &relay, deadline)) return false;
  // An unspecified relay address means "the address you reached me on".
  if (relay.sin_addr.s_addr == htonl(INADDR_ANY)) relay.sin_addr = proxy.addr.sin_addr;
  return relay.sin_port != 0;
}

bool CProxyClient::HttpConnect(CBenchSocket& sock, Clock::time_point deadline) const {
  const std::string hostPort = m_dest.ToString();
  if (!sock.SendAll("CONNECT " + hostPort + " HTTP/1.1\r\nHost: " + hostPort + "\r\n\r\n",
                    deadline)) {
    return false;
  }
  std::string head;
  size_t headLen = 0;
  if (!sock.RecvHeaderBlock(head, headLen, deadline)) return false;
  int status = 0;
  int64_t length = 0;
  // Bytes behind the 200 would belong to the tunnel; none are expected before we send.
  return ParseResponseHead(head, status, length) && status == 200 && head.size() == headLen;
}

bool CProxyClient::Open(CBenchSocket& sock, Clock::time_point deadline) const {
  const sockaddr_in& first = m_target.IsDirect() ? m_dest.addr : m_target.endpoint.addr;
  if (!sock.Connect(first, deadline)) return false;
  switch (m_path) {
    case EPath::Direct:
    case EPath::HttpGet: return true;
    case EPath::Socks5: return Socks5Connect(sock, m_dest, deadline);
    case EPath::HttpConnect: return HttpConnect(sock, deadline);
  }
  return false;
}

std::string CProxyClient::RequestLine(const std::string& method, const std::string& path) const {
  const std::string hostPort = m_dest.ToString();
  const std::string target = m_path == EPath::HttpGet ? "http://" + hostPort + path : path;
  return method + " " + target + " HTTP/1.1\r\nHost: " + hostPort + "\r\n";
}

SFetchResult CProxyClient::Fetch(uint64_t bytes, Clock::time_point deadline,
                                 Clock::time_point cap, bool untilClose) const {
  SFetchResult r;
  r.start = Clock::now();
  CBenchSocket sock;
  if (!Open(sock, std::min(deadline, r.start + kHandshakeTimeout))) return r;
  const std::string request =
      RequestLine("GET", "/bytes/" + std::to_string(bytes)) + "Connection: close\r\n\r\n";
  if (!sock.SendAll(request, deadline)) return r;
  r.requested = Clock::now();
  char* io = IoBuffer();
  const long first = sock.RecvSome(io, kIoChunk, deadline);
  if (first <= 0) return r;
  r.firstByte = Clock::now();
  std::string head(io, static_cast<size_t>(first));
  size_t headLen = 0;
  if (!sock.RecvHeaderBlock(head, headLen, deadline)) return r;
  int status = 0;
  int64_t length = 0;
  if (!ParseResponseHead(head, status, length) || status != 200) return r;
  uint64_t got = head.size() - headLen;
  const uint64_t want = length >= 0 ? static_cast<uint64_t>(length) : UINT64_MAX;
  for (uint64_t turns = 0; got < want && turns < (1ull << 40); ++turns) {
    if ((turns & 63) == 0 && Clock::now() >= cap) {
      r.cut = true;
      break;
    }
    const long n = sock.RecvSome(io, kIoChunk, deadline);
    if (n < 0) return r;
    if (n == 0) break;
    got += static_cast<uint64_t>(n);
  }
  if (untilClose && !r.cut && got == want) {
    // The server closes after its answer; the close must come through too.
    const long n = sock.RecvSome(io, kIoChunk, deadline);
    if (n != 0) return r;
  }
  r.done = Clock::now();
  r.bodyBytes = got;
  if (r.cut) return r;
  r.ok = (length < 0 || got == want) && got == bytes;
  return r;
}

bool CProxyClient::StartDownload(CBenchSocket& sock, uint64_t bytes, Clock::time_point deadline) const {
  if (!Open(sock, deadline)) return false;
  return sock.SendAll(RequestLine("GET", "/bytes/" + std::to_string(bytes)) + "Connection: close\r\n\r\n",
                      deadline);
}

bool CProxyClient::Exchange(CBenchSocket& sock, uint64_t bytes, Clock::time_point deadline) const {
  if (!Open(sock, deadline)) return false;
  const std::string head =
      RequestLine("POST", "/echo") + "Content-Length: " + std::to_string(bytes) + "\r\n\r\n";
  if (!sock.SendAll(head, deadline)) return false;
  char* io = IoBuffer();
  for (uint64_t sent = 0; sent < bytes;) {
    const size_t n = static_cast<size_t>(std::min<uint64_t>(bytes - sent, kIoChunk));
    if (!sock.SendAll(io, n, deadline)) return false;
    sent += n;
  }
  std::string answer;
  size_t headLen = 0;
  if (!sock.RecvHeaderBlock(answer, headLen, deadline)) return false;
  int status = 0;
  int64_t length = 0;
  if (!ParseResponseHead(answer, status, length) || status != 200 || length != static_cast<int64_t>(bytes)) {
    return false;
  }
  for (uint64_t got = answer.size() - headLen; got < bytes;) {
    const long n = sock.RecvSome(io, static_cast<size_t>(std::min<uint64_t>(bytes - got, kIoChunk)), deadline);
    if (n <= 0) return false;
    got += static_cast<uint64_t>(n);
  }
  return true;
}

bool CProxyClient::Upload(uint64_t bytes, Clock::time_point deadline, Clock::time_point cap,
                          uint64_t& sent, double& seconds) const {
  sent = 0;
  CBenchSocket sock;
  if (!Open(sock, std::min(deadline, Clock::now() + kHandshakeTimeout))) return false;
  const std::string head =
      RequestLine("POST", "/upload") + "Content-Length: " + std::to_string(bytes) + "\r\n\r\n";
  if (!sock.SendAll(head, deadline)) return false;
  const auto start = Clock::now();
  const char* io = IoBuffer();
  for (uint64_t turns = 0; sent < bytes && turns < (1ull << 40); ++turns) {
    if ((turns & 15) == 0 && Clock::now() >= cap) {
      // The sink waits for the rest, so there is no answer to wait for.
      seconds = std::chrono::duration<double>(Clock::now() - start).count();
      return true;
    }
    const uint64_t left = bytes - sent;
    const size_t n = left < kIoChunk ? static_cast<size_t>(left) : kIoChunk;
    if (!sock.SendAll(io, n, deadline)) return false;
    sent += n;
  }
  std::string answer;
  size_t answerLen = 0;
  if (!sock.RecvHeaderBlock(answer, answerLen, deadline)) return false;
  seconds = std::chrono::duration<double>(Clock::now() - start).count();
  int status = 0;
  int64_t length = 0;
  return ParseResponseHead(answer, status, length) && status == 200;
}

}  // namespace ZRT::Bench
