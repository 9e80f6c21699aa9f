#pragma once

#include <memory>
#include <string>

#include "api/CLogRelay.h"
#include "api/CMetricsServer.h"
#include "api/SEmbeddedSettings.h"
#include "host/CDirectServices.h"
#include "proxy/core/CProxy.h"
#include "zrtproxy/zrtproxy.h"

namespace QOX {
class CThreadPool;
}

// What a resolver hook is handed for each lookup: the way back to the name service. Freed by
// zrt_lookup_answer.
struct zrt_lookup {
    ZRT::Host::SDirectHostSettings::LookupReply reply;
};

namespace ZRT {
namespace Api {

// What a zrt_proxy_t handle is: the engine with the direct host services, set up by name and
// driven through the C interface. One thread at a time controls it (set_option, the setters,
// start, reload, stop) and reads GetLastError; GetPort, GetListenCount, GetListenPort and
// GetStats may be called from any thread at any time, callbacks included.
//
// Start and Reload make the whole new live state (users read and checked, the access log
// opened) before anything changes, and put it in place only when all of it worked; a reload
// that would drop every user without "auth none" is refused.
class CEmbeddedProxy {
public:
    CEmbeddedProxy();
    // Stops first.
    ~CEmbeddedProxy();
    CEmbeddedProxy(const CEmbeddedProxy&) = delete;
    CEmbeddedProxy& operator=(const CEmbeddedProxy&) = delete;

    int SetOption(const char* name, const char* value);
    int Start();
    int Reload();
    void Stop();
    // Opens the access log in use again by its name (after a rotation renamed it).
    int ReopenLogs();
    // Lines a log callback had to drop, counted with the library's own.
    void CountDroppedLogLines(uint64_t lines);
    int GetPort() const;
    int GetListenCount() const;
    // The port of the index-th listen address, or 0.
    int GetListenPort(int index) const;
    int GetMetricsPort() const { return m_metrics.GetPort(); }
    void GetStats(zrt_proxy_stats_t& stats) const;
    const std::string& GetLastError() const { return m_lastError; }

    void SetLogCallback(CLogRelay::Callback callback, void* context);
    void SetThreadHooks(void (*onStart)(void*), void (*onStop)(void*), void* context);
    void SetSocketHook(int (*hook)(void* context, int socket), void* context);
    void SetResolver(void (*resolve)(void* context, const char* name, zrt_lookup_t* lookup), void* context);

private:
    // What a start or a reload puts in place of the live settings.
    struct SLive {
        Proxy::SProxySettings proxy;
        std::shared_ptr<const CAccessLog> accessLog;
    };

    // Records why the call failed; returns code.
    int Fail(int code, const std::string& reason);
    int Succeed();
    bool IsRunning() const { return m_host != nullptr; }
    Host::SDirectHostSettings HostSettings() const;
    // Reads the users file and opens the access log; false with the reason.
    bool MakeLive(SLive& live, std::string& error) const;
    // Whether live would let every client in where the running proxy asks for a password,
    // without "auth none" saying so.
    bool DropsEveryUser(const SLive& live) const;
    void ApplyLive(const SLive& live);

    SEmbeddedSettings m_settings;
    void (*m_threadStart)(void*) = nullptr;
    void (*m_threadStop)(void*) = nullptr;
    void* m_threadContext = nullptr;
    int (*m_socketHook)(void*, int) = nullptr;
    void* m_socketContext = nullptr;
    void (*m_resolve)(void*, const char*, zrt_lookup_t*) = nullptr;
    void* m_resolveContext = nullptr;

    CLogRelay m_log;
    // The threads of this layer (the log writer, the metrics listener), with the host's hooks; made
    // per start.
    std::unique_ptr<QOX::CThreadPool> m_pool;
    // Declared before the proxy, so it goes after it: the proxy uses its services to the end.
    std::unique_ptr<Host::CDirectServices> m_host;
    Proxy::CProxy m_proxy;
    CMetricsServer m_metrics;
    std::string m_lastError; // the controlling thread's
};

} // namespace Api
} // namespace ZRT
