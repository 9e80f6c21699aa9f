#pragma once

#include <string>

#include "proxy/core/IProxyObserver.h"

namespace ZRT {
namespace Api {

// Hears the proxy's events and hands each to the host's log callback as one line of text.
// The callback may run on several of the proxy's threads at once.
class CLogRelay : public Proxy::IProxyObserver {
public:
    using Callback = void (*)(void* context, int level, const char* line);

    // Set while the proxy is stopped.
    void SetCallback(Callback callback, void* context)
    {
        m_callback = callback;
        m_context = context;
    }

    // "client protocol user destination result bytes-up bytes-down duration-ms": the fields of
    // an access log line after its time.
    static std::string Describe(const Proxy::SConnectionRecord& record);

    void OnStarted(const std::string& address, int port) override;
    void OnStopped() override;
    void OnConnectionFinished(const Proxy::SConnectionRecord& record) override;
    void OnError(const std::string& text) override;

private:
    void Emit(int level, const std::string& line) const;

    Callback m_callback = nullptr;
    void* m_context = nullptr;
};

} // namespace Api
} // namespace ZRT
