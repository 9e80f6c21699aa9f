#include "transport/CSocketUtils.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace ZRT {

void CSocketUtils::CloseSocket(int socket)
{
    // Never retried on EINTR: on Linux the descriptor is gone either way, and a retry could
    // close a number that another thread has just been given.
    if (socket >= 0)
        close(socket);
}

bool CSocketUtils::IsWouldBlock(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK;
}

ssize_t CSocketUtils::SendSome(int socket, const void* data, size_t length)
{
#ifdef MSG_NOSIGNAL
    constexpr int FLAGS = MSG_NOSIGNAL;
#else
    constexpr int FLAGS = 0;
#endif
    const auto* bytes = static_cast<const char*>(data);
    size_t sent = 0;
    while (sent < length) {
        const ssize_t result = send(socket, bytes + sent, length - sent, FLAGS);
        if (result > 0) {
            sent += static_cast<size_t>(result);
            continue;
        }
        if (result < 0 && errno == EINTR)
            continue;
        if (result < 0 && !IsWouldBlock(errno))
            return -1;
        break;
    }
    return static_cast<ssize_t>(sent);
}

std::string CSocketUtils::StripBrackets(const std::string& address)
{
    if (address.size() > 2 && address.front() == '[' && address.back() == ']')
        return address.substr(1, address.size() - 2);
    return address;
}

bool CSocketUtils::IsLoopbackText(const std::string& address)
{
    in_addr v4{};
    in6_addr v6{};
    if (inet_pton(AF_INET, address.c_str(), &v4) == 1)
        return (ntohl(v4.s_addr) >> 24) == 127;
    return inet_pton(AF_INET6, address.c_str(), &v6) == 1 && IN6_IS_ADDR_LOOPBACK(&v6);
}

std::string CSocketUtils::FormatEndpoint(const std::string& address, int port)
{
    const std::string bare = StripBrackets(address);
    const bool ipv6 = bare.find(':') != std::string::npos;
    return (ipv6 ? "[" + bare + "]" : bare) + ":" + std::to_string(port);
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

std::string CSocketUtils::SourceKey(const sockaddr_storage& address, size_t ipv6Bytes)
{
    if (address.ss_family == AF_INET) {
        const auto& v4 = reinterpret_cast<const sockaddr_in&>(address);
        return std::string(reinterpret_cast<const char*>(&v4.sin_addr), 4);
    }
    if (address.ss_family != AF_INET6)
        return {};
    const auto& v6 = reinterpret_cast<const sockaddr_in6&>(address);
    const auto* bytes = reinterpret_cast<const char*>(&v6.sin6_addr);
    if (IN6_IS_ADDR_V4MAPPED(&v6.sin6_addr))
        return std::string(bytes + 12, 4);
    return std::string(bytes, ipv6Bytes < 16 ? ipv6Bytes : 16);
}

unsigned int CSocketUtils::MapToIPv6(sockaddr_storage& address)
{
    const sockaddr_in v4 = reinterpret_cast<const sockaddr_in&>(address);
    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_port = v4.sin_port;
    v6.sin6_addr.s6_addr[10] = 0xff;
    v6.sin6_addr.s6_addr[11] = 0xff;
    std::memcpy(&v6.sin6_addr.s6_addr[12], &v4.sin_addr, 4);
    address = sockaddr_storage{};
    std::memcpy(&address, &v6, sizeof(v6));
    return sizeof(v6);
}

} // namespace ZRT
