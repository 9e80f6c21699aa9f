#pragma once
// Reads the cost of a process and all its descendants from /proc: a multi-process proxy (Dante
// forks helpers) must be charged for its children too.
#include <cstdint>
#include <vector>

namespace ZRT::Bench {

struct SProcessSample {
  uint64_t cpuTicks = 0;          // utime + stime
  uint64_t voluntarySwitches = 0;  // summed over every thread
  uint64_t rssKiB = 0;
  uint64_t pssKiB = 0;
  int processes = 0;
  int threads = 0;
};

class CProcessTree {
 public:
  explicit CProcessTree(int rootPid) : m_root(rootPid) {}

  bool Alive() const;
  SProcessSample Sample() const;
  static double TicksToMillis(uint64_t ticks);
  // System-wide count of connections dropped because a listen queue was full (TcpExt
  // ListenOverflows): a client then waits for its SYN to be retransmitted, about 1 s later.
  static uint64_t ListenOverflows();

 private:
  std::vector<int> Members() const;

  int m_root;
};

}  // namespace ZRT::Bench
