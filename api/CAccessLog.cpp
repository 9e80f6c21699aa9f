#include "api/CAccessLog.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

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
        return std::shared_ptr<CAccessLog>(new CAccessLog(STDOUT_FILENO, false));
    const int descriptor = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
    if (descriptor < 0) {
        error = "cannot open the access log " + path + ": " + std::strerror(errno);
        return nullptr;
    }
    return std::shared_ptr<CAccessLog>(new CAccessLog(descriptor, true));
}

CAccessLog::~CAccessLog()
{
    if (m_owned)
        close(m_descriptor);
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

void CAccessLog::Write(const Proxy::SConnectionRecord& record) const
{
    const std::string line = FormatLine(record, std::chrono::system_clock::now());
    size_t written = 0;
    while (written < line.size()) {
        const ssize_t result = write(m_descriptor, line.data() + written, line.size() - written);
        if (result < 0 && errno == EINTR)
            continue;
        if (result < 0 && errno == EPIPE)
            CSocketUtils::ConsumeBrokenPipeSignal();
        if (result <= 0)
            return; // a full disk or a closed pipe costs the line, never the connection
        written += static_cast<size_t>(result);
    }
}

} // namespace Api
} // namespace ZRT
