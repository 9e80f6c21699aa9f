#pragma once
// A blocking-style TCP client socket with a deadline on every operation, so a stalled proxy can
// never hang a benchmark: each call gives up once the deadline has passed.
#include <netinet/in.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace ZRT::Bench {

using Clock = std::chrono::steady_clock;

// IPv4 endpoint parsed from "a.b.c.d:port" (all benchmark traffic is on loopback).
struct SEndpoint {
  std::string host;
  uint16_t port = 0;
  sockaddr_in addr{};

  static bool Parse(const std::string& text, SEndpoint& out);
  std::string ToString() const;
};

class CBenchSocket {
 public:
  CBenchSocket() = default;
  ~CBenchSocket();
  CBenchSocket(const CBenchSocket&) = delete;
  CBenchSocket& operator=(const CBenchSocket&) = delete;
  CBenchSocket(CBenchSocket&& other) noexcept;
  CBenchSocket& operator=(CBenchSocket&& other) noexcept;

  bool Connect(const sockaddr_in& to, Clock::time_point deadline);
  bool SendAll(const void* data, size_t len, Clock::time_point deadline);
  bool SendAll(const std::string& text, Clock::time_point deadline) {
    return SendAll(text.data(), text.size(), deadline);
  }
  // >0 bytes read, 0 orderly end of stream, -1 error or deadline passed.
  long RecvSome(void* data, size_t len, Clock::time_point deadline);
  bool RecvExact(void* data, size_t len, Clock::time_point deadline);
  // Reads until "\r\n\r\n" is in buf (at most maxLen bytes); bytes past the blank line stay in buf.
  bool RecvHeaderBlock(std::string& buf, size_t& headerLen, Clock::time_point deadline,
                       size_t maxLen = 16384);
  void Close();
  int Fd() const { return m_fd; }
  bool IsOpen() const { return m_fd >= 0; }

 private:
  bool WaitFor(short events, Clock::time_point deadline);

  int m_fd = -1;
};

}  // namespace ZRT::Bench
