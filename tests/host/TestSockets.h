#pragma once

#include <string>

#include "runtime/CRefCountPtr.h"
#include "transport/IZRTConnectionAddress.h"

namespace ZRT {
namespace Testing {

// Plain blocking sockets on loopback that play the remote end in the host tests.
class TestSockets {
public:
    // A listening TCP socket on ip (port chosen by the system); port receives it.
    static int Listen(const char* ip, unsigned int& port);
    // Accepts one connection, waiting up to timeoutMs; -1 if none came.
    static int Accept(int listening, int timeoutMs = 5000);
    // A blocking TCP connection to ip:port, or -1.
    static int Connect(const char* ip, unsigned int port);
    // A UDP socket bound to ip (port chosen by the system).
    static int BindUdp(const char* ip, unsigned int& port);
    // A port on ip that nothing listens on (bound, then released).
    static unsigned int UnusedPort(const char* ip);

    static bool WriteAll(int socket, const std::string& bytes);
    // Reads until the peer closes or count bytes came (count 0: until close); waits up to timeoutMs.
    static std::string Read(int socket, size_t count, int timeoutMs = 10000);
    static bool WaitReadable(int socket, int timeoutMs);
    static void Close(int socket);

    static QOX::CRefCountPtr<IZRTConnectionAddress> Address(const char* ip, unsigned int port);
    static std::string Pattern(size_t size, unsigned int seed = 1);
};

} // namespace Testing
} // namespace ZRT
