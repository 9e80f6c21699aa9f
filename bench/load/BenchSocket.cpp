#include "BenchSocket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace ZRT::Bench {

bool SEndpoint::Parse(const std::string& text, SEndpoint& out) {
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0) return false;
  out.host = text.substr(0, colon);
  const long port = std::strtol(text.c_str() + colon + 1, nullptr, 10);
  if (port <= 0 || port > 65535) return false;
  out.port = static_cast<uint16_t>(port);
  out.addr = {};
  out.addr.sin_family = AF_INET;
  out.addr.sin_port = htons(out.port);
  return inet_pton(AF_INET, out.host.c_str(), &out.addr.sin_addr) == 1;
}

std::string SEndpoint::ToString() const { return host + ":" + std::to_string(port); }

CBenchSocket::~CBenchSocket() { Close(); }

CBenchSocket::CBenchSocket(CBenchSocket&& other) noexcept : m_fd(other.m_fd) { other.m_fd = -1; }

CBenchSocket& CBenchSocket::operator=(CBenchSocket&& other) noexcept {
  if (this != &other) {
    Close();
    m_fd = other.m_fd;
    other.m_fd = -1;
  }
  return *this;
}

void CBenchSocket::Close() {
  if (m_fd >= 0) ::close(m_fd);
  m_fd = -1;
}

static int MillisLeft(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  if (left.count() <= 0) return 0;
  return static_cast<int>(left.count()) + 1;
}

bool CBenchSocket::WaitFor(short events, Clock::time_point deadline) {
  for (int attempt = 0; attempt < 1000; ++attempt) {
    const int ms = MillisLeft(deadline);
    if (ms == 0) return false;
    pollfd p{m_fd, events, 0};
    const int r = ::poll(&p, 1, ms);
    if (r > 0) return true;
    if (r < 0 && errno != EINTR) return false;
  }
  return false;
}

bool CBenchSocket::Connect(const sockaddr_in& to, Clock::time_point deadline) {
  Close();
  m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (m_fd < 0) return false;
  const int one = 1;
  ::setsockopt(m_fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  if (::connect(m_fd, reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0) return true;
  if (errno != EINPROGRESS) return false;
  if (!WaitFor(POLLOUT, deadline)) return false;
  int err = 0;
  socklen_t len = sizeof err;
  if (::getsockopt(m_fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) return false;
  return err == 0;
}

bool CBenchSocket::SendAll(const void* data, size_t len, Clock::time_point deadline) {
  const char* p = static_cast<const char*>(data);
  while (len > 0) {
    const ssize_t n = ::send(m_fd, p, len, MSG_NOSIGNAL);
    if (n > 0) {
      p += n;
      len -= static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      if (!WaitFor(POLLOUT, deadline)) return false;
      continue;
    }
    return false;
  }
  return true;
}

long CBenchSocket::RecvSome(void* data, size_t len, Clock::time_point deadline) {
  for (;;) {
    const ssize_t n = ::recv(m_fd, data, len, 0);
    if (n >= 0) return static_cast<long>(n);
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return -1;
    if (!WaitFor(POLLIN, deadline)) return -1;
  }
}

bool CBenchSocket::RecvExact(void* data, size_t len, Clock::time_point deadline) {
  char* p = static_cast<char*>(data);
  while (len > 0) {
    const long n = RecvSome(p, len, deadline);
    if (n <= 0) return false;
    p += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}

bool CBenchSocket::RecvHeaderBlock(std::string& buf, size_t& headerLen, Clock::time_point deadline,
                                   size_t maxLen) {
  char chunk[4096];
  for (;;) {
    const size_t end = buf.find("\r\n\r\n");
    if (end != std::string::npos) {
      headerLen = end + 4;
      return true;
    }
    if (buf.size() >= maxLen) return false;
    const long n = RecvSome(chunk, sizeof chunk, deadline);
    if (n <= 0) return false;
    buf.append(chunk, static_cast<size_t>(n));
  }
}

}  // namespace ZRT::Bench
