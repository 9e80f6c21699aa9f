#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <mutex>
#include <set>
#include <thread>

#include "host/CByteQueue.h"
#include "host/CSinkRegistry.h"
#include "host/CSplicePipe.h"
#include "host/CTcpLinkState.h"
#include "runtime/CRefCountImpl.h"
#include "runtime/CRefCountPtr.h"
#include "transport/CEventLoop.h"
#include "transport/IEventHandler.h"
#include "transport/IZRTDataLayer.h"
#include "transport/IZRTDataLayerNotification.h"

namespace ZRT {
namespace Host {

// A stream link on a non-blocking TCP socket, watched by one CEventLoop. Its life is one state
// machine (CTcpLinkState): connecting, each direction's end, draining, failure, closure. The
// closure is reported once to each sink: after Disconnect; after a failure, reset or connect
// failure; at the peer's end once its bytes were taken (unless a sink enabled half-close); with
// half-close, once both directions have ended.
//
// Threads. Any thread may call any operation, one call at a time or several at once (the lock
// guards the link), except that once a reader is attached (AttachReader), its own thread makes
// the reader's calls: ReceiveData, ReceiveInto, CompleteConnect, DetachReader (and, in the
// engine, every other call too). Sinks may call the link from inside their callbacks. The
// loop's thread calls OnEvents and runs the link's timers and posted steps. Sinks are told on
// the loop's thread, or inline on the reader's thread, inside its own call, so that a reader's
// link needs no hop through the loop; never with the link's lock held.
//
// Reading: while a sink listens and no reader is attached, the loop reads the socket into a
// bounded buffer and announces it with OnDataReceived; while the buffer is full it stops
// reading (TCP then slows the peer). An attached reader reads the socket itself, on its thread,
// and the socket is not closed while it may still poll it (the release waits for DetachReader).
//
// Writing: SendData writes what the socket takes and queues the rest, which the loop flushes;
// sinks hear OnSendDrained when a backlog that passed SEND_HIGH_WATER falls to SEND_LOW_WATER.
// SendFrom moves client bytes through a splice pipe that holds the tail of the queue. Draining
// writes the queue for at most LINGER_MS, then sends the FIN and releases the socket.
class CTcpDataLayer : public QOX::CRefCountImpl<IZRTDataLayer>, public IEventHandler {
public:
    static constexpr size_t RECEIVE_LIMIT = 256 * 1024;
    static constexpr size_t RECEIVE_RESUME = RECEIVE_LIMIT / 2;
    static constexpr unsigned int SEND_HIGH_WATER = 64 * 1024;
    static constexpr unsigned int SEND_LOW_WATER = 16 * 1024;
    static constexpr int LINGER_MS = 10000;

    // Takes over a connected, non-blocking socket. Never empty. Any thread.
    static QOX::CRefCountPtr<CTcpDataLayer> Create(int socket, CEventLoop& loop);
    // Takes over a non-blocking socket whose connect() to destination is in progress; the
    // attempt fails after timeoutMs. Empty (and the socket closed) without a destination. Asking
    // the destination again is how a reader learns the outcome. Any thread. A socket of -1: the
    // connect is made elsewhere (through an upstream), under its maker's time limit, and ends
    // with EndConnect; until then the link has no descriptor for a reader.
    static QOX::CRefCountPtr<CTcpDataLayer> CreateConnecting(int socket, const sockaddr* destination,
                                                            socklen_t destinationLength, CEventLoop& loop,
                                                            int timeoutMs);
    // Ends the connect of a link made without a socket: the connected socket that carries the
    // stream from now on, or -1 and why it failed (an errno value). False when the link no
    // longer waits for it (it was given up): the socket stays the caller's. Any thread.
    bool EndConnect(int socket, int error);

    long AddRef() override { return QOX::CRefCountImpl<IZRTDataLayer>::AddRef(); }
    long ReleaseRef() override { return QOX::CRefCountImpl<IZRTDataLayer>::ReleaseRef(); }
    void* GetReferencedObject() const override { return QOX::CRefCountImpl<IZRTDataLayer>::GetReferencedObject(); }

    // The reader's thread when one is attached; otherwise any (a sink inside OnDataReceived).
    int ReceiveData(unsigned char* buffer, int size) override;
    int ReceiveInto(int socket, int size) override;
    int AttachReader() override;
    void DetachReader() override;
    void CompleteConnect() override;

    // Any thread.
    int SendData(const unsigned char* data, int size) override;
    int SendFrom(int socket, int size) override;
    bool EnableHalfClose() override;
    bool ShutdownSend() override;
    void Disconnect() override;
    void Abort() override;
    // Any thread, a sink's own callback included.
    bool AddNotification(IZRTDataLayerNotification* sink) override;
    bool RemoveNotification(IZRTDataLayerNotification* sink) override;

    // Queries; any thread.
    bool GetLocalAddress(sockaddr* address, int* length) const override;
    bool GetRemoteAddress(sockaddr* address, int* length) const override;
    bool IsConnected() const override;
    bool IsConnecting() const override;
    unsigned int GetReceiveBacklog() const override;
    unsigned int GetSendBacklog() const override;
    unsigned int GetUndeliveredBytes() const override;
    int GetFailure() const override;

