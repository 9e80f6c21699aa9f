#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

#include "runtime/Export.h"

struct sockaddr_storage;

namespace ZRT {

// What every socket user of the engine and the direct host needs, once. Any thread.
class ZRT_EXPORT CSocketUtils {
public:
    // Room for the largest socket address the engine deals with (sockaddr_in6).
    static constexpr int MAX_ADDRESS_LENGTH = 28;

    // The call found nothing to do now (a non-blocking socket would wait); EINTR is not this:
    // callers try again at once.
    static bool IsWouldBlock(int error);
    // Sends what the socket takes now (without SIGPIPE, retrying EINTR): the count sent, or -1
    // on a failure of the socket.
    static ssize_t SendSome(int socket, const void* data, size_t length);
    // "address:port", with the address in brackets when it is IPv6 ("[::1]:1080"); an address
    // given in brackets already keeps them once.
    static std::string FormatEndpoint(const std::string& address, int port);
    // A numeric address in 127.0.0.0/8 or ::1 (not a name, nor an address in brackets).
    static bool IsLoopbackText(const std::string& address);
    // "::1" for "[::1]"; any other text as it is.
    static std::string StripBrackets(const std::string& address);
    static void CloseSocket(int socket);
    static bool SetSocketBlocking(int socket, bool blocking);
    // After EPIPE from a write that could not say MSG_NOSIGNAL (splice, write to a pipe): the
    // engine's threads block SIGPIPE, so the signal stays pending on the thread; this takes it,
    // so that it never reaches a host that unblocks it later.
    static void ConsumeBrokenPipeSignal();
    // The address's bytes as a map key, an IPv4 address written as IPv6 as its IPv4 self; of an
    // IPv6 address only the first ipv6Bytes (a prefix stands for the host that picks addresses
    // from it). Empty for other families.
    static std::string SourceKey(const sockaddr_storage& address, size_t ipv6Bytes = 16);
    // An IPv4 address rewritten as IPv4-mapped IPv6 (for a dual-stack socket); the new length.
    static unsigned int MapToIPv6(sockaddr_storage& address);
};

} // namespace ZRT
