#include "runtime/CEvent.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#if defined(__linux__)
#include <sys/eventfd.h>
#endif

namespace QOX {

CEvent::CEvent(bool /*manualReset*/) {}

CEvent::~CEvent()
{
    const int readFd = m_readFd.load();
    if (m_writeFd >= 0 && m_writeFd != readFd)
        close(m_writeFd);
    if (readFd >= 0)
        close(readFd);
}

int CEvent::GetWaitHandle() const
{
    const int existing = m_readFd.load();
    if (existing >= 0)
        return existing;
    std::lock_guard<std::mutex> hold(m_mutex);
    if (m_readFd.load() >= 0)
        return m_readFd.load();
    int readFd = -1;
#if defined(__linux__)
    readFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    m_writeFd = readFd;
#else
    int fds[2];
    if (pipe(fds) == 0) {
        for (int fd : fds) {
            fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
            fcntl(fd, F_SETFD, FD_CLOEXEC);
        }
        readFd = fds[0];
        m_writeFd = fds[1];
    }
#endif
    if (readFd < 0)
        return -1;
    if (m_signalled.load())
        WriteSignalLocked();
    m_readFd.store(readFd);
    return readFd;
}

void CEvent::WriteSignalLocked() const
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

void CEvent::DrainLocked() const
{
    unsigned char drain[64];
    while (read(m_readFd.load(), drain, sizeof(drain)) > 0) {
#if defined(__linux__)
        break; // one read empties an eventfd counter
#endif
    }
}

void CEvent::SignalEvent()
{
    std::lock_guard<std::mutex> hold(m_mutex);
    if (m_signalled.exchange(true))
        return;
    if (m_readFd.load() >= 0)
        WriteSignalLocked();
}

void CEvent::ResetEvent()
{
    std::lock_guard<std::mutex> hold(m_mutex);
    if (!m_signalled.exchange(false))
        return;
    if (m_readFd.load() >= 0)
        DrainLocked();
}

} // namespace QOX
