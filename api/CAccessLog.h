#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>

#include "proxy/core/IProxyObserver.h"

namespace ZRT {
namespace Api {

// An open access log: a file (created if missing, appended to), a FIFO, or standard output ("-"),
// written without ever blocking. The lines: one per client, fields separated by spaces:
//   TIME CLIENT PROTOCOL USER DESTINATION RESULT BYTES-UP BYTES-DOWN DURATION-MS METHOD STATUS
// (one line per request of a persistent HTTP connection, its method and status; "- -" otherwise)
// with the time in ISO 8601 (UTC, milliseconds) and every field escaped (CLogText).
//
// A FIFO that nobody has open for reading is opened anyway: the log then holds a reading end
// itself, so lines fill the pipe (then are dropped and counted) until a reader comes, which gets
// them from there on. Standard output that is a pipe or a terminal is written through a
// description of its own with O_NONBLOCK where the system offers one (/proc/self/fd), since the
// inherited one may be shared with a shell whose flags must stay; a socket is sent to with
// MSG_DONTWAIT; anything else is written only when poll says it takes a line.
//
// Threads: Open and FormatLine on any thread; Write on the log writer only. A reopen (log
// rotation) makes a new object.
class CAccessLog {
public:
    // Null with the reason when the log cannot be opened.
    static std::shared_ptr<CAccessLog> Open(const std::string& path, std::string& error);
    ~CAccessLog();
    CAccessLog(const CAccessLog&) = delete;
    CAccessLog& operator=(const CAccessLog&) = delete;

    // Writes what the log takes now: the number of bytes, 0 when it takes nothing now, -1 when it
    // failed (a pipe without reader, a full disk): those bytes are lost.
    ssize_t Write(const char* data, size_t size) const;
    // Polled for POLLOUT while bytes wait.
    int GetDescriptor() const { return m_descriptor; }
    const std::string& GetPath() const { return m_path; }

    static std::string FormatLine(const Proxy::SConnectionRecord& record, std::chrono::system_clock::time_point when);

private:
    enum class EMode { Direct, Send, Polled };

    CAccessLog(std::string path, int descriptor, bool owned, EMode mode, int reader = -1)
        : m_path(std::move(path)), m_descriptor(descriptor), m_owned(owned), m_mode(mode), m_reader(reader)
    {
    }
    static std::shared_ptr<CAccessLog> OpenStandardOutput();

    const std::string m_path;
    const int m_descriptor;
    const bool m_owned;
    const EMode m_mode;
    const int m_reader; // the log's own reading end of a FIFO nobody else read, or -1
};

} // namespace Api
} // namespace ZRT
