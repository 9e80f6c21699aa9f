#pragma once

#include "runtime/Export.h"

namespace ZRT {

class ZRT_EXPORT CSocketUtils {
public:
    static void CloseSocket(int socket);
    static bool SetSocketBlocking(int socket, bool blocking);
    // After EPIPE from a write that could not say MSG_NOSIGNAL (splice, write to a pipe): the
    // engine's threads block SIGPIPE, so the signal stays pending on the thread; this takes it,
    // so that it never reaches a host that unblocks it later.
    static void ConsumeBrokenPipeSignal();
};

} // namespace ZRT
