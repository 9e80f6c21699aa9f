#pragma once

#include <dirent.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

namespace ZRT {
namespace Testing {

// Polls pred until it holds or the time runs out; waits only as long as it takes.
inline bool WaitUntil(const std::function<bool()>& pred, int timeoutMs = 10000)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// The calling thread's id in the kernel, for ThreadIsAsleep.
inline pid_t KernelThreadId() { return static_cast<pid_t>(syscall(SYS_gettid)); }

// Whether a thread of this process is blocked in the kernel (a wait, a poll, a read), as /proc
// says. Seen asleep, a thread on its way into a wait has reached it: that it did not return
// is then proven without guessing how long to wait.
inline bool ThreadIsAsleep(pid_t thread)
{
    std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string line;
    std::getline(stat, line);
    const size_t name = line.rfind(") ");
    return name != std::string::npos && name + 2 < line.size() && line[name + 2] == 'S';
}

inline bool WaitUntilAsleep(pid_t thread, int timeoutMs = 10000)
{
    return WaitUntil([&] { return ThreadIsAsleep(thread); }, timeoutMs);
}

inline int CountEntries(const char* directory)
{
    int count = 0;
    if (DIR* dir = opendir(directory)) {
        while (readdir(dir))
            ++count;
        closedir(dir);
    }
    return count;
}

inline int CountThreads() { return CountEntries("/proc/self/task"); }
inline int CountDescriptors() { return CountEntries("/proc/self/fd"); }

// The thread count to come back to. A sanitizer runtime starts a thread of its own with the
// process's first thread, so one is made and joined before counting.
inline int ThreadBaseline()
{
    std::thread([] {}).join();
    return CountThreads();
}

// A joined thread can linger in /proc for a moment after the join returned. At most: under
// emulation the baseline may include a helper thread of the emulator.
inline bool ThreadsBackTo(int baseline, int timeoutMs = 10000)
{
    return WaitUntil([&] { return CountThreads() <= baseline; }, timeoutMs);
}

} // namespace Testing
} // namespace ZRT
