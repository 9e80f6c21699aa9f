#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "api/CAccessLog.h"
#include "proxy/core/IProxyObserver.h"

namespace ZRT {
namespace Api {

// Hears the proxy's events and hands each to the host's log callback as one line of text (up
// to the level set), and finished connections to the access log. The callback may run on
// several of the proxy's threads at once.
class CLogRelay : public Proxy::IProxyObserver {
public:
    using Callback = void (*)(void* context, int level, const char* line);

    // Set while the proxy is stopped.
    void SetCallback(Callback callback, void* context)
    {
        m_callback = callback;
        m_context = context;
    }
    // Any time: lines above the level are dropped; the access log is swapped whole.
    void SetLevel(int level) { m_level = level; }
    void SetAccessLog(std::shared_ptr<const CAccessLog> log);

    // "client protocol user destination result bytes-up bytes-down duration-ms": the fields of
    // an access log line after its time.
    static std::string Describe(const Proxy::SConnectionRecord& record);

    void OnStarted(const std::string& address, int port) override;
    void OnStopped() override;
    void OnConnectionFinished(const Proxy::SConnectionRecord& record) override;
    void OnError(const std::string& text) override;

    // A line of the host's own (the C interface's start and reload problems).
    void Emit(int level, const std::string& line) const;

private:
    Callback m_callback = nullptr;
    void* m_context = nullptr;
    std::atomic<int> m_level{4};
    // Guards m_accessLog: held only to copy the pointer, never while writing.
    mutable std::mutex m_mutex;
    std::shared_ptr<const CAccessLog> m_accessLog;
};

} // namespace Api
} // namespace ZRT
