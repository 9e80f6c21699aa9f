#pragma once

#include <string>

#include "proxy/core/IProxyObserver.h"
#include "runtime/CRefCountPtr.h"
#include "transport/IConnectionListener.h"
#include "transport/IDatagramHandler.h"
#include "transport/IZRTConnectionAddress.h"
#include "transport/IZRTDataLayer.h"

namespace ZRT {
namespace Proxy {

class CAddressManager;
class CLoginGuard;
class COriginPool;
class CProxyStats;
struct SProxySettings;

// What a protocol handler may ask of the client connection that owns it. The handler is only
// ever called on the connection's thread, and calls these there too, except WakeHandler,
// WakeConnection and CountDatagram, which helpers of the handler may call from any thread.
class IProxyConnection {
public:
    virtual ~IProxyConnection() = default;
    virtual const IZRTConnectionAddress& GetClientAddress() const = 0;
    virtual unsigned int GetClientPort() const = 0;
    virtual int GetID() const = 0;
    virtual bool IsConnectedToHost() const = 0;
    virtual bool IsConnectedToClient() const = 0;
    // Ends the exchange with the client: only the first call has an effect, and it takes effect
    // after the handler's current call has returned. The handler's Terminate follows once,
    // what was already given to SendToClient is still written, then the client socket is closed.
    // From this call on, IsConnectedToClient is false and SendToClient refuses.
    virtual void DisconnectClient() = 0;
    virtual bool SendToHost(const char* data, int length) = 0;
    // Never drops bytes: what the socket does not take now is queued and written in order by the
    // connection's thread. False only when the client is gone (while the connection holds a
    // handler's sends to write them together, a failure is learnt when they are written).
    virtual bool SendToClient(const char* data, int length) = 0;
    virtual IDatagramHandler* GetDatagramHandler() = 0;
    virtual IConnectionListener* GetConnectionListener() = 0;

    // Bytes given to SendToClient that the client has not taken yet (held sends, at most 16 KiB
    // until the handler returns, not counted).
    virtual unsigned int GetClientBacklog() const = 0;
    // The handler's own buffers drained (its GetRequestBacklog fell): the connection re-evaluates
    // whether it may read the client again.
    virtual void WakeConnection() = 0;

    // Starts opening the host link and
    // returns at once; the outcome reaches the handler's OnHostConnected on the connection's
    // thread (never inside this call). False, with no call later, when a link exists or is being
    // opened, or the destination is empty.
    virtual bool BeginConnectToHost(QOX::CRefCountPtr<IZRTConnectionAddress> destination) = 0;
    // Makes an open link (the peer of a SOCKS5 BIND, an idle origin connection) the host link,
    // as if it had been opened for this connection. False when a host link exists already.
    virtual bool AdoptHostLink(QOX::CRefCountPtr<IZRTDataLayer> link) = 0;
    // Lets go of the host link without closing it (an origin connection that answered cleanly,
    // for the next request; or one that closed, for the caller to close); the connection may then
    // open or adopt another. Empty when there is no link.
    virtual QOX::CRefCountPtr<IZRTDataLayer> ReleaseHostLink() = 0;
    // Why the last BeginConnectToHost failed, as an errno value (ETIMEDOUT when its time ran
    // out, ECONNREFUSED when nothing more precise is known); 0 after a success.
    virtual int GetConnectFailure() const = 0;
    // The proxy's idle origin connections.
    virtual COriginPool& GetOriginPool() = 0;
    // Passes the client's end of sending on to the host, after every byte given to SendToHost.
    // False when the host link cannot end one direction alone.
    virtual bool EndHostOutput() = 0;
    // Asks for the handler's Resume on the connection's thread, soon; any thread. Helpers that
    // complete on other threads (name lookups, listeners) call it.
    virtual void WakeHandler() = 0;
    // The handler's OnTimer is called once, on the connection's thread, after this many
    // milliseconds; -1 cancels. Setting it again replaces the earlier time.
    virtual void SetHandlerTimer(int milliseconds) = 0;
    // The name cache of the proxy this connection belongs to.
    virtual CAddressManager& GetAddressManager() = 0;
    // What the proxy knows about logins (slowed addresses, verified passwords).
    virtual CLoginGuard& GetLoginGuard() = 0;
    // The proxy's own address as the client reached it (the accepted socket's local address).
    virtual const IZRTConnectionAddress& GetLocalAddress() const = 0;
    virtual const SProxySettings& GetSettings() const = 0;
    // Whether the destination rules let the client reach this resolved address (and port).
    virtual bool IsDestinationAllowed(const IZRTConnectionAddress& destination) = 0;

    // For the proxy's counters and logs: what the handler serves (socks5, http, connect,
    // udp, bind) and where to, as the client named it; and how the exchange ended, when not well.
    virtual void DescribeExchange(const char* protocol, const std::string& destination) = 0;
    virtual void SetOutcome(EOutcome outcome) = 0;
    virtual CProxyStats& GetStats() = 0;
    // The client's request is complete (negotiation, authentication and command, or a whole
    // HTTP header block): the handshake limit no longer applies, the idle limit from now on.
    virtual void MarkRequestComplete() = 0;
    // The user the client authenticated as (or tried to), for the record.
    virtual void SetUser(const std::string& user) = 0;
    // A datagram relayed for the client (UDP ASSOCIATE), with its payload bytes.
    virtual void CountDatagram(bool toHost, uint64_t payloadBytes) = 0;
    // One request of a persistent HTTP connection was answered with status: recorded on its
    // own (bytes and time since the previous one ended), and the next request starts afresh
    // (its own outcome, its own destination).
    virtual void FinishRequest(const std::string& method, int status) = 0;
};

} // namespace Proxy
} // namespace ZRT
