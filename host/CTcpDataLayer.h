#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <mutex>
#include <set>

#include "host/CByteQueue.h"
#include "host/CEventLoop.h"
#include "host/CSinkRegistry.h"
#include "host/IEventHandler.h"
#include "runtime/CRefCountImpl.h"
#include "runtime/CRefCountPtr.h"
#include "transport/IZRTDataLayer.h"
#include "transport/IZRTDataLayerNotification.h"

namespace ZRT {
namespace Host {

// A stream link on a connected non-blocking TCP socket, watched by one CEventLoop. Every
// notification is made on that loop's thread, with no lock of the link held.
//
// Flow control: the socket is read into a bounded buffer; while it is full the link stops reading
// (TCP then slows the peer) until ReceiveData has drained it to half. SendData never blocks: it
// writes what the socket takes and queues the rest, which the loop flushes; sinks hear
// OnSendDrained when a backlog that passed SEND_HIGH_WATER falls to SEND_LOW_WATER.
//
// Reader mode (AttachReader): the loop stops reading the socket and the reader's ReceiveData
// reads it directly, on the reader's thread; the socket is not closed while the reader may still
// poll it (a release is deferred to DetachReader).
//
// Closing: OnConnectionClosed reaches each sink once, after Disconnect() or after the peer closed
// and every byte it sent has been taken with ReceiveData. After a Disconnect the socket lingers
// (up to LINGER_MS) to flush what was queued, then sends FIN and waits for the peer's, so that the
// last bytes are not lost to a reset.
class CTcpDataLayer : public QOX::CRefCountImpl<IZRTDataLayer>, public IEventHandler {
public:
    static constexpr size_t RECEIVE_LIMIT = 256 * 1024;
    static constexpr size_t RECEIVE_RESUME = RECEIVE_LIMIT / 2;
    static constexpr unsigned int SEND_HIGH_WATER = 64 * 1024;
    static constexpr unsigned int SEND_LOW_WATER = 16 * 1024;
    static constexpr int LINGER_MS = 10000;
    static constexpr int SPLICE_PIPE_SIZE = 1024 * 1024;

    // Takes over a connected socket (made non-blocking here) and starts watching it; empty on
    // failure, in which case the socket is closed.
    static QOX::CRefCountPtr<CTcpDataLayer> Create(int socket, CEventLoop& loop);

    long AddRef() override { return QOX::CRefCountImpl<IZRTDataLayer>::AddRef(); }
    long ReleaseRef() override { return QOX::CRefCountImpl<IZRTDataLayer>::ReleaseRef(); }
    void* GetReferencedObject() const override { return QOX::CRefCountImpl<IZRTDataLayer>::GetReferencedObject(); }

    int ReceiveData(unsigned char* buffer, int size) override;
    int SendData(const unsigned char* data, int size) override;
    bool GetLocalAddress(sockaddr* address, int* length) const override;
    bool GetRemoteAddress(sockaddr* address, int* length) const override;
    bool AddNotification(IZRTDataLayerNotification* sink) override;
    bool RemoveNotification(IZRTDataLayerNotification* sink) override;
    bool IsConnected() const override;
    unsigned int GetReceiveBacklog() const override;
    void Disconnect() override;
    unsigned int GetSendBacklog() const override;
    int AttachReader() override;
    void DetachReader() override;
    int ReceiveInto(int socket, int size) override;
    int SendFrom(int socket, int size) override;

    void OnEvents(uint32_t events) override;

private:
    CTcpDataLayer(int socket, CEventLoop& loop);
    ~CTcpDataLayer() override;

    void LearnAddressesLocked() const;
    bool ReadSocket();
    // Reader mode, with m_received empty: one read into the reader's buffer; -1 at the end.
    int ReadForReaderLocked(unsigned char* buffer, int size);
    bool OpenPipeLocked();
    static bool OpenPipe(int (&fds)[2]);
    // Reads count bytes of a pipe into queue (a copy); the count moved.
    static size_t MovePipeInto(int pipe, size_t count, CByteQueue& queue);
    // The send queue: m_unsent, then the bytes in m_sendPipe.
    size_t UnsentLocked() const { return m_unsent.Size() + m_piped; }
    void DropUnsentLocked();
    // Moves the send pipe's bytes into m_unsent, so bytes given to SendData line up behind them.
    void UnpipeLocked();
    void FlushPipeLocked();
    // ReceiveInto's tail: what the destination did not take goes back into m_received.
    void ReclaimPipedLocked(size_t count);
    bool FlushLocked();
    void UpdateInterestLocked();
    void AdvanceClose();
    void LingerLocked();
    void ReleaseSocketLocked();
    void PostAdvanceClose();
    void NotifyData();
    void NotifyDrained();
    void NotifyClosed();

    CEventLoop& m_loop;
    CSinkRegistry<IZRTDataLayerNotification> m_sinks;
    mutable std::mutex m_mutex;
    int m_socket;
    uint64_t m_token = 0;
    uint32_t m_interest = 0;
    mutable sockaddr_storage m_local{};
    mutable socklen_t m_localLength = 0;
    mutable sockaddr_storage m_remote{};
    mutable socklen_t m_remoteLength = 0;
    CByteQueue m_received;
    CByteQueue m_unsent;
    std::set<IZRTDataLayerNotification*> m_toldClosed;
    bool m_readPaused = false;
    bool m_sendOverHigh = false;
    bool m_eofSeen = false;
    bool m_failed = false;
    bool m_disconnectRequested = false;
    bool m_closeReported = false;
    bool m_closePosted = false;
    bool m_writeShut = false;
    bool m_readerAttached = false;
    // ReceiveInto's pipe (socket -> pipe -> destination, pages moved rather than copied); made
    // on first use, empty between calls.
    int m_pipe[2] = {-1, -1};
    // SendFrom's pipe: the tail of the send queue, behind m_unsent; m_piped bytes in it.
    int m_sendPipe[2] = {-1, -1};
    size_t m_piped = 0;
    // A sink listens: from then on the loop reads ahead (unless a reader is attached).
    bool m_sinkAdded = false;
    // The loop saw a hang-up while a reader was attached and stopped watching the socket.
    bool m_hangUp = false;
    mutable bool m_addressesKnown = false;
    // The socket was due to be closed while a reader was attached.
    bool m_releaseDeferred = false;
    // The loop is between a recv and storing its bytes: a reader must not read past them.
    bool m_loopReading = false;
    uint64_t m_lingerTimer = 0; // pending give-up of the flush after Disconnect; 0 when none
};

} // namespace Host
} // namespace ZRT
