#include "host/CUpstreamConnect.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "transport/CSocketUtils.h"

namespace ZRT {
namespace Host {

void CUpstreamConnect::Start(CSocketHandle socket, bool connected, const CUpstreamHandshake& handshake,
                             const QOX::CRefCountPtr<CTcpDataLayer>& link, CEventLoop& loop, int timeoutMs)
{
    QOX::CRefCountPtr<CUpstreamConnect> self(new CUpstreamConnect(std::move(socket), connected, handshake, link, loop));
    // A sink before anyone else has the link: its closure then always comes through the loop,
    // after Begin.
    link->AddNotification(self.Get());
    loop.Post([self, timeoutMs] { self->Begin(timeoutMs); });
}

CUpstreamConnect::CUpstreamConnect(CSocketHandle socket, bool connected, const CUpstreamHandshake& handshake,
                                   const QOX::CRefCountPtr<CTcpDataLayer>& link, CEventLoop& loop)
    : m_socket(std::move(socket)), m_phase(connected ? EPhase::Handshaking : EPhase::Connecting),
      m_handshake(handshake), m_link(link), m_loop(loop)
{
}

CUpstreamConnect::~CUpstreamConnect()
{
    // The loop stopped before the attempt ended: the link must not call this any more.
    if (m_link)
        m_link->RemoveNotification(this);
}

void CUpstreamConnect::Begin(int timeoutMs)
{
    if (m_phase == EPhase::Ended)
        return;
    QOX::CRefCountPtr<CUpstreamConnect> self(this);
    m_timer = m_loop.PostDelayed(timeoutMs, [self] {
        self->m_timer = 0;
        self->End(ETIMEDOUT);
    });
    Advance();
}

void CUpstreamConnect::OnEvents(uint32_t /*events*/)
{
    Advance();
}

void CUpstreamConnect::OnConnectionClosed(IZRTDataLayer& /*dataLayer*/)
{
    End(ECANCELED);
}

void CUpstreamConnect::Advance()
{
    for (;;) {
        switch (m_phase) {
        case EPhase::Connecting: {
            pollfd entry{m_socket.Get(), POLLOUT, 0};
            if (poll(&entry, 1, 0) == 0) {
                Watch(EPOLLOUT);
                return;
            }
            int error = 0;
            socklen_t length = sizeof(error);
            if (getsockopt(m_socket.Get(), SOL_SOCKET, SO_ERROR, &error, &length) != 0)
                error = errno;
            if (error != 0) {
                End(error);
                return;
            }
            m_phase = EPhase::Handshaking;
            break;
        }
        case EPhase::Handshaking: {
            const short wanted = m_handshake.Run(m_socket.Get());
            if (wanted != 0) {
                Watch(wanted == POLLIN ? EPOLLIN : EPOLLOUT);
                return;
            }
            End(m_handshake.GetStep() == CUpstreamHandshake::EStep::Done ? 0 : m_handshake.GetFailure());
            return;
        }
        case EPhase::Ended:
            return;
        }
    }
}

void CUpstreamConnect::End(int error)
{
    if (m_phase == EPhase::Ended)
        return;
    const QOX::CRefCountPtr<CUpstreamConnect> self(this); // the loop's reference may go below
    m_phase = EPhase::Ended;
    if (m_token != 0)
        m_loop.Remove(m_token, m_socket.Get());
    m_token = 0;
    if (m_timer != 0)
        m_loop.CancelDelayed(m_timer);
    m_timer = 0;
    const QOX::CRefCountPtr<CTcpDataLayer> link = std::move(m_link);
    link->RemoveNotification(this);
    // A link given up meanwhile takes no socket: it is closed here.
    const int socket = error == 0 ? m_socket.Release() : -1;
    if (!link->EndConnect(socket, error))
        CSocketUtils::CloseSocket(socket);
    m_socket.Reset();
}

void CUpstreamConnect::Watch(uint32_t events)
{
    if (m_token == 0) {
        m_token = m_loop.Add(m_socket.Get(), events, QOX::CRefCountPtr<IEventHandler>(this));
        if (m_token == 0)
            End(ENOMEM);
    } else if (events != m_watched) {
        m_loop.Modify(m_token, m_socket.Get(), events);
    }
    m_watched = events;
}

} // namespace Host
} // namespace ZRT
