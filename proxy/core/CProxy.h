#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "proxy/core/IProxyObserver.h"
#include "runtime/Export.h"
#include "transport/IConnectionListener.h"
#include "transport/IDatagramHandler.h"
#include "transport/IResolveAddress.h"
#include "transport/IZRTMultiPointLayer.h"

namespace ZRT {
namespace Proxy {

class CProxyServer;

// The proxy a C++ host drives with services of its own: it listens on TCP ports, tells SOCKS5
// from HTTP clients by their first byte and reaches destinations only through the four host
// services given to StartProxy. Restartable. Settings go by name and text, as in the C
// interface (SetOption), and counters by number (GetCounter), so that neither a new setting nor
// a new counter changes this class: its layout and its virtual functions stay as they are for
// as long as the library's SONAME does.
//
// Threads: one thread at a time controls the proxy (StartProxy, StopProxy, the setters);
// GetListenPort, GetListenCount, GetConnectionCount and GetCounter may be called from any thread
// at any time. The proxy runs a few event threads (option "threads") that accept clients and
// serve many each; every call into a host service and the observer comes from those threads,
// from a connect helper thread for a layer that may block, or from inside a service's own
// callback. Service calls must not block, except such a layer's Connect.
// StopProxy waits for all of them, so no call comes afterwards: the services and the observer
// must outlive StopProxy (the destructor stops too). Never call StopProxy or the destructor
// from one of the proxy's own threads (an observer or service callback): it would wait for
// itself.
class ZRT_EXPORT CProxy {
public:
    enum EProxyMode { PROXY_MODE_DEFAULT = 0, PROXY_MODE_LOCAL = 1 };

    // SetOption's results, the values of the C interface's ZRT_OK, ZRT_E_UNKNOWN_OPTION,
    // ZRT_E_BAD_VALUE and ZRT_E_RUNNING.
    enum EOptionResult { OPTION_OK = 0, OPTION_UNKNOWN = -2, OPTION_BAD_VALUE = -3, OPTION_RUNNING = -4 };

    // What GetCounter reads: the fields of the C interface's zrt_proxy_stats_t after its size, in
    // their order. A number keeps its meaning; new counters come after the last.
    enum ECounter {
        COUNTER_CONNECTIONS_ACTIVE,
        COUNTER_CONNECTIONS_TOTAL,
        COUNTER_SOCKS5_TOTAL,
        COUNTER_HTTP_TOTAL,
        COUNTER_REFUSED_BAD_REQUEST,
        COUNTER_REFUSED_NO_DESTINATION,
        COUNTER_REFUSED_UNREACHABLE,
        COUNTER_BYTES_CLIENT_TO_HOST,
        COUNTER_BYTES_HOST_TO_CLIENT,
        COUNTER_UDP_DATAGRAMS_CLIENT_TO_HOST,
        COUNTER_UDP_DATAGRAMS_HOST_TO_CLIENT,
        COUNTER_REFUSED_NOT_ALLOWED,
        COUNTER_REFUSED_AUTH_FAILED,
        COUNTER_REFUSED_OVER_LIMIT,
        COUNTER_TIMED_OUT,
        COUNTER_REFUSED_DENIED,
        COUNTER_REFUSED_SOURCE_LIMIT,
        COUNTER_LOG_LINES_DROPPED,
        COUNTER_UDP_DATAGRAMS_DROPPED,
        COUNTER_HTTP_REQUESTS,
        COUNTER_HTTP_ORIGIN_REUSES
    };

    explicit CProxy(EProxyMode mode = PROXY_MODE_DEFAULT);
    virtual ~CProxy();
    CProxy(const CProxy&) = delete;
    CProxy& operator=(const CProxy&) = delete;

    // Listens on IPv4 loopback (127.0.0.1), as the C interface does by default; other addresses
    // with the overloads below. The resolver and the multi-point layer are required; a null
    // datagram handler refuses SOCKS5 UDP ASSOCIATE, a null connection listener refuses BIND.
    // While running, a start with the same services changes nothing; with others it restarts.
    virtual bool StartProxy(int port, IResolveAddress* resolver, IZRTMultiPointLayer* multiPointLayer,
                            IDatagramHandler* datagramHandler, IConnectionListener* connectionListener);
    // Closes the listening socket and every connection; returns when no thread of the proxy runs.
    virtual void StopProxy();
    virtual bool IsConnected();
    virtual IZRTMultiPointLayer* GetMultiPointLayer();

    // Listens on a numeric IPv4 or IPv6 address text, such as "127.0.0.1" or "::1" ("0.0.0.0":
    // every IPv4 interface, so anyone who reaches this machine may use the proxy). Port 0 picks
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
    // The port the first socket is bound to, or 0 when not started.
    int GetListenPort() const;
    // The port of the index-th socket, in the order of the addresses, or 0.
    int GetListenPort(size_t index) const;
    // How many sockets listen (0 when not started).
    size_t GetListenCount() const;
    size_t GetConnectionCount() const;
    EProxyMode GetMode() const;

    // One setting by the C interface's name and with its value syntax ("max-clients" "100",
    // "allow" "192.0.2.0/24", "idle-timeout" "600"); a null value puts the default back (or
    // empties a list). The engine's options: auth (USER:PASSWORD; crypt(3) hashes only through
    // the C interface), allow, max-clients, max-clients-per-source, handshake-timeout,
    // idle-timeout, linger-timeout, allow-destination, deny-destination, http-keep-alive,
    // connect-timeout, bind-timeout, lookup-timeout (how long the host's resolver may take;
    // default 30) and threads. Live ones reach the connections accepted from then on, also while
    // running; "threads" is read at start and gives OPTION_RUNNING while running. A reason for
    // any other result goes to *error when given.
    int SetOption(const char* name, const char* value, std::string* error = nullptr);
    // A counter since the proxy was made (ECounter); 0 for a number this library does not
    // know. Readable from any thread at any time.
    uint64_t GetCounter(int which) const;

    // The listen queue length, the observer and the hooks apply at the next start; set them while
    // stopped. The listen queue length (16 unless set). A server for bursts of clients wants SOMAXCONN.
    void SetListenBacklog(int backlog);
    // Told of starts, stops, finished connections and errors; null for none.
    void SetObserver(IProxyObserver* observer);
    // Run first and last on every thread the proxy starts (a JNI host attaches threads there).
    void SetThreadHooks(void (*onStart)(void* context), void (*onStop)(void* context), void* context);
    // Asked for each client right after accept, before a byte is read, on the accepting event
    // thread, with the client's and the local address: non-zero closes the client (counted as
    // COUNTER_REFUSED_NOT_ALLOWED). Null for none. Set it while stopped.
    void SetAcceptHook(int (*hook)(void* context, const sockaddr* client, const sockaddr* local), void* context);
    // The machine's network changed: forgets every cached name and reads this machine's own
    // addresses again; connections whose link leaves from an address that went end, the others
    // stay. The controlling thread's, while running.
    void NetworkChanged();

    // The engine behind this object, for the library's own C interface, tests and tools; not
    // part of the library's interface.
    ZRT_INTERNAL CProxyServer& GetServer();
    ZRT_INTERNAL const CProxyServer& GetServer() const;

private:
    struct SParts;
    std::unique_ptr<SParts> m_parts;
};

} // namespace Proxy
} // namespace ZRT
