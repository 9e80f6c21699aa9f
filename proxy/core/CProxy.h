#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "proxy/core/CProxyStats.h"
#include "proxy/core/IProxyObserver.h"
#include "proxy/core/SProxySettings.h"
#include "runtime/Export.h"
#include "transport/IConnectionListener.h"
#include "transport/IDatagramHandler.h"
#include "transport/IResolveAddress.h"
#include "transport/IZRTMultiPointLayer.h"

namespace QOX {
class CThreadPool;
}

namespace ZRT {
namespace Proxy {

class CProxyServer;

// The proxy a C++ host drives with services of its own: it listens on TCP ports, tells SOCKS5
// from HTTP clients by their first byte and reaches destinations only through the four host
// services given to StartProxy. Restartable.
//
// Threads: the proxy runs a few event threads (SProxySettings::eventThreads) that accept clients
// and serve many each; every call into a host service and the observer comes from those threads,
// from a connect helper thread for a layer that may block, or from inside a service's own
// callback. Service calls must not block, except such a layer's Connect.
// StopProxy waits for all of them, so no call comes afterwards: the services and the observer
// must outlive StopProxy (the destructor stops too). Never call StopProxy or the destructor
// from one of the proxy's own threads (an observer or service callback): it would wait for
// itself.
class ZRT_EXPORT CProxy {
public:
    enum EProxyMode { PROXY_MODE_DEFAULT = 0, PROXY_MODE_LOCAL = 1 };

    explicit CProxy(EProxyMode mode = PROXY_MODE_DEFAULT);
    virtual ~CProxy();
    CProxy(const CProxy&) = delete;
    CProxy& operator=(const CProxy&) = delete;

    // Listens on all IPv4 interfaces (0.0.0.0). The resolver and the multi-point layer are
    // required; a null datagram handler refuses SOCKS5 UDP ASSOCIATE, a null connection
    // listener refuses BIND. While running, a start with the same services changes nothing;
    // with others it restarts.
    virtual bool StartProxy(int port, IResolveAddress* resolver, IZRTMultiPointLayer* multiPointLayer,
                            IDatagramHandler* datagramHandler, IConnectionListener* connectionListener);
    // Closes the listening socket and every connection; returns when no thread of the proxy runs.
    virtual void StopProxy();
    virtual bool IsConnected();
    virtual IZRTMultiPointLayer* GetMultiPointLayer();

    // Listens on a numeric IPv4 or IPv6 address text, such as "127.0.0.1" or "::1". Port 0 picks
    // a free port (see GetListenPort).
    bool StartProxy(const std::string& listenAddress, int port, IResolveAddress* resolver,
                    IZRTMultiPointLayer* multiPointLayer, IDatagramHandler* datagramHandler,
                    IConnectionListener* connectionListener);
    // Listens on each of the addresses (at most 16, IPv4 and IPv6 mixed), one socket each, all
    // serving alike. Port 0 picks a free port per socket (see GetListenPort(index)).
    bool StartProxy(const std::vector<std::string>& listenAddresses, int port, IResolveAddress* resolver,
                    IZRTMultiPointLayer* multiPointLayer, IDatagramHandler* datagramHandler,
                    IConnectionListener* connectionListener);
    // Why the last StartProxy failed, in one line ("" after a good one).
    std::string GetStartError() const;
    // The port the first socket is bound to, or 0 when not started. Any thread.
    int GetListenPort() const;
    // The port of the index-th socket, in the order of the addresses, or 0. Any thread.
    int GetListenPort(size_t index) const;
    // How many sockets listen (0 when not started). Any thread.
    size_t GetListenCount() const;
    size_t GetConnectionCount() const;
    EProxyMode GetMode() const { return m_mode; }

    // The listen queue length, the observer and the hooks apply at the next start; set them while
    // stopped. The listen queue length (16 unless set). A server for bursts of clients wants SOMAXCONN.
    void SetListenBacklog(int backlog);
    // Settings for connections accepted from now on (also while running); false, and nothing
    // changes, when an allow entry is not a CIDR block.
    bool SetSettings(const SProxySettings& settings);
    SProxySettings GetSettings() const;
    // Told of starts, stops, finished connections and errors; null for none.
    void SetObserver(IProxyObserver* observer);
    // Run first and last on every thread the proxy starts (a JNI host attaches threads there).
    void SetThreadHooks(void (*onStart)(void* context), void (*onStop)(void* context), void* context);

    // Counters since the proxy was made; readable from any thread at any time.
    const CProxyStats& GetStats() const;

    // The engine behind this object, for the engine's own tests and tools.
    CProxyServer& GetServer() { return *m_server; }

private:
    const EProxyMode m_mode;
    // Declared first, so it goes last: the server's threads come from it.
    std::unique_ptr<QOX::CThreadPool> m_pool;
    std::unique_ptr<CProxyServer> m_server;
};

} // namespace Proxy
} // namespace ZRT
