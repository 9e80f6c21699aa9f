#pragma once

#include <memory>
#include <string>

#include "api/CAccessLog.h"
#include "api/CLogRateLimit.h"
#include "api/CLogWriter.h"
#include "proxy/core/CProxyStats.h"
#include "proxy/core/IProxyObserver.h"

namespace QOX {
class CThreadPool;
}

namespace ZRT {
namespace Api {

// Hears the proxy's events on whatever thread they happen and turns each into lines for the log
// writer, which alone writes them: a line for the host's log callback (up to the level set) and,
// for each client, an access-log line. Both are made here, with every field escaped (CLogText),
// so the thread that serves clients formats and queues, and never writes. Warnings of one cause
// from one address (failed logins, refusals by the allow list or a client limit) are rate-limited
// for the callback (CLogRateLimit); the access log keeps a line for every client.
//
// Threads: SetCallback at any time (as CLogWriter's); Start, Stop, SetAccessLog and GetAccessLogPath on the
// controlling thread; SetLevel, the observer operations and Emit on any thread.
class CLogRelay : public Proxy::IProxyObserver {
public:
    using Callback = CLogWriter::Callback;

    CLogRelay() : m_writer(m_limit) {}

    void SetCallback(Callback callback, void* context) { m_writer.SetCallback(callback, context); }
    // Lines above the level are neither made nor written.
    void SetLevel(int level) { m_writer.SetLevel(level); }
    // Swapped whole (a reload, a reopen); null for none.
    void SetAccessLog(std::shared_ptr<const CAccessLog> log) { m_writer.SetAccessLog(std::move(log)); }
    std::string GetAccessLogPath() const { return m_writer.GetAccessLogPath(); }
    // The writer thread, from the pool (the host's hooks run on it); false when none could start.
    bool Start(QOX::CThreadPool* pool, Proxy::CProxyStats& stats) { return m_writer.Start(pool, stats); }
    // Writes what was queued (never waiting for a sink) and ends the writer.
    void Stop() { m_writer.Stop(); }

    // "client protocol user destination result bytes-up bytes-down duration-ms": the fields of an
    // access-log line after its time, escaped, spaces within them too.
    static std::string Describe(const Proxy::SConnectionRecord& record);

    void OnStarted(const std::string& address, int port) override;
    void OnStopped() override;
    void OnConnectionFinished(const Proxy::SConnectionRecord& record) override;
    void OnError(const std::string& text) override;

    // A line of the host's own (start, reload); escaped like the rest.
    void Emit(int level, const std::string& line);

private:
    CLogRateLimit m_limit; // before the writer, which refers to it
    CLogWriter m_writer;
};

} // namespace Api
} // namespace ZRT
