#pragma once

#include <functional>

namespace QOX {

class CThreadPool;

// One piece of work run on a thread of a pool (the process-wide one when null), for work that
// must not run on the thread that asks: a host call that may block, a deliberately slow hash.
// Whoever waits for the pool (CThreadPool::EndAll) waits for the work too.
class CPoolTask {
public:
    // False when no thread could be had (the work then never runs). Any thread.
    static bool Launch(CThreadPool* pool, std::function<void()> work);
};

} // namespace QOX
