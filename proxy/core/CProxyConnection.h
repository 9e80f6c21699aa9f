#pragma once

#include <atomic>
#include <deque>
#include <memory>

#include "proxy/core/IConnectionProtocol.h"
#include "proxy/core/IProxyConnection.h"
#include "runtime/CAtomicInt.h"
#include "runtime/CEvent.h"
#include "runtime/CRecursiveMutex.h"
#include "runtime/CRefCountPtr.h"
#include "runtime/CRefCount_Base.h"
#include "runtime/CThread.h"
#include "runtime/Export.h"
#include "transport/CByteBuffer.h"
#include "transport/CByteBufferList.h"
#include "transport/CTCPIPAddress.h"
#include "transport/IZRTDataLayer.h"
#include "transport/IZRTDataLayerNotification.h"
#include "transport/IZRTMultiPointLayer.h"

namespace ZRT {
namespace Proxy {

class CProxy;

// Serves one accepted client: owns the client socket, a thread and the link to the destination
// host, and feeds its protocol handler from both sides.
//
// Waiting: the thread sleeps in one poll() on the client socket (POLLIN while it may read, POLLOUT
// while output is queued), a wake event and the stop event; it never wakes periodically except
// during the short linger after the host link closed.
//
// Host bytes take one of two roads. With a link that offers a reader descriptor (AttachReader),
// this thread polls that descriptor beside the client socket and reads the link itself straight
// into the handler: no transport-thread hop, no copy into m_hostData. Otherwise the link's
// thread reports OnDataReceived, the bytes are copied into m_hostData and this thread pumps them.
//
// Flow control, per direction, by not reading the faster side:
//  - host to client: SendToClient writes what the socket takes and queues the rest; while that
//    queue is over CLIENT_OUTPUT_HIGH_WATER the thread stops handing host buffers to the handler,
//    and while m_hostData is over HOST_DATA_HIGH_WATER OnDataReceived leaves the bytes in the link
//    (which then stops reading its peer); the thread pulls the link again under the low marks.
//  - client to host: while the handler's request backlog plus the link's send backlog exceed
//    REQUEST_BACKLOG_LIMIT, the thread stops reading the client; WakeConnection and
//    OnSendDrained wake it to look again.
//
// Lifetime: reference counted. The thread holds a reference for its run, the host link one from a
// successful ConnectToHost until it reports its closure, each transport callback one for its
// duration. The connection leaves its server's set on its own thread, before the thread drops its
// reference, so the server never finds an object whose count already reached 0 there.
class ZRT_EXPORT CProxyConnection : public QOX::CRefCount_Base,
                                    public IZRTDataLayerNotification,
                                    public IProxyConnection,
                                    private QOX::CThread {
public:
    static constexpr int CLIENT_READ_SIZE = 32768;
    static constexpr int HOST_READ_SIZE = 32768;
    static constexpr unsigned int CLIENT_OUTPUT_HIGH_WATER = 256 * 1024;
    static constexpr unsigned int CLIENT_OUTPUT_LOW_WATER = 64 * 1024;
    static constexpr unsigned int HOST_DATA_HIGH_WATER = 256 * 1024;
    static constexpr unsigned int HOST_DATA_LOW_WATER = 64 * 1024;
    static constexpr unsigned int REQUEST_BACKLOG_LIMIT = 256 * 1024;
    // After the host link closed, the connection ends once this many polls of HOST_LINGER_POLL_MS
    // found nothing left to deliver either way.
    static constexpr int HOST_LINGER_POLLS = 20;
    static constexpr int HOST_LINGER_POLL_MS = 10;
    // Host buffers handed to the handler per turn, so client reads interleave with a host burst.
    static constexpr int HOST_BUFFERS_PER_TURN = 8;
    // Read size when this thread reads the link itself; the buffer is allocated on first use,
    // so an idle connection does not pay for it.
    static constexpr int HOST_DIRECT_READ_SIZE = 64 * 1024;
    // Most bytes moved per ReceiveInto once host bytes bypass the handler. What a slow client
    // does not take of it comes back as ordinary queued bytes, so it is no more than the bound
    // of the client queue.
    static constexpr int HOST_SPLICE_SIZE = static_cast<int>(CLIENT_OUTPUT_HIGH_WATER);
    static constexpr int CLIENT_SPLICE_SIZE = 256 * 1024;

    explicit CProxyConnection(CProxy* proxy);
    ~CProxyConnection() override;
    CProxyConnection(const CProxyConnection&) = delete;
    CProxyConnection& operator=(const CProxyConnection&) = delete;

    // Takes over the accepted socket and starts the thread. On false the socket is closed and the
    // caller deletes the object (its count is still 0).
    bool Init(int socket, IZRTMultiPointLayer* multiPointLayer, IDatagramHandler* datagramHandler,
              IConnectionListener* connectionListener);
    // Disconnects the client, waits for the thread (unless called on it) and detaches from the server.
    void Terminate();

    // IZRTDataLayerNotification
    void OnDataReceived(IZRTDataLayer& dataLayer) override;
    void OnConnectionClosed(IZRTDataLayer& dataLayer) override;
    void OnSendDrained(IZRTDataLayer& dataLayer) override;

    // IProxyConnection
    const IZRTConnectionAddress& GetClientAddress() const override { return m_clientAddress; }
    unsigned int GetClientPort() const override { return m_clientAddress.GetPortNumber(); }
    int GetID() const override { return m_id; }
    bool IsConnectedToHost() const override;
    bool IsConnectedToClient() const override;
    bool ConnectToHost(QOX::CRefCountPtr<IZRTConnectionAddress> destination) override;
    void DisconnectClient() override;
    bool SendToHost(const char* data, int length) override;
    bool SendToClient(const char* data, int length) override;
    IDatagramHandler* GetDatagramHandler() override { return m_datagramHandler; }
    IConnectionListener* GetConnectionListener() override { return m_connectionListener; }
    unsigned int GetClientBacklog() const override;
    void WakeConnection() override;

    // Bytes from the host not yet handed to the handler (tests watch the bound).
    unsigned int GetHostBacklog() const;
    // The thread has been started and has not ended yet.
    bool IsRunning() const;

protected:
    int Run() override;
    int ThreadFunc() override;

private:
    struct STurn {
        int socket = -1;
        short events = 0;
        int hostSocket = -1; // the link's reader descriptor, when this turn may read it
        int timeout = -1;
    };

    void ReadDataFromClient();
    bool SpliceClientToHost();
    // The client sent its last byte; false when nothing is left for it and it can go at once.
    bool EndClientInput();
    STurn PlanTurn(bool lingering);
    bool MayReadClient();
    void FlushClientOutput();
    void PumpHostData();
    // Reader mode: reads the link on this thread and hands the bytes to the handler.
    void ReadHostDirect();
    // One ReceiveInto from the link straight into the client socket, when allowed now.
    int SpliceHostToClient();
    // One ReceiveData handed to the handler; false when there is nothing more to do this turn.
    bool CopyHostToHandler();
    // Reader mode ends once the link reported its closure, and when the loop ends.
    void DetachHostReader(bool onlyWhenClosed);
    void ResumeHostLink();
    bool LingerOver(int& idlePolls);
    void DisconnectHostLink();
    void DetachFromProxy();
    // Under m_mutex: moves what the link holds into m_hostData, stopping at the high mark if bounded.
    void DrainLinkLocked(IZRTDataLayer& link, bool bounded);
    // Under m_mutex: writes queued output; false on a socket error.
    bool WriteQueuedLocked();
    void QueueOutputLocked(const char* data, int length);
    void DropOutputLocked();
    void NotifyClientDrained();

    static QOX::CAtomicInt ms_connID;

    mutable QOX::CRecursiveMutex m_mutex;
    CProxy* m_proxy;
    IZRTMultiPointLayer* m_multiPointLayer = nullptr;
    IDatagramHandler* m_datagramHandler = nullptr;
    IConnectionListener* m_connectionListener = nullptr;
    int m_clientSocket = -1;
    QOX::CRefCountPtr<IZRTDataLayer> m_hostDataLayer;
    CTCPIPAddress m_clientAddress;
    int m_id;
    std::atomic<bool> m_clientDisconnected{false};
    std::atomic<bool> m_hostClosed{false};
    // Set on the connection's thread only; other threads read it under m_mutex.
    IConnectionProtocol* m_protocol = nullptr;
    CByteBufferList m_hostData;

    // Bytes for the client that the socket has not taken yet, oldest first.
    std::deque<QOX::CRefCountPtr<CByteBuffer>> m_clientOutput;
    unsigned int m_clientOutputSize = 0;
    // OnDataReceived left bytes in the link because m_hostData was full.
    bool m_hostPaused = false;
    bool m_initialized = false;
    // The client closed its sending side while host bytes were still queued for it: the
    // connection stops reading the client and the link, delivers what it holds, then disconnects.
    // Written under m_mutex on the connection's thread.
    bool m_clientEnded = false;
    QOX::CEvent m_wakeEvent{true};

    // Reader mode: the link this thread reads itself, and its descriptor. Set under m_mutex by
    // ConnectToHost, cleared by this thread only.
    QOX::CRefCountPtr<IZRTDataLayer> m_readerLink;
    int m_readerFd = -1;
    // The link said it has nothing more to read; its closure report follows.
    bool m_hostReadEnded = false;
    std::unique_ptr<unsigned char[]> m_hostReadBuffer;
    // Host bytes bypass the handler (it relays them unchanged) and go by ReceiveInto.
    bool m_spliceHost = false;
    // Client bytes bypass the handler likewise (SendFrom), while it relays them unchanged.
    bool m_spliceClient = false;
};

} // namespace Proxy
} // namespace ZRT
