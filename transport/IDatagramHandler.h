#pragma once

#include "transport/IDatagramReceiver.h"
#include "transport/IZRTConnectionAddress.h"

namespace ZRT {

// The host's service that exchanges UDP datagrams with remote hosts (SOCKS5 UDP ASSOCIATE).
class IDatagramHandler {
public:
    virtual ~IDatagramHandler() = default;
    // A handle, or -1 when no registration was made.
    virtual int RegisterReceiver(const IZRTConnectionAddress& address, IDatagramReceiver* receiver) = 0;
    // Afterwards no OnDatagramReceived reaches that receiver.
    virtual void UnregisterReceiver(int handle) = 0;
    virtual void SendDatagram(int handle, const IZRTConnectionAddress& destination, const unsigned char* data,
                              int length) = 0;
};

} // namespace ZRT
