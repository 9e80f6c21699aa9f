#include "transport/CSocketUtils.h"

#include <fcntl.h>
#include <unistd.h>

namespace ZRT {

void CSocketUtils::CloseSocket(int socket)
{
    // Never retried on EINTR: on Linux the descriptor is gone either way, and a retry could
    // close a number that another thread has just been given.
    if (socket >= 0)
        close(socket);
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
