#include "host/CSplicePipe.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "transport/CSocketUtils.h"

namespace ZRT {
namespace Host {

CSplicePipe::~CSplicePipe()
{
    Close();
}

bool CSplicePipe::Open()
{
#if defined(__linux__)
    if (m_fds[0] >= 0)
        return true;
    if (pipe2(m_fds, O_NONBLOCK | O_CLOEXEC) != 0) {
        m_fds[0] = m_fds[1] = -1;
        return false;
    }
    fcntl(m_fds[1], F_SETPIPE_SZ, static_cast<int>(CAPACITY));
    return true;
#else
    return false;
#endif
}

void CSplicePipe::Close()
{
    CSocketUtils::CloseSocket(m_fds[0]);
    CSocketUtils::CloseSocket(m_fds[1]);
    m_fds[0] = m_fds[1] = -1;
    m_held = 0;
    m_sourceDry = false;
}

bool CSplicePipe::HasMore(int socket)
{
    int waiting = 0;
    return ioctl(socket, FIONREAD, &waiting) != 0 || waiting > 0;
}

void CSplicePipe::ReleaseIfIdle()
{
    // Only between bursts: a busy link fills and drains the same pipe, a quiet one holds none.
    if (m_held == 0 && m_sourceDry)
        Close();
}

CSplicePipe::EResult CSplicePipe::FillFrom(int socket, size_t max, size_t& count)
{
    count = 0;
#if defined(__linux__)
    const size_t wanted = std::min(max, Room());
    if (wanted == 0)
        return EResult::NothingNow;
    if (!Open())
        return EResult::Unsupported;
    ssize_t moved = 0;
    do {
        moved = splice(socket, nullptr, m_fds[1], nullptr, wanted, SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
    } while (moved < 0 && errno == EINTR);
    if (moved > 0) {
        m_held += static_cast<size_t>(moved);
        count = static_cast<size_t>(moved);
        // Asked once a move, far cheaper than the move: a burst that ended leaves no pipe behind.
        m_sourceDry = !HasMore(socket);
        return EResult::Moved;
    }
    m_sourceDry = true;
    if (moved == 0) {
        ReleaseIfIdle();
        return EResult::End;
    }
    if (CSocketUtils::IsWouldBlock(errno)) {
        ReleaseIfIdle();
        return EResult::NothingNow;
    }
    if (errno == EINVAL || errno == ENOSYS)
        return EResult::Unsupported;
    m_error = errno;
    return EResult::Failed;
#else
    (void)socket;
    (void)max;
    return EResult::Unsupported;
#endif
}

CSplicePipe::EResult CSplicePipe::DrainTo(int socket, size_t& count)
{
    count = 0;
#if defined(__linux__)
    while (m_held > 0) {
        const ssize_t moved = splice(m_fds[0], nullptr, socket, nullptr, m_held, SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
        if (moved > 0) {
            m_held -= static_cast<size_t>(moved);
            count += static_cast<size_t>(moved);
            continue;
        }
        if (moved < 0 && errno == EINTR)
            continue;
        if (moved < 0 && CSocketUtils::IsWouldBlock(errno))
            break;
        m_error = moved < 0 ? errno : EPIPE;
        if (m_error == EPIPE)
            CSocketUtils::ConsumeBrokenPipeSignal(); // splice has no MSG_NOSIGNAL
        return EResult::Failed;
    }
    ReleaseIfIdle();
    return count > 0 ? EResult::Moved : EResult::NothingNow;
#else
    (void)socket;
    return EResult::Unsupported;
#endif
}

void CSplicePipe::DrainInto(CByteQueue& queue)
{
    if (m_held == 0) {
        ReleaseIfIdle();
        return;
    }
    unsigned char chunk[16 * 1024];
    while (m_held > 0) {
        const ssize_t got = read(m_fds[0], chunk, std::min(m_held, sizeof(chunk)));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break; // cannot happen: the pipe holds m_held bytes
        queue.Append(chunk, static_cast<size_t>(got));
        m_held -= static_cast<size_t>(got);
    }
    // The bytes go on through user space; the pipe is taken again when splicing resumes.
    Close();
}

} // namespace Host
} // namespace ZRT
