#pragma once
// Loopback UDP echo: every datagram goes straight back to its sender.
#include <atomic>
#include <cstdint>
#include <thread>

#include "BenchSocket.h"

namespace ZRT::Bench {

class CUdpEcho {
 public:
  CUdpEcho() = default;
  ~CUdpEcho();
  CUdpEcho(const CUdpEcho&) = delete;
  CUdpEcho& operator=(const CUdpEcho&) = delete;

  bool Bind(const SEndpoint& where);
  uint16_t Port() const { return m_port; }
  // Echoes on its own thread until stopFlag becomes true (checked every 200 ms).
  void Start(const std::atomic<bool>& stopFlag);

 private:
  void Serve(const std::atomic<bool>& stopFlag);

  int m_fd = -1;
  uint16_t m_port = 0;
  std::thread m_thread;
};

}  // namespace ZRT::Bench
