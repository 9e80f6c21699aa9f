#include "api/CAccessLog.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "api/CLogRelay.h"
#include "transport/CSocketUtils.h"

namespace ZRT {
namespace Api {

std::shared_ptr<CAccessLog> CAccessLog::Open(const std::string& path, std::string& error)
{
    if (path == "-")
        return OpenStandardOutput();
    const int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    int descriptor = open(path.c_str(), flags, 0640);
    int reader = -1;
    if (descriptor < 0 && errno == ENXIO) {
        // A FIFO without a reader: be one, so that the open need not wait for another.
        reader = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (reader >= 0)
            descriptor = open(path.c_str(), flags, 0640);
    }
    if (descriptor < 0) {
        error = "cannot open the access log " + path + ": " + std::strerror(errno);
        if (reader >= 0)
            close(reader);
        return nullptr;
    }
    return std::shared_ptr<CAccessLog>(new CAccessLog(path, descriptor, true, EMode::Direct, reader));
}

std::shared_ptr<CAccessLog> CAccessLog::OpenStandardOutput()
{
    struct stat status {};
    if (fstat(STDOUT_FILENO, &status) == 0 && S_ISSOCK(status.st_mode))
        return std::shared_ptr<CAccessLog>(new CAccessLog("-", STDOUT_FILENO, false, EMode::Send));
    if (fstat(STDOUT_FILENO, &status) == 0 && S_ISREG(status.st_mode))
        return std::shared_ptr<CAccessLog>(new CAccessLog("-", STDOUT_FILENO, false, EMode::Direct));
    const int own = open("/proc/self/fd/1", O_WRONLY | O_APPEND | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (own >= 0)
        return std::shared_ptr<CAccessLog>(new CAccessLog("-", own, true, EMode::Direct));
    return std::shared_ptr<CAccessLog>(new CAccessLog("-", STDOUT_FILENO, false, EMode::Polled));
}

CAccessLog::~CAccessLog()
{
    if (m_owned)
        close(m_descriptor);
    if (m_reader >= 0)
        close(m_reader);
}

std::string CAccessLog::FormatLine(const Proxy::SConnectionRecord& record, std::chrono::system_clock::time_point when)
{
    const auto since = when.time_since_epoch();
    const time_t seconds = static_cast<time_t>(std::chrono::duration_cast<std::chrono::seconds>(since).count());
    const long millis = static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(since).count() % 1000);
    tm utc{};
    gmtime_r(&seconds, &utc);
    char stamp[40];
    const size_t length = strftime(stamp, sizeof(stamp), "%Y-%m-%dT%H:%M:%S", &utc);
    std::snprintf(stamp + length, sizeof(stamp) - length, ".%03ldZ", millis);
    return std::string(stamp) + " " + CLogRelay::Describe(record) + "\n";
}

ssize_t CAccessLog::Write(const char* data, size_t size) const
{
    for (;;) {
        ssize_t result = -1;
        switch (m_mode) {
        case EMode::Direct:
            result = write(m_descriptor, data, size);
            break;
        case EMode::Send:
            result = send(m_descriptor, data, size, MSG_DONTWAIT | MSG_NOSIGNAL);
            break;
        case EMode::Polled: {
            // Room for one page at least when poll says writable: a write of PIPE_BUF or less
            // then goes through at once.
            pollfd entry{m_descriptor, POLLOUT, 0};
            if (poll(&entry, 1, 0) != 1)
                return 0;
            result = write(m_descriptor, data, std::min<size_t>(size, PIPE_BUF));
            break;
        }
        }
        if (result >= 0)
            return result;
        if (errno == EINTR)
            continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK)
            return 0;
        if (errno == EPIPE)
            CSocketUtils::ConsumeBrokenPipeSignal();
        return -1;
    }
}

} // namespace Api
} // namespace ZRT
