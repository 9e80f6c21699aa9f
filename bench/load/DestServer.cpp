#include "DestServer.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <strings.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

#include "ProxyClient.h"

namespace ZRT::Bench {

namespace {

constexpr size_t kChunk = 256 * 1024;
constexpr size_t kMaxHead = 16384;
constexpr size_t kHeadBody = 16384;

const std::vector<char>& Payload() {
  static const std::vector<char> payload(kChunk, 'd');
  return payload;
}

int64_t HeaderNumber(const std::string& head, const char* name) {
  const size_t len = std::char_traits<char>::length(name);
  for (size_t pos = head.find("\r\n"); pos != std::string::npos; pos = head.find("\r\n", pos + 2)) {
    if (strncasecmp(head.c_str() + pos + 2, name, len) == 0) {
      return std::atoll(head.c_str() + pos + 2 + len);
    }
  }
  return -1;
}

}  // namespace

CDestServer::~CDestServer() {
  for (auto& entry : m_clients) ::close(entry.first);
  if (m_listenFd >= 0) ::close(m_listenFd);
  if (m_epollFd >= 0) ::close(m_epollFd);
}

bool CDestServer::Listen(const SEndpoint& where) {
  m_listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  const int one = 1;
  ::setsockopt(m_listenFd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  if (m_listenFd < 0 ||
      ::bind(m_listenFd, reinterpret_cast<const sockaddr*>(&where.addr), sizeof where.addr) != 0 ||
      ::listen(m_listenFd, 4096) != 0) {
    return false;
  }
  sockaddr_in bound{};
  socklen_t len = sizeof bound;
  ::getsockname(m_listenFd, reinterpret_cast<sockaddr*>(&bound), &len);
  m_port = ntohs(bound.sin_port);
  m_epollFd = ::epoll_create1(EPOLL_CLOEXEC);
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.fd = m_listenFd;
  return m_epollFd >= 0 && ::epoll_ctl(m_epollFd, EPOLL_CTL_ADD, m_listenFd, &ev) == 0;
}

void CDestServer::Serve(const std::atomic<bool>& stopFlag, double maxSeconds) {
  const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                      std::chrono::duration<double>(maxSeconds));
  epoll_event events[256];
  while (!stopFlag && Clock::now() < end) {
    const int n = ::epoll_wait(m_epollFd, events, 256, 500);
    for (int i = 0; i < n; ++i) {
      const int fd = events[i].data.fd;
      if (fd == m_listenFd) {
        Accept();
        continue;
      }
      const auto it = m_clients.find(fd);
      if (it == m_clients.end()) continue;
      SClient& c = *it->second;
      if (events[i].events & (EPOLLERR | EPOLLHUP)) {
        Drop(fd);
      } else if (events[i].events & EPOLLOUT) {
        if (Flush(c)) Answered(c);
      } else {
        OnReadable(c);
      }
    }
  }
}

void CDestServer::Accept() {
  for (int i = 0; i < 1024; ++i) {
    const int fd = ::accept4(m_listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) return;
    const int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    auto client = std::make_unique<SClient>();
    client->fd = fd;
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    ::epoll_ctl(m_epollFd, EPOLL_CTL_ADD, fd, &ev);
    m_clients[fd] = std::move(client);
  }
}

void CDestServer::Drop(int fd) {
  ::epoll_ctl(m_epollFd, EPOLL_CTL_DEL, fd, nullptr);
  ::close(fd);
  m_clients.erase(fd);
}

void CDestServer::Want(SClient& c, bool writable) {
  epoll_event ev{};
  ev.events = writable ? EPOLLOUT : EPOLLIN;
  ev.data.fd = c.fd;
  ::epoll_ctl(m_epollFd, EPOLL_CTL_MOD, c.fd, &ev);
}

void CDestServer::OnReadable(SClient& c) {
  static std::vector<char> scratch(kChunk);
  for (int turn = 0; turn < 64; ++turn) {
    const ssize_t n = ::recv(c.fd, scratch.data(), scratch.size(), 0);
    if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) {
      Drop(c.fd);
      return;
    }
    if (n < 0) return;
    if (c.headDone) {
      const uint64_t got = static_cast<uint64_t>(n);
      c.bodyToRead = got >= c.bodyToRead ? 0 : c.bodyToRead - got;
    } else {
      c.in.append(scratch.data(), static_cast<size_t>(n));
      const size_t end = c.in.find("\r\n\r\n");
      if (end == std::string::npos && c.in.size() > kMaxHead) {
        Drop(c.fd);
        return;
      }
      if (end != std::string::npos) {
        OnHead(c, end + 4);
        if (!c.out.empty()) return;  // OnHead switched to writing (or dropped)
      }
    }
    if (c.headDone && c.bodyToRead == 0) {
      c.out = c.keepOpen ? "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(c.echoBytes) + "\r\n\r\n"
                         : "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
      c.bodyToSend = c.keepOpen ? c.echoBytes : 0;
      Want(c, true);
      return;
    }
  }
}

void CDestServer::OnHead(SClient& c, size_t headLen) {
  c.headDone = true;
  const std::string head = c.in.substr(0, headLen);
  const size_t extra = c.in.size() - headLen;
  c.in.clear();
  if (head.compare(0, 11, "GET /bytes/") == 0) {
    c.bodyToSend = std::strtoull(head.c_str() + 11, nullptr, 10);
    c.out = "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\nContent-Length: " +
            std::to_string(c.bodyToSend) + "\r\nConnection: close\r\n\r\n";
    // A small response leaves in one segment, as a real server's would; two writes would let
    // Nagle's algorithm in a relaying proxy add a delayed-ACK wait to the measurement.
    const size_t inHead = c.bodyToSend < kHeadBody ? static_cast<size_t>(c.bodyToSend) : kHeadBody;
    c.out.append(Payload().data(), inHead);
    c.bodyToSend -= inHead;
    Want(c, true);
    return;
  }
  const int64_t length = HeaderNumber(head, "content-length:");
  const bool echo = head.compare(0, 11, "POST /echo ") == 0;
  if ((echo || head.compare(0, 13, "POST /upload ") == 0) && length >= 0) {
    const uint64_t want = static_cast<uint64_t>(length);
    c.bodyToRead = extra >= want ? 0 : want - extra;
    c.keepOpen = echo;
    c.echoBytes = echo ? want : 0;
    return;
  }
  c.out = "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
  Want(c, true);
}

void CDestServer::Answered(SClient& c) {
  if (!c.keepOpen) {
    Drop(c.fd);
    return;
  }
  const int fd = c.fd;
  c = SClient();
  c.fd = fd;
  Want(c, false);
}

// Returns true when everything is sent and the connection should close.
bool CDestServer::Flush(SClient& c) {
  for (int turn = 0; turn < 64; ++turn) {
    const char* data = nullptr;
    size_t len = 0;
    if (c.outOffset < c.out.size()) {
      data = c.out.data() + c.outOffset;
      len = c.out.size() - c.outOffset;
    } else if (c.bodyToSend > 0) {
      data = Payload().data();
      len = c.bodyToSend < kChunk ? static_cast<size_t>(c.bodyToSend) : kChunk;
    } else {
      return true;
    }
    const ssize_t n = ::send(c.fd, data, len, MSG_NOSIGNAL);
    if (n < 0) return errno != EAGAIN && errno != EINTR;
    if (c.outOffset < c.out.size()) {
      c.outOffset += static_cast<size_t>(n);
    } else {
      c.bodyToSend -= static_cast<uint64_t>(n);
    }
  }
  return false;
}

}  // namespace ZRT::Bench
