#pragma once

#include <dirent.h>

#include <chrono>
#include <functional>
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
