#pragma once

#include "runtime/Export.h"

namespace QOX {

// Base of waitable objects. Each exposes a descriptor that polls readable while it is signalled,
// so one poll() can wait on sockets and events together.
class ZRT_EXPORT CSynchronizationObject {
public:
    enum EWaitResult { WAIT_FAILED = -1, WAIT_SIGNALLED = 1, WAIT_TIMEOUT = 2 };

    virtual ~CSynchronizationObject();

    // 1 when signalled, 2 when the time ran out; 0 only tests, -1 waits without limit.
    static int WaitForObject(CSynchronizationObject& object, long timeout);

    // Readable (POLLIN) exactly while the object is signalled.
    virtual int GetWaitHandle() const = 0;
    // The state without waiting, where the object knows it without a system call: 1 signalled,
    // 0 not, -1 unknown (then a zero-time wait polls the descriptor).
    virtual int TestState() const { return -1; }
};

} // namespace QOX
