#pragma once

#include <sys/socket.h>

namespace ZRT {

class IZRTDataLayerNotification;

// A stream link to a remote host, implemented by the host's transport and reference counted.
// Slot order is fixed: the engine is binary-compatible with hosts built against it.
class IZRTDataLayer {
public:
    virtual ~IZRTDataLayer() = default;
    virtual long AddRef() = 0;
    virtual long ReleaseRef() = 0;
    virtual void* GetReferencedObject() const = 0;

    // Copies up to size pending bytes; the count, or 0 or less when nothing is waiting now.
    virtual int ReceiveData(unsigned char* buffer, int size) = 0;
    // Queues the bytes for the remote end, in order. Never blocks for long.
    virtual int SendData(const unsigned char* data, int size) = 0;

    virtual bool GetLocalAddress(sockaddr* address, int* length) const = 0;
    virtual bool GetRemoteAddress(sockaddr* address, int* length) const = 0;

    virtual bool AddNotification(IZRTDataLayerNotification* sink) = 0;
    // After it returns, no call reaches the sink (unless made from inside that sink's own callback).
    virtual bool RemoveNotification(IZRTDataLayerNotification* sink) = 0;

    virtual bool IsConnected() const = 0;
    virtual unsigned int GetReceiveBacklog() const = 0;

    // Closes the link; registered sinks then get OnConnectionClosed.
    virtual void Disconnect() = 0;

    // Added for flow control: bytes accepted by SendData and not yet written to the peer.
    // Senders pause past a bound of their own and resume on OnSendDrained.
    virtual unsigned int GetSendBacklog() const { return 0; }
};

} // namespace ZRT
