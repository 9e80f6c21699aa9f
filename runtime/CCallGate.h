#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "runtime/Export.h"

namespace QOX {

// Counts the threads that are inside an object's callbacks, so that whoever destroys the object
// can first wait for them to leave. Unregistering from a service does not cover a callback that
// unregisters from inside itself: such a thread may still run the object's code (and its
// owner's) after the owner saw the teardown done. The waiting thread never waits for itself.
class ZRT_EXPORT CCallGate {
public:
    // Marks the calling thread inside for its lifetime.
    class CScope {
    public:
        explicit CScope(CCallGate& gate);
        ~CScope();
        CScope(const CScope&) = delete;
        CScope& operator=(const CScope&) = delete;

    private:
        CCallGate& m_gate;
    };

    // Returns once no other thread is inside.
    void WaitForOthers();

private:
    void Enter();
    void Leave();

    // Guards m_inside (the threads inside the gate); a leaf.
    std::mutex m_mutex;
    std::condition_variable m_left;
    std::vector<std::thread::id> m_inside;
};

} // namespace QOX
