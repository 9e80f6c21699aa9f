#include "transport/CSocketUtils.h"

#include <fcntl.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

namespace ZRT {

void CSocketUtils::CloseSocket(int socket)
{
    // Never retried on EINTR: on Linux the descriptor is gone either way, and a retry could
    // close a number that another thread has just been given.
    if (socket >= 0)
        close(socket);
}

void CSocketUtils::ConsumeBrokenPipeSignal()
{
    sigset_t pending;
    sigemptyset(&pending);
    if (sigpending(&pending) != 0 || sigismember(&pending, SIGPIPE) != 1)
        return;
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    const timespec now{0, 0};
    while (sigtimedwait(&pipe, nullptr, &now) < 0 && errno == EINTR) {
    }
}

bool CSocketUtils::SetSocketBlocking(int socket, bool blocking)
{
    const int flags = fcntl(socket, F_GETFL, 0);
    if (flags < 0)
        return false;
    const int wanted = blocking ? (flags & ~O_NONBLOCK) : (flags | O_NONBLOCK);
    return wanted == flags || fcntl(socket, F_SETFL, wanted) == 0;
}

} // namespace ZRT
