#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string>

#include "runtime/CRefCountPtr.h"
#include "transport/CTCPIPAddress.h"

namespace ZRT {
namespace Testing {

// Plain blocking sockets on loopback that play the remote end, or a client, in the tests.
class TestSockets {
public:
    // A listening TCP socket on ip (port chosen by the system); port receives it.
    static int Listen(const char* ip, unsigned int& port)
    {
        const int fd = Open(ip, 0, SOCK_STREAM, bind);
        if (fd < 0 || listen(fd, 16) != 0) {
            Close(fd);
            return -1;
        }
        port = LocalPort(fd);
        return fd;
    }

    // Accepts one connection, waiting up to timeoutMs; -1 if none came.
    static int Accept(int listening, int timeoutMs = 5000)
    {
        return WaitReadable(listening, timeoutMs) ? accept4(listening, nullptr, nullptr, SOCK_CLOEXEC) : -1;
    }

    // A blocking TCP connection to ip:port, or -1.
    static int Connect(const char* ip, unsigned int port) { return Open(ip, port, SOCK_STREAM, connect); }

    // A UDP socket bound to ip and port (0: chosen by the system, and port receives it).
    static int BindUdp(const char* ip, unsigned int& port)
    {
        const int fd = Open(ip, port, SOCK_DGRAM, bind);
        if (fd >= 0)
            port = LocalPort(fd);
        return fd;
    }

    // A port on ip that nothing listens on (bound, then released).
    static unsigned int UnusedPort(const char* ip)
    {
        const int fd = Open(ip, 0, SOCK_STREAM, bind);
        const unsigned int port = fd >= 0 ? LocalPort(fd) : 0;
        Close(fd);
        return port;
    }

    static bool WriteAll(int socket, const std::string& bytes)
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

    // Reads until the peer closes (closed then tells) or count bytes came (count 0: until close);
    // waits up to timeoutMs.
    static std::string Read(int socket, size_t count, int timeoutMs = 10000, bool* closed = nullptr)
    {
        std::string result;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        char buffer[65536];
        if (closed)
            *closed = false;
        while (count == 0 || result.size() < count) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0 || !WaitReadable(socket, static_cast<int>(left.count())))
                break;
            const size_t want = count == 0 ? sizeof(buffer) : std::min(sizeof(buffer), count - result.size());
            const ssize_t got = recv(socket, buffer, want, 0);
            if (got < 0 && errno == EINTR)
                continue;
            if (got <= 0) {
                if (closed)
                    *closed = true;
                break;
            }
            result.append(buffer, static_cast<size_t>(got));
        }
        return result;
    }

    static bool SendTo(int socket, const char* ip, unsigned int port, const std::string& bytes)
    {
        sockaddr_storage storage{};
        socklen_t length = 0;
        return SockAddr(ip, port, storage, length) &&
               sendto(socket, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&storage), length) ==
                   static_cast<ssize_t>(bytes.size());
    }

    // One datagram, or empty when none comes within the time given.
    static std::string ReceiveDatagram(int socket, int timeoutMs = 5000)
    {
        char buffer[2048];
        const ssize_t got = WaitReadable(socket, timeoutMs) ? recv(socket, buffer, sizeof(buffer), 0) : -1;
        return got > 0 ? std::string(buffer, static_cast<size_t>(got)) : std::string();
    }

    static bool WaitReadable(int socket, int timeoutMs)
    {
        pollfd entry{socket, POLLIN, 0};
        int ready = 0;
        do {
            ready = poll(&entry, 1, timeoutMs);
        } while (ready < 0 && errno == EINTR);
        return ready > 0;
    }

    static void Close(int socket)
    {
        if (socket >= 0)
            close(socket);
    }

    static QOX::CRefCountPtr<IZRTConnectionAddress> Address(const char* ip, unsigned int port)
    {
        return CTCPIPAddress::FromText(ip, port);
    }

    static std::string Pattern(size_t size, unsigned int seed = 1)
    {
        std::string bytes(size, '\0');
        unsigned int state = seed * 2654435761u + 1;
        for (size_t i = 0; i < size; ++i) {
            state = state * 1103515245u + 12345u;
            bytes[i] = static_cast<char>(state >> 16);
        }
        return bytes;
    }

    // The address a socket is bound to.
    static CTCPIPAddress LocalAddress(int socket)
    {
        sockaddr_storage storage{};
        socklen_t length = sizeof(storage);
        getsockname(socket, reinterpret_cast<sockaddr*>(&storage), &length);
        CTCPIPAddress address;
        address.SetAddress(*reinterpret_cast<sockaddr*>(&storage), length);
        return address;
    }

private:
    static unsigned int LocalPort(int socket) { return LocalAddress(socket).GetPortNumber(); }

    static bool SockAddr(const char* ip, unsigned int port, sockaddr_storage& storage, socklen_t& length)
    {
        QOX::CRefCountPtr<IZRTConnectionAddress> address = CTCPIPAddress::FromText(ip, port);
        int size = sizeof(storage);
        if (!address || !address->GetSockAddr(reinterpret_cast<sockaddr*>(&storage), &size))
            return false;
        length = static_cast<socklen_t>(size);
        return true;
    }

    // A socket for ip:port's family, bound or connected to it (by step); -1 on failure.
    static int Open(const char* ip, unsigned int port, int type, int (*step)(int, const sockaddr*, socklen_t))
    {
        sockaddr_storage storage{};
        socklen_t length = 0;
        if (!SockAddr(ip, port, storage, length))
            return -1;
        const int fd = socket(storage.ss_family, type | SOCK_CLOEXEC, 0);
        if (fd >= 0 && step(fd, reinterpret_cast<sockaddr*>(&storage), length) != 0) {
            close(fd);
            return -1;
        }
        return fd;
    }
};

} // namespace Testing
} // namespace ZRT
