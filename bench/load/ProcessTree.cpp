#include "ProcessTree.h"

#include <dirent.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>

namespace ZRT::Bench {

namespace {

std::string ReadFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// Fields of /proc/PID/stat behind the command name, which may itself hold spaces and parentheses.
std::vector<std::string> StatFields(int pid) {
  const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
  std::vector<std::string> fields;
  const size_t close = stat.rfind(')');
  if (close == std::string::npos) return fields;
  std::istringstream rest(stat.substr(close + 2));
  std::string field;
  while (rest >> field && fields.size() < 64) fields.push_back(field);
  return fields;  // fields[0] is the state (field 3 of the file)
}

uint64_t StatusValue(const std::string& text, const std::string& key) {
  const size_t pos = text.find(key);
  if (pos == std::string::npos) return 0;
  return std::strtoull(text.c_str() + pos + key.size(), nullptr, 10);
}

std::vector<int> NumericEntries(const std::string& dir) {
  std::vector<int> ids;
  DIR* d = ::opendir(dir.c_str());
  if (d == nullptr) return ids;
  for (dirent* e = ::readdir(d); e != nullptr; e = ::readdir(d)) {
    const int id = std::atoi(e->d_name);
    if (id > 0) ids.push_back(id);
  }
  ::closedir(d);
  return ids;
}

// Every entry but "." and "..", descriptor 0 included.
int DescriptorCount(const std::string& fdDir) {
  int count = 0;
  DIR* d = ::opendir(fdDir.c_str());
  if (d == nullptr) return 0;
  for (dirent* e = ::readdir(d); e != nullptr; e = ::readdir(d)) count += e->d_name[0] == '.' ? 0 : 1;
  ::closedir(d);
  return count;
}

// A descriptor of another process, duplicated into this one and closed on scope exit.
struct SBorrowedFd {
  int fd;
  SBorrowedFd(int pidfd, int theirs) : fd(static_cast<int>(::syscall(SYS_pidfd_getfd, pidfd, theirs, 0))) {}
  ~SBorrowedFd() {
    if (fd >= 0) ::close(fd);
  }
  SBorrowedFd(const SBorrowedFd&) = delete;
  SBorrowedFd& operator=(const SBorrowedFd&) = delete;
};

}  // namespace

bool CProcessTree::Alive() const {
  const std::vector<std::string> f = StatFields(m_root);
  return !f.empty() && f[0] != "Z" && f[0] != "X";
}

std::vector<int> CProcessTree::Members() const {
  std::multimap<int, int> children;
  for (int pid : NumericEntries("/proc")) {
    const std::vector<std::string> f = StatFields(pid);
    if (f.size() > 1) children.emplace(std::atoi(f[1].c_str()), pid);
  }
  std::vector<int> members{m_root};
  for (size_t i = 0; i < members.size() && i < 100000; ++i) {
    const auto range = children.equal_range(members[i]);
    for (auto it = range.first; it != range.second; ++it) members.push_back(it->second);
  }
  return members;
}

SProcessSample CProcessTree::Sample() const {
  SProcessSample s;
  for (int pid : Members()) {
    const std::vector<std::string> f = StatFields(pid);
    if (f.size() < 15) continue;
    ++s.processes;
    // Reaped children's time (cutime, cstime) too: a helper process that ended still counts.
    const uint64_t system = std::strtoull(f[12].c_str(), nullptr, 10) + std::strtoull(f[14].c_str(), nullptr, 10);
    s.cpuTicks += std::strtoull(f[11].c_str(), nullptr, 10) + std::strtoull(f[13].c_str(), nullptr, 10) + system;
    s.systemTicks += system;
    const std::string base = "/proc/" + std::to_string(pid);
    s.descriptors += DescriptorCount(base + "/fd");
    s.rssKiB += StatusValue(ReadFile(base + "/status"), "VmRSS:");
    s.pssKiB += StatusValue(ReadFile(base + "/smaps_rollup"), "\nPss:");
    for (int tid : NumericEntries(base + "/task")) {
      ++s.threads;
      const std::string status = ReadFile(base + "/task/" + std::to_string(tid) + "/status");
      s.voluntarySwitches[tid] = StatusValue(status, "\nvoluntary_ctxt_switches:");
    }
  }
  return s;
}

uint64_t CProcessTree::WakeupsBetween(const SProcessSample& before, const SProcessSample& after) {
  uint64_t wakeups = 0;
  for (const auto& [tid, count] : after.voluntarySwitches) {
    const auto earlier = before.voluntarySwitches.find(tid);
    const uint64_t base = earlier == before.voluntarySwitches.end() ? 0 : earlier->second;
    wakeups += count >= base ? count - base : count;  // a tid reused by a new thread
  }
  return wakeups;
}

uint64_t CProcessTree::ListenOverflows() {
  std::istringstream netstat(ReadFile("/proc/net/netstat"));
  std::string names;
  std::string values;
  for (int i = 0; i < 64 && std::getline(netstat, names) && std::getline(netstat, values); ++i) {
    if (names.compare(0, 7, "TcpExt:") != 0) continue;
    std::istringstream n(names);
    std::istringstream v(values);
    std::string name;
    std::string value;
    while (n >> name && v >> value) {
      if (name == "ListenOverflows") return std::strtoull(value.c_str(), nullptr, 10);
    }
  }
  return 0;
}

uint64_t CProcessTree::TcpMemoryBytes() {
  std::istringstream sockstat(ReadFile("/proc/net/sockstat"));
  std::string line;
  for (int i = 0; i < 16 && std::getline(sockstat, line); ++i) {
    if (line.compare(0, 4, "TCP:") != 0) continue;
    const size_t at = line.find(" mem ");
    if (at == std::string::npos) return 0;
    return std::strtoull(line.c_str() + at + 5, nullptr, 10) * static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
  }
  return 0;
}

int64_t CProcessTree::PipeBytes() const {
  int64_t total = 0;
  std::set<std::string> seen;
  for (int pid : Members()) {
    const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    if (pidfd < 0) return -1;
    const std::string dir = "/proc/" + std::to_string(pid) + "/fd/";
    bool denied = false;
    for (int fd : NumericEntries(dir)) {
      char target[64] = {};
      if (::readlink((dir + std::to_string(fd)).c_str(), target, sizeof target - 1) <= 0) continue;
      if (std::string(target).compare(0, 5, "pipe:") != 0 || !seen.insert(target).second) continue;
      const SBorrowedFd pipe(pidfd, fd);
      int queued = 0;
      if (pipe.fd < 0 || ::ioctl(pipe.fd, FIONREAD, &queued) != 0) {
        denied = true;
        break;
      }
      total += queued;
    }
    ::close(pidfd);
    if (denied) return -1;
  }
  return total;
}

double CProcessTree::TicksToMillis(uint64_t ticks) {
  return static_cast<double>(ticks) * 1000.0 / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

}  // namespace ZRT::Bench
