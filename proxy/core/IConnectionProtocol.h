#pragma once

namespace ZRT {
namespace Proxy {

// What a connection asks of its protocol handler. Every operation runs on the connection's
// thread, one at a time; a handler keeps locks only for what host services' threads touch.
class IConnectionProtocol {
public:
    virtual ~IConnectionProtocol() = default;
    virtual void Init() = 0;
    // The exchange with the client is over: the handler lets go of every registration with a
    // host service (listeners, datagram handlers, lookups). Called once, before the destructor.
    virtual void Terminate() = 0;
    // A chunk from the client, 1 to 32768 bytes, in order.
    virtual void HandleRequest(const char* data, int length) = 0;
    // A chunk from the host link, in order; only after the link opened.
    virtual void HandleResponse(const char* data, int length) = 0;

    // Client bytes the handler holds that have not yet been handed to
    // the host: while this is over the connection's bound, the connection stops reading the
    // client.
    virtual unsigned int GetRequestBacklog() const { return 0; }
    // The connection's queue towards the client fell under its low-water mark.
    virtual void OnClientDrained() {}
    // True once every later host byte is to reach the client
    // unchanged, as HandleResponse would pass it on; the connection may then move host bytes to
    // the client without the handler. Once true it stays true.
    virtual bool PassesResponsesThrough() const { return false; }
    // The same for client bytes: true while HandleRequest would hand every client byte to
    // SendToHost unchanged and at once.
    virtual bool PassesRequestsThrough() const { return false; }

    static constexpr unsigned long long RELAY_ALL = ~0ull;
    // How many of the next host bytes go to the client unchanged and at once, as HandleResponse
    // would pass them on (a framed body's rest), so that the connection may move up to that many
    // without the handler and then tell it with OnResponseRelayed. RELAY_ALL: every later byte.
    virtual unsigned long long GetResponseRelayAllowance() const { return PassesResponsesThrough() ? RELAY_ALL : 0; }
    virtual void OnResponseRelayed(unsigned long long /*count*/) {}
    // The same for client bytes going to the host.
    virtual unsigned long long GetRequestRelayAllowance() const { return PassesRequestsThrough() ? RELAY_ALL : 0; }
    virtual void OnRequestRelayed(unsigned long long /*count*/) {}

    // The client finished sending. True when the exchange goes on without
    // it: the handler passed the end on (IProxyConnection::EndHostOutput), or will once the host
    // link it is opening is up. False ends the connection once what is queued for the client was
    // written.
    virtual bool HandleClientEnd() { return false; }
    // The host finished sending and every byte it sent went through HandleResponse. True lets
    // the connection end its sending to the client while client bytes still go to the host;
    // false ends the connection once what is queued for the client was written.
    virtual bool HandleHostEnd() { return false; }

    // The outcome of IProxyConnection::BeginConnectToHost.
    virtual void OnHostConnected(bool /*connected*/) {}
    // Something the handler's helpers finished on another thread is ready (WakeHandler).
    virtual void Resume() {}
    // The time set with IProxyConnection::SetHandlerTimer has come.
    virtual void OnTimer() {}
    // A descriptor of the handler's own (a UDP relay socket) that the connection polls for
    // input beside the client; -1 when none. Asked every turn.
    virtual int GetWatchedDescriptor() const { return -1; }
    // The watched descriptor is readable.
    virtual void OnDescriptorReady() {}
    // The protocol family, for the counters: "socks5", "socks4", "http", or "" for others.
    virtual const char* GetFamily() const { return ""; }
};

} // namespace Proxy
} // namespace ZRT
