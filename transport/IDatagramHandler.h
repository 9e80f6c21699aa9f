#pragma once

#include "transport/IDatagramReceiver.h"
#include "transport/IZRTConnectionAddress.h"

namespace ZRT {

// The host's service that exchanges UDP datagrams with remote hosts (SOCKS5 UDP ASSOCIATE).
class IDatagramHandler {
public:
    virtual ~IDatagramHandler() = default;
    // Opens an endpoint towards the outside for one SOCKS5 UDP association: datagrams sent
    // through the handle leave from it, and datagrams that come back to it go to receiver.
    // address is what the client named in its request: where it says it will send from
    // (0.0.0.0 or :: and port 0 when it does not know). It is no local address to bind: the
    // engine filters the client's datagrams by it itself; a handler may use its family, or
    // ignore it (the direct host does). A handle, or -1 when no registration was made.
    virtual int RegisterReceiver(const IZRTConnectionAddress& address, IDatagramReceiver* receiver) = 0;
    // Afterwards no OnDatagramReceived reaches that receiver: one running on another thread is
    // waited for (the engine may free the receiver at once).
    virtual void UnregisterReceiver(int handle) = 0;
    virtual void SendDatagram(int handle, const IZRTConnectionAddress& destination, const unsigned char* data,
                              int length) = 0;
};

} // namespace ZRT
