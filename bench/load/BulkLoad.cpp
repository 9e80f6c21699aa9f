#include "BulkLoad.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace ZRT::Bench {

CBulkLoad::~CBulkLoad() {
  m_stop = true;
  if (m_reader.joinable()) m_reader.join();
}

bool CBulkLoad::Start(const CProxyClient& client, int streams, uint64_t bytes, Clock::time_point deadline) {
  m_streams.reserve(static_cast<size_t>(streams));
  for (int i = 0; i < streams; ++i) {
    CBenchSocket sock;
    if (!client.StartDownload(sock, bytes, deadline)) return false;
    m_streams.push_back(std::move(sock));
  }
  m_reader = std::thread([this] { Read(); });
  return true;
}

void CBulkLoad::Read() {
  const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
  if (epoll < 0) return;
  for (size_t i = 0; i < m_streams.size(); ++i) {
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = i;
    ::epoll_ctl(epoll, EPOLL_CTL_ADD, m_streams[i].Fd(), &ev);
  }
  static thread_local char buffer[256 * 1024];
  epoll_event events[64];
  while (!m_stop) {
    const int n = ::epoll_wait(epoll, events, 64, 50);
    for (int k = 0; k < n; ++k) {
      const int fd = m_streams[events[k].data.u64].Fd();
      const ssize_t got = ::recv(fd, buffer, sizeof buffer, 0);
      if (got > 0) {
        m_bytes.fetch_add(static_cast<uint64_t>(got), std::memory_order_relaxed);
      } else if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
        ::epoll_ctl(epoll, EPOLL_CTL_DEL, fd, nullptr);
        m_ended.fetch_add(1, std::memory_order_relaxed);
      }
    }
  }
  ::close(epoll);
}

}  // namespace ZRT::Bench
