#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <mutex>
#include <set>

#include "host/CByteQueue.h"
#include "transport/CEventLoop.h"
#include "host/CSinkRegistry.h"
#include "host/CSplicePipe.h"
#include "transport/IEventHandler.h"
#include "runtime/CRefCountImpl.h"
#include "runtime/CRefCountPtr.h"
#include "transport/IZRTDataLayer.h"
#include "transport/IZRTDataLayerNotification.h"

namespace ZRT {
namespace Host {

// A stream link on a non-blocking TCP socket, watched by one CEventLoop.
//
// Life: Connecting (a non-blocking connect in progress; SendData queues; the loop watches for
// its end and keeps its time limit, or an attached reader does both, through CompleteConnect)
// -> Open -> Draining
// (the closure was reported; bytes still queued are written, for at most LINGER_MS, then FIN and
// the socket is released) or straight to Closed (released). The closure is reported once to
// each sink: after Disconnect; after a failure, reset or connect failure; at the peer's end once
// its bytes were taken (unless a sink enabled half-close); with half-close, once both directions
// have ended. Notifications are made on the loop's thread, or on a reader's thread inside its
// own calls (ReceiveData, ReceiveInto, ShutdownSend, CompleteConnect, DetachReader), so that a
// reader's link needs no hop through the loop; never with the link's lock held.
//
// Reading: the loop reads the socket into a bounded buffer and announces it with OnDataReceived;
// while the buffer is full it stops reading (TCP then slows the peer). With a reader attached
// (AttachReader) the loop does not read: the reader's ReceiveData and ReceiveInto read the
// socket on the reader's thread, and the socket is not closed while the reader may still poll
// it (its release waits for DetachReader).
//
// Writing: SendData writes what the socket takes and queues the rest, which the loop flushes;
// sinks hear OnSendDrained when a backlog that passed SEND_HIGH_WATER falls to SEND_LOW_WATER.
// SendFrom moves client bytes through a splice pipe that holds the tail of the queue.
class CTcpDataLayer : public QOX::CRefCountImpl<IZRTDataLayer>, public IEventHandler {
public:
    static constexpr size_t RECEIVE_LIMIT = 256 * 1024;
    static constexpr size_t RECEIVE_RESUME = RECEIVE_LIMIT / 2;
    static constexpr unsigned int SEND_HIGH_WATER = 64 * 1024;
    static constexpr unsigned int SEND_LOW_WATER = 16 * 1024;
    static constexpr int LINGER_MS = 10000;

    // Takes over a connected, non-blocking socket. Never empty.
    static QOX::CRefCountPtr<CTcpDataLayer> Create(int socket, CEventLoop& loop);
    // Takes over a non-blocking socket whose connect() is in progress; the attempt fails after
    // timeoutMs. Empty (and the socket closed) when the loop cannot watch it.
    // destination is where the socket connects; asking it again is how a reader learns the outcome.
    static QOX::CRefCountPtr<CTcpDataLayer> CreateConnecting(int socket, const sockaddr* destination,
                                                            socklen_t destinationLength, CEventLoop& loop,
                                                            int timeoutMs);

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
    void Abort() override;
    unsigned int GetSendBacklog() const override;
    unsigned int GetUndeliveredBytes() const override;
    int GetFailure() const override;
    int AttachReader() override;
    void DetachReader() override;
    int ReceiveInto(int socket, int size) override;
    int SendFrom(int socket, int size) override;
    bool EnableHalfClose() override;
    bool ShutdownSend() override;
    bool IsConnecting() const override;
    void CompleteConnect() override;

    void OnEvents(uint32_t events) override;

private:
    enum class EPhase { Connecting, Open, Draining, Closed };
    // The sending direction: open, FIN due once the queue is written, FIN sent.
    enum class EOutput { Open, Ending, Ended };
    enum class EReader { Loop, Attached };

    CTcpDataLayer(int socket, CEventLoop& loop, EPhase phase);
    ~CTcpDataLayer() override;

    void FinishConnectLocked();
    // A reader asks whether the connect has ended; true once it has (Open, or failed).
    bool ConnectOutcomeLocked();
    void ReadSocket(bool& gotData);
    // Reader mode, with nothing buffered: one read into the reader's buffer; -1 at the end.
    int ReadForReaderLocked(unsigned char* buffer, int size);
    size_t UnsentLocked() const { return m_unsent.Size() + m_sendPipe.Held(); }
    // Writes the queue; true when a backlog over the high mark fell to the low mark.
    bool FlushLocked();
    void EndOutputIfDueLocked();
    // The link is broken for good; error (an errno value) says why, for the first failure.
    void FailLocked(int error);
    void UpdateInterestLocked();
    // The loop's side of every change: reports a due closure, then releases the socket when
    // nothing more is to be written.
    void Advance();
    bool CloseDueLocked() const;
    void ReleaseSocketLocked();
    void PostAdvance();
    void StartConnectTimerLocked();
    void StartLingerTimerLocked();
    void CancelTimersLocked();
    void NotifyData();
    void NotifyDrained();
    void NotifyConnected();
    void NotifyClosed();

    CEventLoop& m_loop;
    CSinkRegistry<IZRTDataLayerNotification> m_sinks;
    // Guards every member below; never held while a sink is called or the loop runs a task.
    mutable std::mutex m_mutex;
    int m_socket;
    EPhase m_phase;
    EOutput m_output = EOutput::Open;
    EReader m_reader = EReader::Loop;
    uint64_t m_token = 0;
    uint32_t m_interest = 0;
    mutable sockaddr_storage m_local{};
    mutable socklen_t m_localLength = 0;
    mutable sockaddr_storage m_remote{};
    mutable socklen_t m_remoteLength = 0;
    mutable bool m_addressesKnown = false;
    CByteQueue m_received;
    CByteQueue m_unsent;
    // ReceiveInto's pipe (socket -> pipe -> destination), empty between calls.
    CSplicePipe m_receivePipe;
    // SendFrom's pipe: the tail of the send queue, behind m_unsent.
    CSplicePipe m_sendPipe;
    std::set<IZRTDataLayerNotification*> m_toldClosed;
    // The peer's end of sending has been read (or a reset: m_failed).
    bool m_inputEnded = false;
    bool m_failed = false;
    int m_failure = 0; // why it failed, an errno value
    bool m_halfClose = false;
    // The loop stopped reading because m_received is full; it resumes under RECEIVE_RESUME.
    bool m_readPaused = false;
    bool m_sendOverHigh = false;
    // A sink listens: from then on the loop reads ahead (unless a reader is attached).
    bool m_sinkAdded = false;
    // Made by CreateConnecting: late sinks still hear OnLinkConnected.
    bool m_beganConnecting = false;
    // The address a connecting socket was given (CreateConnecting).
    sockaddr_storage m_destination{};
    socklen_t m_destinationLength = 0;
    // The loop is between a recv and storing its bytes: a reader must not read past them.
    bool m_loopReading = false;
    uint64_t m_timer = 0; // the connect time-out or the linger's end; 0 when none
    int m_connectTimeoutMs = 0;
};

} // namespace Host
} // namespace ZRT
