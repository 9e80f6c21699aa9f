#include "runtime/CSynchronizationObject.h"

#include <poll.h>

#include <cerrno>

#include "runtime/Clock.h"

namespace QOX {

CSynchronizationObject::~CSynchronizationObject() = default;

int CSynchronizationObject::WaitForObject(CSynchronizationObject& object, long timeout)
{
    if (timeout == 0) {
        const int state = object.TestState();
        if (state >= 0)
            return state == 1 ? WAIT_SIGNALLED : WAIT_TIMEOUT;
    }
    pollfd entry{object.GetWaitHandle(), POLLIN, 0};
    if (entry.fd < 0)
        return WAIT_FAILED;
    const long long deadline = timeout > 0 ? MonotonicMilliseconds() + timeout : 0;
    long remaining = timeout;
    for (;;) {
        const int result = poll(&entry, 1, static_cast<int>(remaining < 0 ? -1 : remaining));
        if (result > 0)
            return (entry.revents & POLLIN) ? WAIT_SIGNALLED : WAIT_FAILED;
        if (result == 0)
            return WAIT_TIMEOUT;
        if (errno != EINTR)
            return WAIT_FAILED;
        if (timeout > 0) {
            remaining = static_cast<long>(deadline - MonotonicMilliseconds());
            if (remaining <= 0)
                return WAIT_TIMEOUT;
        }
    }
}

} // namespace QOX
