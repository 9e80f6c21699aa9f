#pragma once
// Long downloads through one path, read on a thread of their own until the object goes: the
// load beside which a bystander's transactions are timed.
#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "ProxyClient.h"

namespace ZRT::Bench {

class CBulkLoad {
 public:
  CBulkLoad() = default;
  ~CBulkLoad();
  CBulkLoad(const CBulkLoad&) = delete;
  CBulkLoad& operator=(const CBulkLoad&) = delete;

  // Opens `streams` downloads of `bytes` each and starts reading them; false when one failed.
  bool Start(const CProxyClient& client, int streams, uint64_t bytes, Clock::time_point deadline);
  // Body and header bytes received so far over all downloads.
  uint64_t Bytes() const { return m_bytes.load(std::memory_order_relaxed); }
  // Downloads that ended before they were stopped (closed by a peer or failed).
  int Ended() const { return m_ended.load(std::memory_order_relaxed); }

 private:
  void Read();

  std::vector<CBenchSocket> m_streams;
  std::atomic<uint64_t> m_bytes{0};
  std::atomic<int> m_ended{0};
  std::atomic<bool> m_stop{false};
  std::thread m_reader;
};

}  // namespace ZRT::Bench
