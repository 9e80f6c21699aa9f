#include "host/CTcpLinkState.h"

namespace ZRT {
namespace Host {

using EState = CTcpLinkState::EState;
using EEvent = CTcpLinkState::EEvent;

EState CTcpLinkState::Next(EState state, EEvent event, bool halfClose)
{
    switch (event) {
    case EEvent::Connected:
        return AfterConnected(state);
    case EEvent::PeerEnded:
        return AfterPeerEnded(state);
    case EEvent::EndOutput:
        return AfterEndOutput(state);
    case EEvent::QueueWritten:
        return AfterQueueWritten(state);
    case EEvent::Taken:
        return AfterTaken(state, halfClose);
    case EEvent::Disconnect:
        return AfterDisconnect(state);
    case EEvent::Fail:
        return AfterFail(state);
    }
    return state;
}

EState CTcpLinkState::AfterConnected(EState state)
{
    // A FIN asked for while connecting is still owed.
    if (state == EState::Connecting)
        return EState::Open;
    return state == EState::ConnectingEnding ? EState::OutputEnding : state;
}

EState CTcpLinkState::AfterPeerEnded(EState state)
{
    // Only an established link reads; our own direction keeps what it was.
    switch (state) {
    case EState::Open:
        return EState::InputEnded;
    case EState::OutputEnding:
        return EState::InputEndedOutputEnding;
    case EState::OutputEnded:
        return EState::BothEnded;
    default:
        return state;
    }
}

EState CTcpLinkState::AfterEndOutput(EState state)
{
    // The FIN waits behind what is queued; asking again changes nothing.
    switch (state) {
    case EState::Connecting:
        return EState::ConnectingEnding;
    case EState::Open:
        return EState::OutputEnding;
    case EState::InputEnded:
        return EState::InputEndedOutputEnding;
    default:
        return state;
    }
}

EState CTcpLinkState::AfterQueueWritten(EState state)
{
    // The queue is out: a FIN that was owed goes, and a link that only waited for its queue
    // (draining, or failed with its queue dropped) closes.
    switch (state) {
    case EState::OutputEnding:
        return EState::OutputEnded;
    case EState::InputEndedOutputEnding:
        return EState::BothEnded;
    case EState::Draining:
    case EState::Failed:
        return EState::Closed;
    default:
        return state;
    }
}

EState CTcpLinkState::AfterTaken(EState state, bool halfClose)
{
    // The peer's end reached the sinks. Without half-close it closes the link; with it, the
    // link closes once our FIN went too.
    switch (state) {
    case EState::InputEnded:
    case EState::InputEndedOutputEnding:
        return halfClose ? state : EState::Draining;
    case EState::BothEnded:
        return EState::Closed;
    default:
        return state;
    }
}

EState CTcpLinkState::AfterDisconnect(EState state)
{
    // A connect is given up; an open link writes what it holds first; one whose FIN went has
    // nothing left to write.
    switch (state) {
    case EState::Connecting:
    case EState::ConnectingEnding:
        return EState::Failed;
    case EState::Open:
    case EState::InputEnded:
    case EState::OutputEnding:
    case EState::InputEndedOutputEnding:
        return EState::Draining;
    case EState::OutputEnded:
    case EState::BothEnded:
        return EState::Closed;
    default:
        return state;
    }
}

EState CTcpLinkState::AfterFail(EState state)
{
    // Nothing more can be written; a link already closed stays so.
    return state == EState::Closed ? state : EState::Failed;
}

bool CTcpLinkState::IsConnecting(EState state)
{
    return state == EState::Connecting || state == EState::ConnectingEnding;
}

bool CTcpLinkState::IsEstablished(EState state)
{
    return !IsConnecting(state) && !IsClosing(state);
}

bool CTcpLinkState::IsInputOpen(EState state)
{
    return IsConnecting(state) || state == EState::Open || state == EState::OutputEnding ||
           state == EState::OutputEnded;
}

bool CTcpLinkState::HasInputEnded(EState state)
{
    return state == EState::InputEnded || state == EState::InputEndedOutputEnding || state == EState::BothEnded;
}

bool CTcpLinkState::IsOutputOpen(EState state)
{
    return state == EState::Connecting || state == EState::Open || state == EState::InputEnded;
}

bool CTcpLinkState::IsConnected(EState state)
{
    return state == EState::Open || state == EState::OutputEnding || state == EState::OutputEnded;
}

bool CTcpLinkState::IsClosing(EState state)
{
    return state == EState::Draining || state == EState::Failed || state == EState::Closed;
}

} // namespace Host
} // namespace ZRT
