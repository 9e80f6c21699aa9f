#pragma once

namespace ZRT {
namespace Host {

// The life of one TCP link (CTcpDataLayer) as one state machine: its states, the events that
// move it, and what each state allows. Pure: no socket, no lock, no time. Any thread; the link
// asks it under its own lock.
//
//   Connecting       --Connected-->  Open          --PeerEnded-->  InputEnded
//     | EndOutput                      | EndOutput                     | EndOutput
//   ConnectingEnding --Connected-->  OutputEnding  --PeerEnded-->  InputEndedOutputEnding
//                                      | QueueWritten                  | QueueWritten
//                                    OutputEnded   --PeerEnded-->  BothEnded
//
// A state whose peer has ended moves on once every received byte was taken (Taken): to
// Draining without half-close, to Closed from BothEnded. Disconnect drains (or closes once our
// FIN went); Fail (an error, a reset, a time-out, Abort) breaks every state that is not closed;
// Draining and Failed close once nothing is left to write (QueueWritten).
class CTcpLinkState {
public:
    enum class EState {
        Connecting,             // connect() under way; SendData queues
        ConnectingEnding,       // the same after ShutdownSend: the FIN follows the connect and the queue
        Open,                   // both directions open
        InputEnded,             // the peer finished; we may still send
        OutputEnding,           // our FIN goes once the queue is written; the peer may still send
        InputEndedOutputEnding, // the peer finished; our FIN goes once the queue is written
        OutputEnded,            // our FIN went; the peer may still send
        BothEnded,              // the peer finished and our FIN went (or goes with the close)
        Draining,               // closed for the sinks; the queue goes within the linger time, then the FIN
        Failed,                 // broken: the queue was dropped; bytes received stay readable
        Closed                  // told and released (the release waits for an attached reader)
    };

    enum class EEvent {
        Connected,    // the connect succeeded
        PeerEnded,    // the peer's FIN was read
        EndOutput,    // ShutdownSend
        QueueWritten, // nothing given to the link is left to write
        Taken,        // every byte received before the peer's end was taken
        Disconnect,
        Fail          // an error, a reset, a time-out, or Abort
    };

    // The state after event, or state itself when the event changes nothing there. halfClose:
    // a sink takes the peer's end apart from the closure (the link stays open for sending).
    static EState Next(EState state, EEvent event, bool halfClose);

    static bool IsConnecting(EState state);
    // The connect is done (or the socket came connected) and the sinks were not told the closure.
    static bool IsEstablished(EState state);
    // The peer may still send.
    static bool IsInputOpen(EState state);
    // The peer's end was read, and the link is not closing yet.
    static bool HasInputEnded(EState state);
    // SendData and SendFrom take bytes.
    static bool IsOutputOpen(EState state);
    // What IsConnected tells: both directions usable by the peer, or our FIN on its way.
    static bool IsConnected(EState state);
    // Draining, Failed or Closed: the sinks hear (or heard) the closure.
    static bool IsClosing(EState state);

private:
    static EState AfterConnected(EState state);
    static EState AfterPeerEnded(EState state);
    static EState AfterEndOutput(EState state);
    static EState AfterQueueWritten(EState state);
    static EState AfterTaken(EState state, bool halfClose);
    static EState AfterDisconnect(EState state);
    static EState AfterFail(EState state);
};

} // namespace Host
} // namespace ZRT
