#include "host/CDirectMultiPointLayer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "transport/CSocketHandle.h"
#include "host/CTcpDataLayer.h"
#include "host/CUpstreamConnect.h"
#include "host/CUpstreamHandshake.h"

namespace ZRT {
namespace Host {

namespace {
// Waits until the socket is ready for events; false when the time ran out first.
bool WaitFor(int socket, short events, std::chrono::steady_clock::time_point deadline)
{
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return false;
        pollfd entry{socket, events, 0};
        const int ready = poll(&entry, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR)
            continue;
        return ready > 0;
    }
}

// Waits for a non-blocking connect to finish; true when it succeeded.
bool WaitConnected(int socket, std::chrono::steady_clock::time_point deadline)
{
    if (!WaitFor(socket, POLLOUT, deadline))
        return false;
    int error = 0;
    socklen_t length = sizeof(error);
    return getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0;
}
} // namespace

int CDirectMultiPointLayer::Plan(const IZRTConnectionAddress& destination, SDestination& to, SDestination& hop) const
{
    int length = sizeof(to.address);
    if (!destination.GetSockAddr(reinterpret_cast<sockaddr*>(&to.address), &length))
        return EINVAL;
    to.length = static_cast<socklen_t>(length);
    // A placeholder goes to the upstream whatever the bypass blocks say: only it knows the name.
    const bool placeholder = m_placeholders && CPlaceholderNames::IsPlaceholder(to.address);
    if (placeholder && !m_placeholders->NameOf(to.address, to.name))
        return EHOSTUNREACH;
    to.carried = placeholder || m_route.Carries(to.address);
    hop = to;
    if (to.carried) {
        std::memcpy(&hop.address, &m_route.GetAddress(), sizeof(hop.address));
        hop.length = m_route.GetAddressLength();
    }
    return 0;
}

QOX::CRefCountPtr<IZRTDataLayer> CDirectMultiPointLayer::Failed(const SDestination& to, int error) const
{
    CEventLoop& loop = m_loops.Next();
    QOX::CRefCountPtr<CTcpDataLayer> layer =
        CTcpDataLayer::CreateConnecting(-1, reinterpret_cast<const sockaddr*>(&to.address), to.length, loop, 0);
    loop.Post([layer, error] { layer->EndConnect(-1, error); });
    return QOX::CRefCountPtr<IZRTDataLayer>(layer.Get());
}

CSocketHandle CDirectMultiPointLayer::StartConnect(const SDestination& hop, bool& done, int& error) const
{
    error = ECONNREFUSED; // the preparer's refusal says no errno of its own
    CSocketHandle socket(::socket(hop.address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP));
    if (!socket.IsValid()) {
        error = errno;
        return CSocketHandle();
    }
    if (!m_preparer.PrepareToConnect(socket.Get(), hop.address.ss_family))
        return CSocketHandle();
    done = connect(socket.Get(), reinterpret_cast<const sockaddr*>(&hop.address), hop.length) == 0;
    if (!done && errno != EINPROGRESS && errno != EINTR) {
        error = errno;
        return CSocketHandle();
    }
    return socket;
}

bool CDirectMultiPointLayer::HandshakeBlocking(int socket, const SDestination& to, Clock::time_point deadline) const
{
    CUpstreamHandshake handshake(m_route, to.address, to.name);
    for (short wanted = handshake.Run(socket); wanted != 0; wanted = handshake.Run(socket)) {
        if (!WaitFor(socket, wanted, deadline))
            return false;
    }
    return handshake.GetStep() == CUpstreamHandshake::EStep::Done;
}

QOX::CRefCountPtr<IZRTDataLayer> CDirectMultiPointLayer::Connect(const IZRTConnectionAddress& destination,
                                                                 const IZRTConnectionAddress& /*source*/)
{
    SDestination to;
    SDestination hop;
    bool done = false;
    if (Plan(destination, to, hop) != 0)
        return {};
    int error = 0;
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(CONNECT_TIMEOUT_MS);
    CSocketHandle socket = StartConnect(hop, done, error);
    if (!socket.IsValid() || (!done && !WaitConnected(socket.Get(), deadline)))
        return {};
    if (to.carried && !HandshakeBlocking(socket.Get(), to, deadline))
        return {};
    QOX::CRefCountPtr<CTcpDataLayer> layer = CTcpDataLayer::Create(socket.Release(), m_loops.Next());
    return QOX::CRefCountPtr<IZRTDataLayer>(layer.Get());
}

QOX::CRefCountPtr<IZRTDataLayer> CDirectMultiPointLayer::BeginConnect(const IZRTConnectionAddress& destination,
                                                                      const IZRTConnectionAddress& /*source*/)
{
    SDestination to;
    SDestination hop;
    bool done = false;
    const int planned = Plan(destination, to, hop);
    if (planned == EHOSTUNREACH)
        return Failed(to, planned);
    if (planned != 0)
        return {};
    int error = 0;
    CSocketHandle socket = StartConnect(hop, done, error);
    if (!socket.IsValid())
        return Failed(to, error); // at once (no route, no descriptor): told as a later failure is
    CEventLoop& loop = m_loops.Next();
    const auto* first = reinterpret_cast<const sockaddr*>(&hop.address);
    if (!to.carried) {
        // Even a connect that finished at once is reported through the loop, like every other.
        return QOX::CRefCountPtr<IZRTDataLayer>(
            CTcpDataLayer::CreateConnecting(socket.Release(), first, hop.length, loop, CONNECT_TIMEOUT_MS).Get());
    }
    // The link waits without a socket while the upstream's handshake runs on the same loop.
    QOX::CRefCountPtr<CTcpDataLayer> layer = CTcpDataLayer::CreateConnecting(-1, first, hop.length, loop, 0);
    CUpstreamConnect::Start(std::move(socket), done, CUpstreamHandshake(m_route, to.address, to.name), layer, loop,
                            CONNECT_TIMEOUT_MS);
    return QOX::CRefCountPtr<IZRTDataLayer>(layer.Get());
}

} // namespace Host
} // namespace ZRT
