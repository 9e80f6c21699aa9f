#include "proxy/core/CRelayPump.h"

#include <algorithm>
#include <memory>

#include "runtime/CScratchLoan.h"

namespace ZRT {
namespace Proxy {

static_assert(CRelayPump::HOST_READ_SIZE <= static_cast<int>(QOX::CScratchLoan::SIZE),
              "a host read fits the scratch buffer");

void CRelayPump::OnNewLink()
{
    m_hostPending = true;
    m_spliceHost = false;
    m_spliceClient = false;
    m_hostSpliced = 0;
}

void CRelayPump::OnLinkGone()
{
    m_hostPending = false;
    m_spliceHost = false;
    m_spliceClient = false;
}

CRelayPump::EMove CRelayPump::MoveClientBytes(IConnectionProtocol* handler)
{
    if (handler && m_spliceClient && m_link.GetState() == CHostLink::EState::Open &&
        handler->GetRequestRelayAllowance() > 0) {
        if (const std::optional<EMove> spliced = SpliceClientBytes(*handler))
            return *spliced;
    }
    char buffer[CLIENT_READ_SIZE];
    int count = 0;
    switch (m_client.Read(buffer, sizeof(buffer), count)) {
    case CClientEnd::ERead::NothingNow:
        return EMove::Wait;
    case CClientEnd::ERead::Ended:
        return EMove::ClientEnded;
    case CClientEnd::ERead::Failed:
        return EMove::ClientFailed; // a reset: nothing more can be said to this client
    case CClientEnd::ERead::Bytes:
        break;
    }
    m_owner.OnMoved(count); // counted as relayed once the handler passes them on
    if (!m_owner.LinkTakesClientBytes())
        return EMove::Wait;
    handler = m_owner.HandlerFor(buffer, count);
    if (!handler)
        return EMove::Wait;
    // As for answers: a request head rewritten and the body read with it leave in one send.
    const bool rewrites = handler->GetRequestRelayAllowance() < static_cast<unsigned long long>(count);
    if (rewrites)
        m_link.BeginHold();
    handler->HandleRequest(buffer, count);
    if (rewrites)
        m_link.EndHold();
    // A full read means a stream in full flow: while the handler relays unchanged, later bytes
    // may skip user space altogether.
    if (count == CLIENT_READ_SIZE && handler->GetRequestRelayAllowance() > 0)
        m_spliceClient = true;
    return EMove::More;
}

std::optional<CRelayPump::EMove> CRelayPump::SpliceClientBytes(IConnectionProtocol& handler)
{
    const unsigned long long allowance = handler.GetRequestRelayAllowance();
    const int most = static_cast<int>(std::min<unsigned long long>(CLIENT_SPLICE_SIZE, allowance));
    const int taken = m_link.Get()->SendFrom(m_client.GetSocket(), most);
    if (taken > 0) {
        m_owner.OnRelayed(true, taken);
        handler.OnRequestRelayed(static_cast<unsigned long long>(taken));
        return EMove::More;
    }
    if (taken == IZRTDataLayer::SEND_SOCKET_ENDED)
        return EMove::ClientEnded;
    if (taken == IZRTDataLayer::SEND_SOCKET_FAILED)
        return EMove::ClientFailed;
    if (taken == IZRTDataLayer::SEND_NOTHING_NOW)
        return EMove::Wait;
    return std::nullopt;
}

CRelayPump::EMove CRelayPump::MoveHostBytes(IConnectionProtocol& handler)
{
    IZRTDataLayer* link = m_link.Get();
    if (!link) {
        m_hostPending = false;
        return EMove::Wait;
    }
    const unsigned long long allowance = handler.GetResponseRelayAllowance();
    if (m_spliceHost && m_link.GetReaderFd() >= 0 && allowance > 0 && m_client.GetBacklog() == 0) {
        if (const std::optional<EMove> spliced = SpliceHostBytes(handler, allowance))
            return *spliced;
    }
    return ReadHostBytes(*link, handler);
}

CRelayPump::EMove CRelayPump::ReadHostBytes(IZRTDataLayer& link, IConnectionProtocol& handler)
{
    const QOX::CScratchLoan buffer;
    const int wanted = FitClientRoom(HOST_READ_SIZE);
    const int count = link.ReceiveData(buffer.Get(), wanted);
    if (count > 0) {
        m_owner.OnRelayed(false, count);
        // A read passed on unchanged leaves in its one send; what the handler makes of any
        // other (a head it rewrote and the body read with it) is held to leave in one write.
        const bool rewrites = handler.GetResponseRelayAllowance() < static_cast<unsigned long long>(count);
        if (rewrites)
            m_client.BeginHold();
        handler.HandleResponse(reinterpret_cast<const char*>(buffer.Get()), count);
        if (rewrites && !m_client.EndHold())
            return EMove::ClientFailed;
        // A full read means a stream in full flow: once the handler relays unchanged, later
        // bytes may skip user space altogether.
        if (count == wanted && handler.GetResponseRelayAllowance() > 0)
            m_spliceHost = true;
        return EMove::More;
    }
    m_hostPending = false;
    // -1 means the end only from a link that said so (half-close, or a reader attached).
    const bool ended = count < 0 && (m_link.HalfCloses() || m_link.GetReaderFd() >= 0);
    return ended || m_link.GetState() == CHostLink::EState::Closed ? EMove::HostEnded : EMove::Wait;
}

int CRelayPump::FitClientRoom(int most)
{
    const long room = m_client.GetSendRoom(most);
    return room < 0 ? most : std::min(most, std::max(static_cast<int>(room), MIN_ROOM_MOVE));
}

std::optional<CRelayPump::EMove> CRelayPump::SpliceHostBytes(IConnectionProtocol& handler, unsigned long long allowance)
{
    const int size = m_hostSpliced < HOST_SPLICE_RAMP ? HOST_SPLICE_START : HOST_SPLICE_SIZE;
    const int most = FitClientRoom(static_cast<int>(std::min<unsigned long long>(size, allowance)));
    const int moved = m_link.Get()->ReceiveInto(m_client.GetSocket(), most);
    if (moved > 0) {
        m_hostSpliced += static_cast<unsigned long long>(moved);
        m_client.NoteSpliced(static_cast<unsigned long long>(moved));
        m_owner.OnRelayed(false, moved);
        handler.OnResponseRelayed(static_cast<unsigned long long>(moved));
        return EMove::More;
    }
    if (moved == IZRTDataLayer::RECEIVE_NOTHING_NOW) {
        m_hostPending = false;
        return EMove::Wait;
    }
    if (moved == IZRTDataLayer::RECEIVE_END)
        return EMove::HostEnded;
    if (moved == IZRTDataLayer::RECEIVE_SOCKET_FAILED)
        return EMove::ClientFailed;
    return std::nullopt;
}

} // namespace Proxy
} // namespace ZRT
