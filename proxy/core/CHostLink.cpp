#include "proxy/core/CHostLink.h"

namespace ZRT {
namespace Proxy {

CHostLink::~CHostLink()
{
    Close(false);
}

bool CHostLink::Install(const LinkPtr& link, EState state)
{
    if (m_link || !link)
        return false;
    m_link = link;
    m_current = link.Get();
    m_state = state;
    // Before the notifications, so the link never starts reading ahead on its own thread.
    m_readerFd = link->AttachReader();
    link->AddNotification(&m_sink);
    m_halfCloses = link->EnableHalfClose();
    m_listener.OnLinkTaken();
    return true;
}

bool CHostLink::GetLocalAddress(sockaddr_storage& address) const
{
    int length = sizeof(address);
    return m_link && m_link->GetLocalAddress(reinterpret_cast<sockaddr*>(&address), &length);
}

void CHostLink::MarkOpen()
{
    m_state = EState::Open;
    if (m_link && m_readerFd < 0)
        m_readerFd = m_link->AttachReader();
}

void CHostLink::MarkClosed()
{
    if (m_state == EState::Open)
        m_state = EState::Closed;
}

CHostLink::LinkPtr CHostLink::Detach()
{
    WriteHeld();
    if (!m_link)
        return {};
    LinkPtr link = std::move(m_link);
    m_link.Reset();
    m_current = nullptr;
    // After this no report of the link reaches the connection, so nothing outlives it.
    link->RemoveNotification(&m_sink);
    // Out of the connection's loop before the link takes its descriptor back.
    m_listener.OnLinkLeaving();
    if (m_readerFd >= 0)
        link->DetachReader();
    m_readerFd = -1;
    m_halfCloses = false;
    return link;
}

CHostLink::LinkPtr CHostLink::Release()
{
    LinkPtr link = Detach();
    m_state = EState::None;
    return link;
}

void CHostLink::Drop()
{
    const LinkPtr link = Release();
    if (link)
        link->Disconnect();
}

void CHostLink::Close(bool abort)
{
    const LinkPtr link = Detach();
    if (m_state != EState::None)
        m_state = EState::Closed;
    if (!link)
        return;
    if (abort)
        link->Abort();
    else
        link->Disconnect();
}

bool CHostLink::Send(const char* data, int length)
{
    if (m_state != EState::Open || !m_link)
        return false;
    if (m_hold.Keep(data, static_cast<size_t>(length)))
        return true;
    WriteHeld();
    m_link->SendData(reinterpret_cast<const unsigned char*>(data), length);
    return true;
}

void CHostLink::EndHold()
{
    if (m_hold.End())
        WriteHeld();
}

void CHostLink::WriteHeld()
{
    const std::string held = m_hold.Take();
    // Taken while the link was open: it gets them even if its peer closed since.
    if (!held.empty() && m_link)
        m_link->SendData(reinterpret_cast<const unsigned char*>(held.data()), static_cast<int>(held.size()));
}

bool CHostLink::EndOutput()
{
    WriteHeld(); // the end comes behind every byte sent before it
    return m_link && m_state == EState::Open && m_link->ShutdownSend();
}

} // namespace Proxy
} // namespace ZRT
