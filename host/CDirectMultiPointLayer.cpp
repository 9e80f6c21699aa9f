#include "host/CDirectMultiPointLayer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>

#include "transport/CSocketHandle.h"
#include "host/CTcpDataLayer.h"

namespace ZRT {
namespace Host {

namespace {
// Waits for a non-blocking connect to finish; true when it succeeded.
bool WaitConnected(int socket, int timeoutMs)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return false;
        pollfd entry{socket, POLLOUT, 0};
        const int ready = poll(&entry, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            return false;
        int error = 0;
        socklen_t length = sizeof(error);
        return getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0;
    }
}
} // namespace

CSocketHandle CDirectMultiPointLayer::StartConnect(const IZRTConnectionAddress& destination, SDestination& to,
                                                  bool& done) const
{
    int length = sizeof(to.address);
    if (!destination.GetSockAddr(reinterpret_cast<sockaddr*>(&to.address), &length))
        return CSocketHandle();
    to.length = static_cast<socklen_t>(length);
    CSocketHandle socket(::socket(to.address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP));
    if (!socket.IsValid() || !m_preparer.PrepareToConnect(socket.Get(), to.address.ss_family))
        return CSocketHandle();
    done = connect(socket.Get(), reinterpret_cast<sockaddr*>(&to.address), to.length) == 0;
    if (!done && errno != EINPROGRESS && errno != EINTR)
        return CSocketHandle();
    return socket;
}

QOX::CRefCountPtr<IZRTDataLayer> CDirectMultiPointLayer::Connect(const IZRTConnectionAddress& destination,
                                                                 const IZRTConnectionAddress& /*source*/)
{
    SDestination to;
    bool done = false;
    CSocketHandle socket = StartConnect(destination, to, done);
    if (!socket.IsValid() || (!done && !WaitConnected(socket.Get(), CONNECT_TIMEOUT_MS)))
        return {};
    QOX::CRefCountPtr<CTcpDataLayer> layer = CTcpDataLayer::Create(socket.Release(), m_loops.Next());
    return QOX::CRefCountPtr<IZRTDataLayer>(layer.Get());
}

QOX::CRefCountPtr<IZRTDataLayer> CDirectMultiPointLayer::BeginConnect(const IZRTConnectionAddress& destination,
                                                                      const IZRTConnectionAddress& /*source*/)
{
    SDestination to;
    bool done = false;
    CSocketHandle socket = StartConnect(destination, to, done);
    if (!socket.IsValid())
        return {};
    // Even a connect that finished at once is reported through the loop, like every other.
    QOX::CRefCountPtr<CTcpDataLayer> layer =
        CTcpDataLayer::CreateConnecting(socket.Release(), reinterpret_cast<sockaddr*>(&to.address), to.length,
                                        m_loops.Next(), CONNECT_TIMEOUT_MS);
    return QOX::CRefCountPtr<IZRTDataLayer>(layer.Get());
}

} // namespace Host
} // namespace ZRT
