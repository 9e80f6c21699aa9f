#include "runtime/Clock.h"

#include <time.h>

#include <atomic>

namespace QOX {
namespace {
std::atomic<uint32_t> g_testOffset{0};
}

uint32_t clock()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const uint64_t micros = static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
    return static_cast<uint32_t>(micros) + g_testOffset.load(std::memory_order_relaxed);
}

void AdvanceClockForTesting(uint32_t microseconds)
{
    g_testOffset.fetch_add(microseconds);
}

long long MonotonicMilliseconds()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

} // namespace QOX
