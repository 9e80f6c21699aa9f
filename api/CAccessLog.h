#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "proxy/core/IProxyObserver.h"

namespace ZRT {
namespace Api {

// The access log: one line per finished connection, fields separated by spaces:
//   TIME CLIENT PROTOCOL USER DESTINATION RESULT BYTES-UP BYTES-DOWN DURATION-MS
// with the time in ISO 8601 (UTC, milliseconds). Each line is one append write, so lines from
// many threads never mix and no lock is needed; a reopen (log rotation) makes a new object.
class CAccessLog {
public:
    // path "-" is standard output. Null with the reason when the file cannot be opened.
    static std::shared_ptr<CAccessLog> Open(const std::string& path, std::string& error);
    ~CAccessLog();
    CAccessLog(const CAccessLog&) = delete;
    CAccessLog& operator=(const CAccessLog&) = delete;

    void Write(const Proxy::SConnectionRecord& record) const;
    static std::string FormatLine(const Proxy::SConnectionRecord& record, std::chrono::system_clock::time_point when);

private:
    CAccessLog(int descriptor, bool owned) : m_descriptor(descriptor), m_owned(owned) {}

    const int m_descriptor;
    const bool m_owned;
};

} // namespace Api
} // namespace ZRT
