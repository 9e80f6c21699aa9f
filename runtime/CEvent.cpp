#include "runtime/CEvent.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cstdint>
#if defined(__linux__)
#include <sys/eventfd.h>
#endif

namespace QOX {

CEvent::CEvent(bool /*manualReset*/)
{
#if defined(__linux__)
    m_readFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    m_writeFd = m_readFd;
#else
    int fds[2];
    if (pipe(fds) == 0) {
        for (int fd : fds) {
            fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
            fcntl(fd, F_SETFD, FD_CLOEXEC);
        }
        m_readFd = fds[0];
        m_writeFd = fds[1];
    }
#endif
}

CEvent::~CEvent()
{
    if (m_writeFd >= 0 && m_writeFd != m_readFd)
        close(m_writeFd);
    if (m_readFd >= 0)
        close(m_readFd);
}

void CEvent::SignalEvent()
{
#if defined(__linux__)
    const uint64_t one = 1;
    ssize_t ignored = write(m_writeFd, &one, sizeof(one));
#else
    // One byte is enough: a full pipe is already signalled.
    const char one = 1;
    ssize_t ignored = write(m_writeFd, &one, 1);
#endif
    (void)ignored;
}

void CEvent::ResetEvent()
{
    unsigned char drain[64];
    while (read(m_readFd, drain, sizeof(drain)) > 0) {
#if defined(__linux__)
        break; // one read empties an eventfd counter
#endif
    }
}

bool CEvent::IsSignalled() const
{
    pollfd entry{m_readFd, POLLIN, 0};
    return poll(&entry, 1, 0) > 0 && (entry.revents & POLLIN);
}

} // namespace QOX
