#pragma once

namespace ZRT {
namespace Proxy {

// What a connection asks of its protocol handler. Init, HandleRequest and HandleResponse run on
// the connection's thread, one at a time; Terminate may come from any thread.
class IConnectionProtocol {
public:
    virtual ~IConnectionProtocol() = default;
    virtual void Init() = 0;
    virtual void Terminate() = 0;
    // A chunk from the client, 1 to 32768 bytes, in order.
    virtual void HandleRequest(const char* data, int length) = 0;
    // A chunk from the host link, in order; only after ConnectToHost succeeded.
    virtual void HandleResponse(const char* data, int length) = 0;

    // Added for flow control. Client bytes the handler holds that have not yet been handed to
    // the host (including a stream of its own whose send backlog it counts): while this is over
    // the connection's bound, the connection stops reading the client.
    virtual unsigned int GetRequestBacklog() const { return 0; }
    // Called on the connection's thread when its queue towards the client fell under its
    // low-water mark, so a handler that paused a producer can resume it.
    virtual void OnClientDrained() {}
    // Added for the relay fast path: true once every later host byte is to reach the client
    // unchanged, as HandleResponse would pass it on. The connection may then move host bytes to
    // the client without handing them to the handler. Asked on the connection's thread; once
    // true it stays true.
    virtual bool PassesResponsesThrough() const { return false; }
    // The same for client bytes: true while HandleRequest would hand every client byte to
    // SendToHost unchanged and at once, so the connection may send them without the handler.
    virtual bool PassesRequestsThrough() const { return false; }
};

} // namespace Proxy
} // namespace ZRT
