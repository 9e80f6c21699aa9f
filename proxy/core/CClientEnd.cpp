#include "proxy/core/CClientEnd.h"

#include <errno.h>
#include <sys/ioctl.h>
#if defined(__linux__)
#include <linux/sockios.h>
#endif
#include <sys/socket.h>

#include <algorithm>

#include "transport/CByteBufferList.h"
#include "transport/CSocketUtils.h"

namespace ZRT {
namespace Proxy {

namespace {
// Reads what the client sent and nobody will handle, so closing sends FIN rather than a reset
// that could destroy bytes still on their way to the client.
void DiscardPendingInput(int socket)
{
    char scratch[4096];
    for (int i = 0; i < 64; ++i) {
        if (recv(socket, scratch, sizeof(scratch), MSG_DONTWAIT) <= 0)
            return;
    }
}
} // namespace

CClientEnd::~CClientEnd()
{
    Close(false);
}

CClientEnd::ERead CClientEnd::Read(char* buffer, int size, int& count)
{
    ssize_t got = 0;
    do {
        got = recv(m_socket, buffer, static_cast<size_t>(size), 0);
    } while (got < 0 && errno == EINTR);
    if (got > 0) {
        count = static_cast<int>(got);
        return ERead::Bytes;
    }
    if (got == 0)
        return ERead::Ended;
    return CSocketUtils::IsWouldBlock(errno) ? ERead::NothingNow : ERead::Failed;
}

bool CClientEnd::Send(const char* data, int length)
{
    if (m_socket < 0)
        return false;
    // Queued output goes first anyway: what is sent behind it waits there, not in the hold.
    if (m_output.empty() && m_hold.Keep(data, static_cast<size_t>(length)))
        return true;
    WriteHeld();
    return !m_holdFailed && Write(data, length);
}

bool CClientEnd::EndHold()
{
    if (!m_hold.End())
        return !m_holdFailed;
    WriteHeld();
    const bool failed = m_holdFailed;
    m_holdFailed = false;
    return !failed;
}

void CClientEnd::WriteHeld()
{
    const std::string held = m_hold.Take();
    if (!held.empty() && !Write(held.data(), static_cast<int>(held.size())))
        m_holdFailed = true;
}

bool CClientEnd::Write(const char* data, int length)
{
    if (m_socket < 0)
        return false;
    ssize_t sent = 0;
    if (m_output.empty()) {
        sent = CSocketUtils::SendSome(m_socket, data, static_cast<size_t>(length));
        m_written += static_cast<unsigned long long>(std::max<ssize_t>(sent, 0));
        if (sent < 0)
            return false;
    }
    if (sent < length)
        Queue(data + sent, length - static_cast<int>(sent));
    return true;
}

CClientEnd::EFlush CClientEnd::Flush()
{
    const unsigned int before = GetBacklog();
    unsigned int backlog = before;
    while (!m_output.empty() && m_socket >= 0) {
        CByteBuffer& front = *m_output.front();
        const size_t length = front.GetUnread();
        const ssize_t sent = CSocketUtils::SendSome(m_socket, front.GetData() + front.GetOffset(), length);
        m_written += static_cast<unsigned long long>(std::max<ssize_t>(sent, 0));
        if (sent < 0)
            return EFlush::Failed;
        backlog -= static_cast<unsigned int>(sent);
        if (static_cast<size_t>(sent) < length) {
            front.SetOffset(front.GetOffset() + static_cast<unsigned int>(sent));
            break;
        }
        CByteBufferList::ReclaimBuffer(m_output.front());
        m_output.pop_front();
    }
    m_backlog.store(backlog, std::memory_order_relaxed);
    if (backlog == before)
        return EFlush::Unchanged;
    const bool crossedLow = before >= LOW_WATER && backlog < LOW_WATER;
    return crossedLow || backlog == 0 ? EFlush::Drained : EFlush::Wrote;
}

void CClientEnd::Queue(const char* data, int length)
{
    int offset = 0;
    while (offset < length) {
        const int chunk = std::min(length - offset, static_cast<int>(CByteBufferList::POOLED_BUFFER_SIZE));
        m_output.push_back(CByteBufferList::GetBuffer(reinterpret_cast<const unsigned char*>(data + offset),
                                                      static_cast<unsigned int>(chunk)));
        m_backlog.store(GetBacklog() + static_cast<unsigned int>(chunk), std::memory_order_relaxed);
        offset += chunk;
    }
}

long CClientEnd::GetSendRoom(long wanted)
{
    if (m_sendBufferSize <= 0 || m_socket < 0)
        return -1;
    // What waits in the buffer is at most what was ever written: while that leaves room enough,
    // a short exchange costs no system call.
    if (m_written + static_cast<unsigned long long>(wanted) <= static_cast<unsigned long long>(m_sendBufferSize))
        return m_sendBufferSize - static_cast<long>(m_written);
#if defined(SIOCOUTQ)
    int waiting = 0;
    if (ioctl(m_socket, SIOCOUTQ, &waiting) != 0)
        return -1;
    return std::max(0L, static_cast<long>(m_sendBufferSize) - waiting);
#else
    return -1;
#endif
}

void CClientEnd::DropOutput()
{
    m_hold.Drop();
    m_output.clear();
    m_backlog.store(0, std::memory_order_relaxed);
}

void CClientEnd::ShutdownSend()
{
    WriteHeld(); // the end comes behind every byte sent before it
    if (m_socket >= 0)
        shutdown(m_socket, SHUT_WR);
}

void CClientEnd::Close(bool clientFinished)
{
    WriteHeld(); // sent before the close, as without the hold
    DropOutput();
    if (m_socket < 0)
        return;
    if (!clientFinished)
        DiscardPendingInput(m_socket);
    CSocketUtils::CloseSocket(m_socket);
    m_socket = -1;
}

const CTCPIPAddress& CClientEnd::GetLocalAddress() const
{
    if (!m_localAddress.IsEmpty() || m_socket < 0)
        return m_localAddress;
    sockaddr_storage storage{};
    socklen_t length = sizeof(storage);
    if (getsockname(m_socket, reinterpret_cast<sockaddr*>(&storage), &length) == 0)
        m_localAddress.SetAddress(*reinterpret_cast<sockaddr*>(&storage), length);
    return m_localAddress;
}

} // namespace Proxy
} // namespace ZRT
