#pragma once
// Loopback destination for the load tests: one epoll thread serving
//   GET /bytes/N      -> 200 with Content-Length N and N bytes, then close
//   POST /upload      -> reads Content-Length bytes, answers 200, then close
//   POST /echo        -> reads Content-Length bytes, answers 200 with as many bytes, and keeps the
//                        connection open (idle) until its peer closes
// and holding any connection that sends nothing (the idle tunnels) until its peer closes.
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "BenchSocket.h"

namespace ZRT::Bench {

class CDestServer {
 public:
  CDestServer() = default;
  ~CDestServer();
  CDestServer(const CDestServer&) = delete;
  CDestServer& operator=(const CDestServer&) = delete;

  // Binds and listens; port 0 picks a free one (read it back with Port()).
  bool Listen(const SEndpoint& where);
  uint16_t Port() const { return m_port; }
  // Serves until stopFlag becomes true or maxSeconds have passed.
  void Serve(const std::atomic<bool>& stopFlag, double maxSeconds);

 private:
  struct SClient {
    int fd = -1;
    std::string in;
    std::string out;         // response head still to send
    size_t outOffset = 0;
    uint64_t bodyToSend = 0;  // GET: body bytes still to send
    uint64_t bodyToRead = 0;  // POST: body bytes still to read
    uint64_t echoBytes = 0;   // POST /echo: the answer's length
    bool headDone = false;
    bool keepOpen = false;
  };

  void Accept();
  void OnReadable(SClient& c);
  void OnHead(SClient& c, size_t headLen);
  bool Flush(SClient& c);
  void Answered(SClient& c);
  void Want(SClient& c, bool writable);
  void Drop(int fd);

  int m_listenFd = -1;
  int m_epollFd = -1;
  uint16_t m_port = 0;
  std::map<int, std::unique_ptr<SClient>> m_clients;
};

}  // namespace ZRT::Bench
