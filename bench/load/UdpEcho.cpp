#include "UdpEcho.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace ZRT::Bench {

CUdpEcho::~CUdpEcho() {
  if (m_thread.joinable()) m_thread.join();
  if (m_fd >= 0) ::close(m_fd);
}

bool CUdpEcho::Bind(const SEndpoint& where) {
  m_fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (m_fd < 0 || ::bind(m_fd, reinterpret_cast<const sockaddr*>(&where.addr), sizeof where.addr) != 0) {
    return false;
  }
  sockaddr_in bound{};
  socklen_t len = sizeof bound;
  ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&bound), &len);
  m_port = ntohs(bound.sin_port);
  return true;
}

void CUdpEcho::Start(const std::atomic<bool>& stopFlag) {
  m_thread = std::thread([this, &stopFlag] { Serve(stopFlag); });
}

void CUdpEcho::Serve(const std::atomic<bool>& stopFlag) {
  char buffer[65536];
  while (!stopFlag) {
    pollfd p{m_fd, POLLIN, 0};
    if (::poll(&p, 1, 200) <= 0) continue;
    sockaddr_in from{};
    socklen_t fromLen = sizeof from;
    const ssize_t n = ::recvfrom(m_fd, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &fromLen);
    if (n >= 0) {
      ::sendto(m_fd, buffer, static_cast<size_t>(n), 0, reinterpret_cast<sockaddr*>(&from), fromLen);
    }
  }
}

}  // namespace ZRT::Bench
