#include "TestSockets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "transport/CTCPIPAddress.h"

namespace ZRT {
namespace Testing {

namespace {
bool SockAddr(const char* ip, unsigned int port, sockaddr_storage& storage, socklen_t& length)
{
    QOX::CRefCountPtr<IZRTConnectionAddress> address = CTCPIPAddress::FromText(ip, port);
    int size = sizeof(storage);
    if (!address || !address->GetSockAddr(reinterpret_cast<sockaddr*>(&storage), &size))
        return false;
    length = static_cast<socklen_t>(size);
    return true;
}

unsigned int LocalPort(int socket)
{
    sockaddr_storage storage{};
    socklen_t length = sizeof(storage);
    getsockname(socket, reinterpret_cast<sockaddr*>(&storage), &length);
    CTCPIPAddress address;
    address.SetAddress(*reinterpret_cast<sockaddr*>(&storage), length);
    return address.GetPortNumber();
}

int Bound(const char* ip, int type, unsigned int port)
{
    sockaddr_storage storage{};
    socklen_t length = 0;
    if (!SockAddr(ip, port, storage, length))
        return -1;
    const int fd = socket(storage.ss_family, type | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    if (bind(fd, reinterpret_cast<sockaddr*>(&storage), length) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}
} // namespace

int TestSockets::Listen(const char* ip, unsigned int& port)
{
    const int fd = Bound(ip, SOCK_STREAM, 0);
    if (fd < 0 || listen(fd, 16) != 0) {
        Close(fd);
        return -1;
    }
    port = LocalPort(fd);
    return fd;
}

int TestSockets::Accept(int listening, int timeoutMs)
{
    if (!WaitReadable(listening, timeoutMs))
        return -1;
    return accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
}

int TestSockets::Connect(const char* ip, unsigned int port)
{
    sockaddr_storage storage{};
    socklen_t length = 0;
    if (!SockAddr(ip, port, storage, length))
        return -1;
    const int fd = socket(storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&storage), length) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int TestSockets::BindUdp(const char* ip, unsigned int& port)
{
    const int fd = Bound(ip, SOCK_DGRAM, 0);
    if (fd >= 0)
        port = LocalPort(fd);
    return fd;
}

unsigned int TestSockets::UnusedPort(const char* ip)
{
    const int fd = Bound(ip, SOCK_STREAM, 0);
    const unsigned int port = fd >= 0 ? LocalPort(fd) : 0;
    Close(fd);
    return port;
}

bool TestSockets::WriteAll(int socket, const std::string& bytes)
{
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t sent = send(socket, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent <= 0)
            return false;
        done += static_cast<size_t>(sent);
    }
    return true;
}

std::string TestSockets::Read(int socket, size_t count, int timeoutMs)
{
    std::string result;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    char buffer[65536];
    while (count == 0 || result.size() < count) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
        if (left <= 0 || !WaitReadable(socket, static_cast<int>(left)))
            break;
        const size_t want = count == 0 ? sizeof(buffer) : std::min(sizeof(buffer), count - result.size());
        const ssize_t got = recv(socket, buffer, want, 0);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        result.append(buffer, static_cast<size_t>(got));
    }
    return result;
}

bool TestSockets::WaitReadable(int socket, int timeoutMs)
{
    pollfd entry{socket, POLLIN, 0};
    int ready = 0;
    do {
        ready = poll(&entry, 1, timeoutMs);
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

void TestSockets::Close(int socket)
{
    if (socket >= 0)
        close(socket);
}

QOX::CRefCountPtr<IZRTConnectionAddress> TestSockets::Address(const char* ip, unsigned int port)
{
    return CTCPIPAddress::FromText(ip, port);
}

std::string TestSockets::Pattern(size_t size, unsigned int seed)
{
    std::string bytes(size, '\0');
    unsigned int state = seed * 2654435761u + 1;
    for (size_t i = 0; i < size; ++i) {
        state = state * 1103515245u + 12345u;
        bytes[i] = static_cast<char>(state >> 16);
    }
    return bytes;
}

} // namespace Testing
} // namespace ZRT
