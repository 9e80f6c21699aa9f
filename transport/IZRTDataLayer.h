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

    // Where the link leaves this host and its peer, in the socket form (*length: the room on
    // entry, the length used on return). The engine asks only for the local address, and only
    // after a network change, to end links that leave from an address that went (its SOCKS5
    // replies name 0.0.0.0). A link that is not IP (a tunnel, a pipe, a VPN's stream) returns
    // false and leaves both untouched.
    virtual bool GetLocalAddress(sockaddr* address, int* length) const = 0;
    virtual bool GetRemoteAddress(sockaddr* address, int* length) const = 0;

    virtual bool AddNotification(IZRTDataLayerNotification* sink) = 0;
    // After it returns, no call reaches the sink (unless made from inside that sink's own callback).
    virtual bool RemoveNotification(IZRTDataLayerNotification* sink) = 0;

    virtual bool IsConnected() const = 0;
    virtual unsigned int GetReceiveBacklog() const = 0;

    // Closes the link; registered sinks then get OnConnectionClosed. Bytes already given to
    // SendData are still written, within a bounded time.
    virtual void Disconnect() = 0;

    // Back-pressure: the engine stops reading its client while a link's GetSendBacklog (plus
    // what its protocol handler holds) is over SEND_BACKLOG_PAUSE, and reads again when the link
    // calls OnSendDrained, or at the latest SEND_BACKLOG_RECHECK_MS later, when it asks
    // GetSendBacklog again. So a link may keep marks of its own (or none): one that says
    // OnSendDrained once its backlog fell from above its high mark to under its low mark resumes
    // its sender at once; any other is polled at that pace while it holds the sender up.
    static constexpr unsigned int SEND_BACKLOG_PAUSE = 256 * 1024;
    static constexpr int SEND_BACKLOG_RECHECK_MS = 20;
    // Bytes accepted by SendData and not yet written to the peer.
    virtual unsigned int GetSendBacklog() const { return 0; }

    // Lets one reader take the link's bytes on its own thread, without a hop through the
    // transport's thread and its copy. Returns a descriptor to poll for POLLIN, or
    // -1 when the link works only through OnDataReceived (the default). From a successful call
    // on, the link no longer reads ahead and sends no OnDataReceived for new bytes: the reader
    // calls ReceiveData whenever the descriptor polls readable (bytes the link read before may
    // still be waiting: take them first). ReceiveData then returns -1 once the link's end has
    // been reached and nothing is left; OnConnectionClosed still comes after the last byte was
    // taken. The descriptor stays open until DetachReader; closing the link is deferred till then.
    virtual int AttachReader() { return -1; }
    // Gives reading back to the link; the descriptor from AttachReader must not be used any more.
    virtual void DetachReader() {}

    // Results of ReceiveInto besides a positive count.
    enum { RECEIVE_NOTHING_NOW = 0, RECEIVE_END = -1, RECEIVE_USE_RECEIVE_DATA = -2, RECEIVE_SOCKET_FAILED = -3 };
    // With a reader attached: moves up to size bytes of the link
    // straight into the connected, non-blocking stream socket `socket`, without copying them through user
    // space where the platform allows. Returns the count that reached the socket, or
    // RECEIVE_NOTHING_NOW, RECEIVE_END (as ReceiveData's -1), RECEIVE_SOCKET_FAILED (the socket
    // refused: the bytes stay with the link), or RECEIVE_USE_RECEIVE_DATA: take what the link
    // holds with ReceiveData now (bytes read ahead, or what the socket would not take), or the
    // link cannot do this at all. Bytes are never left in between: each one is either in the
    // socket or still with the link.
    virtual int ReceiveInto(int /*socket*/, int /*size*/) { return RECEIVE_USE_RECEIVE_DATA; }

    // Results of SendFrom besides a positive count.
    enum { SEND_NOTHING_NOW = 0, SEND_SOCKET_ENDED = -1, SEND_USE_SEND_DATA = -2, SEND_SOCKET_FAILED = -3 };
    // Reads up to size bytes from the connected, non-blocking
    // stream socket `socket` and sends them as SendData would, without copying them through the caller where
    // the platform allows. Returns the count taken from the socket, SEND_NOTHING_NOW (nothing to
    // read), SEND_SOCKET_ENDED (the socket's peer closed; nothing was taken), SEND_SOCKET_FAILED
    // (reading the socket failed), or SEND_USE_SEND_DATA: read the socket yourself and use
    // SendData (the link cannot do this now, or at all). Bytes taken are the link's, exactly as
    // if given to SendData, and count in GetSendBacklog until written.
    virtual int SendFrom(int /*socket*/, int /*size*/) { return SEND_USE_SEND_DATA; }

    // A sink that calls this (and gets true) takes the end of the peer's
    // sending apart from the closure: once every byte before the end was taken, ReceiveData
    // returns -1 (a sink hears OnDataReceived for it), and the link stays open for SendData.
    // OnConnectionClosed then comes when both directions have ended (the peer's end was taken and
    // ShutdownSend's end was written), on a failure or reset, or after Disconnect. False when the
    // link cannot (the default): the peer's end then closes the link, as before.
    virtual bool EnableHalfClose() { return false; }
    // Ends the sending direction (TCP: FIN) once every byte given to
    // SendData or SendFrom has been written; reading goes on. False when the link cannot; the
    // caller then ends the whole link instead.
    virtual bool ShutdownSend() { return false; }
    // For links from IZRTMultiPointLayer::BeginConnect: true while the
    // link is still being opened. Links that are returned open (the default) never are.
    virtual bool IsConnecting() const { return false; }
    // Why the link failed (connecting included), as an errno value (ECONNREFUSED, ETIMEDOUT,
    // EHOSTUNREACH, ENETUNREACH, ...), or 0 when it did not or cannot tell.
    virtual int GetFailure() const { return 0; }
    // Bytes given to SendData or SendFrom that the peer has not taken yet, including those the
    // link handed to the system that the peer did not acknowledge: more than 0 for long means a
    // peer that does not read. By default GetSendBacklog.
    virtual unsigned int GetUndeliveredBytes() const { return GetSendBacklog(); }
    // Closes the link at once: bytes not yet written are dropped (TCP: a reset instead of a
    // FIN), for a peer that stopped reading them. Sinks hear OnConnectionClosed as after
    // Disconnect. By default the same as Disconnect.
    virtual void Abort() { Disconnect(); }
    // Lets a reader learn the outcome of a connect without a hop through the transport's
    // thread: with a reader attached to a link that is still connecting, the reader
    // polls the descriptor for POLLOUT and calls this when it fires. The link then settles the
    // attempt (IsConnecting turns false; IsConnected tells the outcome) and tells its sinks as
    // usual. Does nothing while the attempt is still under way, and by default. A reader that
    // takes a connect over keeps its time limit too (it Disconnects an attempt that is too slow).
    virtual void CompleteConnect() {}
};

} // namespace ZRT
