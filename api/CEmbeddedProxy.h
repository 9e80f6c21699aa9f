#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "api/CHostHooks.h"
#include "api/CLogRelay.h"
#include "api/CMetricsServer.h"
#include "api/SEmbeddedSettings.h"
#include "host/CDirectServices.h"
#include "proxy/core/CProxy.h"
#include "zrtproxy/zrtproxy.h"

namespace QOX {
class CThreadPool;
}

namespace ZRT {
namespace Api {

// What a zrt_proxy_t handle is: the engine with the direct host services, set up by name and
// driven through the C interface. One thread at a time controls it (set_option, the setters,
// start, reload, stop) and reads GetLastError; GetPort, GetListenCount, GetListenPort and
// GetStats may be called from any thread at any time, callbacks included. The log, socket and
// accept hooks may be swapped from any thread (CHostHooks).
//
// Every host callback runs inside a CCallbackScope of this proxy; the controlling calls check
// IsInsideCallback first and return ZRT_E_REENTRANT rather than wait for their own thread (or
// race the controlling thread). Their reason is then the calling thread's (GetLastError).
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
    // Serves on a listening TCP socket of the host's: a duplicate of it is the proxy's from a
    // good start to the stop, and the host's socket is closed then; on an error it stays the
    // host's.
    int StartOnSocket(int socket);
    int Reload();
    // Does nothing (with the reason recorded and logged) from inside a callback.
    void Stop();
    // Opens the access log in use again by its name (after a rotation renamed it).
    int ReopenLogs();
    // Forgets the cached names and reads this machine's addresses again.
    int NetworkChanged();
    // True on a thread inside one of this proxy's callbacks; then the reason is recorded and
    // logged (once per start) as what the call named did not do.
    bool Refuses(const char* call);
    // Lines a log callback had to drop, counted with the library's own.
    void CountDroppedLogLines(uint64_t lines);
    int GetPort() const;
    int GetListenCount() const;
    // The port of the index-th listen address, or 0.
    int GetListenPort(int index) const;
    int GetMetricsPort() const { return m_metrics.GetPort(); }
    void GetStats(zrt_proxy_stats_t& stats) const;
    // The controlling thread's reason, or inside a callback the reason of that thread's last call.
    const std::string& GetLastError() const;

    // Any time, any thread: a call under way may still reach the old one. They leave the last
    // error alone: it is the controlling thread's.
    int SetLogCallback(CHostHooks::LogCallback callback, void* context);
    int SetSocketHook(CHostHooks::SocketHook hook, void* context);
    int SetPlainSocketHook(CHostHooks::PlainSocketHook hook, void* context);
    int SetAcceptHook(CHostHooks::AcceptHook hook, void* context);
    // While stopped: ZRT_E_RUNNING otherwise.
    int SetThreadHooks(CHostHooks::ThreadHook onStart, CHostHooks::ThreadHook onStop, void* context);
    int SetResolver(CHostHooks::Resolve resolve, void* context);

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
    // listen: the addresses served, whose first ones BIND listeners use.
    Host::SDirectHostSettings HostSettings(const std::vector<std::string>& listen);
    // Start with these addresses; adopted: a listening socket to use for the only one, or -1.
    int StartServing(const std::vector<std::string>& listen, int adopted);
    // Reads the users file and opens the access log; false with the reason.
    bool MakeLive(SLive& live, std::string& error) const;
    // Whether live would let every client in where the running proxy asks for a password,
    // without "auth none" saying so.
    bool DropsEveryUser(const SLive& live) const;
    void ApplyLive(const SLive& live);

    SEmbeddedSettings m_settings;
    CHostHooks m_hooks{this};
    // Whether this run logged a refused call from a callback already: a log callback that calls
    // stop would otherwise hear of it for ever.
    std::atomic<bool> m_refusalLogged{false};

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
