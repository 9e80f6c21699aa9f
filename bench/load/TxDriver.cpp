#include "TxDriver.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

namespace ZRT::Bench {

namespace {

enum class EStep { Connecting, Greeting, Request, ConnectReply, Answer, Closing };

struct SClient {
  int fd = -1;
  EStep step = EStep::Connecting;
  Clock::time_point start;
  std::string in;       // bytes of the current reply
  size_t expect = 0;    // bytes the current fixed-size reply has
  uint64_t bodyWanted = 0;
  uint64_t bodyGot = 0;
  bool headDone = false;
};

bool SendAllNow(int fd, const std::string& bytes) {
  // Requests are small: the socket buffer always takes them whole.
  return ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

std::string Socks5Request(const SEndpoint& dest) {
  std::string request("\x05\x01\x00\x01", 4);
  request.append(reinterpret_cast<const char*>(&dest.addr.sin_addr), 4);
  request.append(reinterpret_cast<const char*>(&dest.addr.sin_port), 2);
  return request;
}

}  // namespace

STxResult CTxDriver::Run(int clients, Clock::duration length, Clock::duration timeout) const {
  STxResult result;
  const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
  if (epoll < 0) return result;
  const sockaddr_in& entry = m_target.IsDirect() ? m_dest.addr : m_target.endpoint.addr;
  const std::string hostPort = m_dest.ToString();
  const std::string path = "/bytes/" + std::to_string(m_bytes);
  const std::string target = m_path == EPath::HttpGet ? "http://" + hostPort + path : path;
  const std::string get = "GET " + target + " HTTP/1.1\r\nHost: " + hostPort + "\r\nConnection: close\r\n\r\n";
  const std::string connectRequest = "CONNECT " + hostPort + " HTTP/1.1\r\nHost: " + hostPort + "\r\n\r\n";
  std::vector<SClient> all(static_cast<size_t>(clients));
  const Clock::time_point end = Clock::now() + length;

  auto arm = [&](size_t i, uint32_t events) {
    epoll_event ev{};
    ev.events = events;
    ev.data.u64 = i;
    ::epoll_ctl(epoll, EPOLL_CTL_MOD, all[i].fd, &ev);
  };
  auto begin = [&](size_t i) {
    SClient& c = all[i];
    c = SClient();
    c.start = Clock::now();
    c.fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int on = 1;
    ::setsockopt(c.fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    if (::connect(c.fd, reinterpret_cast<const sockaddr*>(&entry), sizeof(entry)) != 0 && errno != EINPROGRESS) {
      ::close(c.fd);
      c.fd = -1;
      return false;
    }
    epoll_event ev{};
    ev.events = EPOLLOUT;
    ev.data.u64 = i;
    ::epoll_ctl(epoll, EPOLL_CTL_ADD, c.fd, &ev);
    return true;
  };
  auto finish = [&](size_t i, bool ok) {
    SClient& c = all[i];
    if (ok) {
      result.latenciesMs.push_back(std::chrono::duration<double, std::milli>(Clock::now() - c.start).count());
    } else {
      ++result.failures;
    }
    ::close(c.fd);  // also takes it out of epoll
    c.fd = -1;
    if (Clock::now() < end && !begin(i)) ++result.failures;
  };
  // Sends what the path asks next after the connect or a handshake reply.
  auto sendNext = [&](size_t i) {
    SClient& c = all[i];
    c.in.clear();
    switch (c.step) {
      case EStep::Connecting:
        if (m_path == EPath::Socks5) {
          c.step = EStep::Greeting;
          c.expect = 2;
          return SendAllNow(c.fd, std::string("\x05\x01\x00", 3));
        }
        if (m_path == EPath::HttpConnect) {
          c.step = EStep::ConnectReply;
          return SendAllNow(c.fd, connectRequest);
        }
        break;
      case EStep::Greeting:
        c.step = EStep::Request;
        c.expect = 10;
        return SendAllNow(c.fd, Socks5Request(m_dest));
      default:
        break;
    }
    c.step = EStep::Answer;
    return SendAllNow(c.fd, get);
  };
  // The answer: header block, Content-Length body, and the close when asked for.
  auto readAnswer = [&](size_t i, const char* data, size_t n) {
    SClient& c = all[i];
    if (c.step == EStep::Closing) return n == 0 ? 1 : -1;
    if (n == 0) return c.headDone && !m_untilClose && c.bodyGot == c.bodyWanted ? 1 : -1;
    if (!c.headDone) {
      c.in.append(data, n);
      const size_t blank = c.in.find("\r\n\r\n");
      if (blank == std::string::npos) return c.in.size() > 16384 ? -1 : 0;
      int status = 0;
      int64_t contentLength = -1;
      if (!ParseResponseHead(c.in.substr(0, blank + 4), status, contentLength) || status != 200 || contentLength < 0)
        return -1;
      c.headDone = true;
      c.bodyWanted = static_cast<uint64_t>(contentLength);
      c.bodyGot = c.in.size() - (blank + 4);
    } else {
      c.bodyGot += n;
    }
    if (c.bodyGot < c.bodyWanted) return 0;
    if (c.bodyGot > c.bodyWanted) return -1;
    if (!m_untilClose) return 1;
    c.step = EStep::Closing;
    return 0;
  };

  for (int i = 0; i < clients; ++i)
    if (!begin(static_cast<size_t>(i))) ++result.failures;
  char buffer[65536];
  epoll_event events[256];
  int open = clients;
  while (open > 0) {
    const int n = ::epoll_wait(epoll, events, 256, 100);
    const Clock::time_point now = Clock::now();
    for (int k = 0; k < n; ++k) {
      const size_t i = events[k].data.u64;
      SClient& c = all[i];
      if (c.fd < 0) continue;
      if (c.step == EStep::Connecting) {
        int error = 0;
        socklen_t len = sizeof(error);
        ::getsockopt(c.fd, SOL_SOCKET, SO_ERROR, &error, &len);
        if (error != 0 || !sendNext(i)) {
          finish(i, false);
          continue;
        }
        arm(i, EPOLLIN);
        continue;
      }
      const ssize_t got = ::recv(c.fd, buffer, sizeof(buffer), 0);
      if (got < 0 && (errno == EAGAIN || errno == EINTR)) continue;
      if (got < 0) {
        finish(i, false);
        continue;
      }
      if (c.step == EStep::Greeting || c.step == EStep::Request || c.step == EStep::ConnectReply) {
        if (got == 0) {
          finish(i, false);
          continue;
        }
        c.in.append(buffer, static_cast<size_t>(got));
        bool complete = false;
        bool good = false;
        if (c.step == EStep::ConnectReply) {
          complete = c.in.find("\r\n\r\n") != std::string::npos;
          good = complete && (c.in.compare(0, 12, "HTTP/1.0 200") == 0 || c.in.compare(0, 12, "HTTP/1.1 200") == 0);
        } else {
          complete = c.in.size() >= c.expect;
          good = complete && c.in[0] == 5 && c.in[1] == 0;
        }
        if (complete && (!good || !sendNext(i))) finish(i, false);
        continue;
      }
      const int state = readAnswer(i, buffer, static_cast<size_t>(got));
      if (state != 0) finish(i, state > 0);
    }
    // Stuck transactions give up; clients past the end are not started again.
    open = 0;
    for (size_t i = 0; i < all.size(); ++i) {
      if (all[i].fd < 0) continue;
      if (now - all[i].start > timeout)
        finish(i, false);
      if (all[i].fd >= 0) ++open;
    }
  }
  ::close(epoll);
  return result;
}

}  // namespace ZRT::Bench
