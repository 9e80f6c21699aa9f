#pragma once
// Reads the cost of a process and all its descendants from /proc: a multi-process proxy (Dante
// forks helpers) must be charged for its children too.
#include <cstdint>
#include <map>
#include <vector>

namespace ZRT::Bench {

struct SProcessSample {
  uint64_t cpuTicks = 0;          // utime + stime, with those of reaped children
  uint64_t systemTicks = 0;       // stime (and reaped children's): the kernel's part of cpuTicks
  std::map<int, uint64_t> voluntarySwitches;  // by thread id
  uint64_t rssKiB = 0;
  uint64_t pssKiB = 0;
  int processes = 0;
  int threads = 0;
  int descriptors = 0;
};

class CProcessTree {
 public:
  explicit CProcessTree(int rootPid) : m_root(rootPid) {}

  bool Alive() const;
  SProcessSample Sample() const;
  static double TicksToMillis(uint64_t ticks);
  // Voluntary switches (wake-ups) from before to after: of the threads alive at after, those born
  // since counted whole; those that ended meanwhile are not seen (a pool thread that leaves).
  static uint64_t WakeupsBetween(const SProcessSample& before, const SProcessSample& after);
  // System-wide count of connections dropped because a listen queue was full (TcpExt
  // ListenOverflows): a client then waits for its SYN to be retransmitted, about 1 s later.
  static uint64_t ListenOverflows();
  // System-wide memory of TCP socket buffers (the "mem" pages of /proc/net/sockstat), in bytes.
  static uint64_t TcpMemoryBytes();
  // Bytes waiting in the pipes the processes hold (each pipe once), read through duplicates of
  // their descriptors (pidfd_getfd); -1 when that is not permitted.
  int64_t PipeBytes() const;

 private:
  std::vector<int> Members() const;

  int m_root;
};

}  // namespace ZRT::Bench
