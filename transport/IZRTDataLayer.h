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

    // Added so that one reader can take the link's bytes on its own thread, without a hop
    // through the transport's thread and its copy. Returns a descriptor to poll for POLLIN, or
    // -1 when the link works only through OnDataReceived (the default). From a successful call
    // on, the link no longer reads ahead and sends no OnDataReceived for new bytes: the reader
    // calls ReceiveData whenever the descriptor polls readable (bytes the link read before may
    // still be waiting: take them first). ReceiveData then returns -1 once the link's end has
    // been reached and nothing is left; OnConnectionClosed still comes after the last byte was
    // taken. The descriptor stays open until DetachReader; closing the link is deferred till then.
    virtual int AttachReader() { return -1; }
    // Gives reading back to the link; the descriptor from AttachReader must not be used any more.
    virtual void DetachReader() {}
};

} // namespace ZRT
