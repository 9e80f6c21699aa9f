#include "ProcessTree.h"

#include <dirent.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <map>
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
    if (f.size() < 13) continue;
    ++s.processes;
    s.cpuTicks += std::strtoull(f[11].c_str(), nullptr, 10) + std::strtoull(f[12].c_str(), nullptr, 10);
    const std::string base = "/proc/" + std::to_string(pid);
    s.rssKiB += StatusValue(ReadFile(base + "/status"), "VmRSS:");
    s.pssKiB += StatusValue(ReadFile(base + "/smaps_rollup"), "\nPss:");
    for (int tid : NumericEntries(base + "/task")) {
      ++s.threads;
      const std::string status = ReadFile(base + "/task/" + std::to_string(tid) + "/status");
      s.voluntarySwitches += StatusValue(status, "\nvoluntary_ctxt_switches:");
    }
  }
  return s;
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

double CProcessTree::TicksToMillis(uint64_t ticks) {
  return static_cast<double>(ticks) * 1000.0 / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

}  // namespace ZRT::Bench
