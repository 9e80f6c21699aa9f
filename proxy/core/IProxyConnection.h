#pragma once

#include "runtime/CRefCountPtr.h"
#include "transport/IConnectionListener.h"
#include "transport/IDatagramHandler.h"
#include "transport/IZRTConnectionAddress.h"

namespace ZRT {
namespace Proxy {

// What a protocol handler may ask of the client connection that owns it.
// May be called from any thread; the connection guards its own state.
class IProxyConnection {
public:
    virtual ~IProxyConnection() = default;
    virtual const IZRTConnectionAddress& GetClientAddress() const = 0;
    virtual unsigned int GetClientPort() const = 0;
    virtual int GetID() const = 0;
    virtual bool IsConnectedToHost() const = 0;
    virtual bool IsConnectedToClient() const = 0;
    // At most one host link: false without doing anything when one exists.
    virtual bool ConnectToHost(QOX::CRefCountPtr<IZRTConnectionAddress> destination) = 0;
    // Only the first call has an effect: marks the client gone, calls the handler's Terminate once
    // and closes the client socket.
    virtual void DisconnectClient() = 0;
    virtual bool SendToHost(const char* data, int length) = 0;
    // Never drops bytes: what the socket does not take now is queued and written in order by the
    // connection's thread. False only when the client is gone.
    virtual bool SendToClient(const char* data, int length) = 0;
    virtual IDatagramHandler* GetDatagramHandler() = 0;
    virtual IConnectionListener* GetConnectionListener() = 0;

    // Added for flow control. Bytes given to SendToClient that the client has not taken yet;
    // a producer on another thread stops reading its source while this is high and resumes on
    // the handler's OnClientDrained.
    virtual unsigned int GetClientBacklog() const = 0;
    // The handler's own buffers drained (its GetRequestBacklog fell): the connection re-evaluates
    // whether it may read the client again.
    virtual void WakeConnection() = 0;
};

} // namespace Proxy
} // namespace ZRT
