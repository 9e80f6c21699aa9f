#pragma once

#include <cstdint>

#include "runtime/Export.h"

namespace QOX {

// Monotonic microseconds as an unsigned 32-bit value that wraps (every ~71.6 minutes);
// users take differences modulo 2^32.
ZRT_EXPORT uint32_t clock();

// Moves clock() forward for tests of expiry and wrap-around; never used by the engine itself.
ZRT_EXPORT void AdvanceClockForTesting(uint32_t microseconds);

// Monotonic milliseconds for deadlines (64-bit, does not wrap).
ZRT_EXPORT long long MonotonicMilliseconds();

} // namespace QOX