    // The loop's thread.
    void OnEvents(uint32_t events) override;

private:
    using EState = CTcpLinkState::EState;
    using EEvent = CTcpLinkState::EEvent;
    // Who reads the socket: nobody (no sink listens, no reader), the loop (ahead, for the
    // sinks), or an attached reader on its own thread.
    enum class EReader { Nobody, Loop, Attached };
    // What a public call changed, for Finish.
    enum class EChange {
        Nothing,
        Settle,    // the link is closing, or its closure is due: tell the sinks, let the socket go
        Connected, // CompleteConnect saw the connect succeed: the sinks hear OnLinkConnected
        SinkAdded  // a new sink hears what happened before it came
    };
    // How a public call ends: what it changed, and whether the attached reader made it (on its
    // own thread).
    struct SEnd {
        EChange change = EChange::Nothing;
        bool byReader = false;
    };

    CTcpDataLayer(int socket, CEventLoop& loop, EState state);
    ~CTcpDataLayer() override;

    // ---- the state machine (under m_mutex) ----
    // Applies event; true when the state moved. error: why, for Fail.
    bool MoveLocked(EEvent event, int error = 0);
    // What entering `to` from `from` does to the socket, the queue and the timer.
    void EnterLocked(EState from, EState to, int error);
    // The one loop: what the buffers make due (every received byte taken, every byte written)
    // moves the state on until nothing more does.
    void SettleLocked();
    bool CloseDueLocked() const;
    EChange ChangeSinceLocked(EState before) const;
    SEnd EndLocked(EChange change) const;

    // ---- finishing a call, and the loop's steps ----
    // Every public call that changes something ends here.
    void Finish(SEnd end);
    void Advance();
    void CatchUp();
    void PostStep(void (CTcpDataLayer::*step)());

    // ---- connecting ----
    void EndConnectLocked(int error);
    // A reader asks whether the connect has ended; true once it has (established, or failed).
    bool AskConnectOutcomeLocked();

    // ---- reading ----
    bool ReadsAheadLocked() const;
    // The loop's read-ahead; true when the sinks have news.
    bool ReadAheadLocked();
    // Reader mode, with nothing buffered: one read into the reader's buffer; -1 at the end.
    int ReadForReaderLocked(unsigned char* buffer, int size);
    int SpliceOutLocked(int socket, int size);
    void ResumeReadingLocked();

    // ---- writing ----
    size_t UnsentLocked() const { return m_unsent.Size() + m_sendPipe.Held(); }
    int SpliceInLocked(int socket, int size);
    bool DrainSendPipeLocked();
    // Writes the queue; true when a backlog over the high mark fell to the low mark.
    bool FlushLocked();
    void EndOutputIfDueLocked();
    void NoteBacklogLocked();

    // ---- the socket, the loop and the timer ----
    void UpdateInterestLocked();
    uint32_t WantedEventsLocked() const;
    void ReleaseSocketLocked();
    void StartTimerLocked(int milliseconds);
    void CancelTimerLocked();
    void OnTimeLimit();
    void LearnAddressesLocked() const;

    void NotifyData();
    void NotifyDrained();
    void NotifyConnected();
    void NotifyClosed();

    CEventLoop& m_loop;
    CSinkRegistry<IZRTDataLayerNotification> m_sinks;
    // Guards every member below; never held while a sink is called or the loop runs a task.
    mutable std::mutex m_mutex;
    int m_socket;
    EState m_state;
    EReader m_reader = EReader::Nobody;
    std::thread::id m_readerThread; // while attached: where calls settle inline
    uint64_t m_token = 0;
    uint32_t m_interest = 0;
    // Learnt on first use (0 length: not yet).
    mutable sockaddr_storage m_local{};
    mutable socklen_t m_localLength = 0;
    mutable sockaddr_storage m_remote{};
    mutable socklen_t m_remoteLength = 0;
    CByteQueue m_received;
    CByteQueue m_unsent;
    // ReceiveInto's pipe (socket -> pipe -> destination), empty between calls.
    CSplicePipe m_receivePipe;
    // SendFrom's pipe: the tail of the send queue, behind m_unsent.
    CSplicePipe m_sendPipe;
    std::set<IZRTDataLayerNotification*> m_toldClosed;
    int m_failure = 0; // why it failed, an errno value; 0 while it did not
    // Three facts apart from the state, each of its own: a sink's choice, set once and for
    // good (it changes what the peer's end means, in any state); and two marks of the flow
    // control, whose hysteresis the buffers' sizes alone cannot tell.
    bool m_halfClose = false;
    // The loop stopped reading because m_received is full; it resumes under RECEIVE_RESUME.
    bool m_readPaused = false;
    // The send backlog passed SEND_HIGH_WATER: the sinks hear when it falls to SEND_LOW_WATER.
    bool m_sendOverHigh = false;
    // Where a connecting socket connects (CreateConnecting); empty for a socket made connected,
    // whose late sinks hear no OnLinkConnected.
    sockaddr_storage m_destination{};
    socklen_t m_destinationLength = 0;
    uint64_t m_timer = 0; // the connect's or the drain's time limit; 0 when none
    int m_connectTimeoutMs = 0;
};

} // namespace Host
} // namespace ZRT
