#pragma once

#include "runtime/Export.h"

namespace ZRT {

class ZRT_EXPORT CSocketUtils {
public:
    static void CloseSocket(int socket);
    static bool SetSocketBlocking(int socket, bool blocking);
};

} // namespace ZRT
