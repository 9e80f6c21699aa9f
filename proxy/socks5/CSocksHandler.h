#pragma once

#include <utility>

#include "proxy/core/IConnectionProtocol.h"
#include "proxy/core/IProxyConnection.h"
#include "proxy/socks5/CSocksClientInput.h"

namespace ZRT {
namespace Proxy {

// What an entry point of a SOCKS handler hands to the step of its current state.
enum class ESocksEvent { None, Woken, Connected, ConnectFailed, Timer, Readable, Terminated };

// What the SOCKS4 and SOCKS5 handlers share. One state machine, run by DoLoop alone: each entry
// point only records its event and runs the loop; the step of the current state takes the event
// and returns the next state, and DoLoop runs steps until one has to wait. Entering Closed asks
// the connection to end, last: the connection may terminate the handler inside that call or after
// it. Client bytes wait in the input until a step takes them or the relay starts.
//
// A handler supplies its states (Resolve, Connect, Relay and Closed among them) and DoStep. Every
// operation is called on the connection's thread.
template <class EState>
class CSocksHandler : public IConnectionProtocol {
public:
    void HandleRequest(const char* data, int length) override
    {
        if (m_state == EState::Closed || !data || length <= 0)
            return;
        if (!m_input.PassOrHold(Phase(), data, length))
            Run(ESocksEvent::None);
    }
    void HandleResponse(const char* data, int length) override
    {
        if (m_state == EState::Relay && data && length > 0)
            m_connection.SendToClient(data, length);
    }
    unsigned int GetRequestBacklog() const override { return m_input.Size(); }
    bool PassesResponsesThrough() const override { return m_state == EState::Relay; }
    bool PassesRequestsThrough() const override { return m_input.PassesThrough(Phase()); }
    bool HandleClientEnd() override { return m_input.End(Phase()); }
    bool HandleHostEnd() override { return m_state == EState::Relay; }
    void OnHostConnected(bool connected) override
    {
        Run(connected ? ESocksEvent::Connected : ESocksEvent::ConnectFailed);
    }
    void Resume() override { Run(ESocksEvent::Woken); }
    void OnTimer() override { Run(ESocksEvent::Timer); }

    EState GetState() const { return m_state; }

protected:
    CSocksHandler(IProxyConnection& connection, EState first)
        : m_connection(connection), m_input(connection), m_state(first)
    {
    }

    // The step of the current state; the same state back means it waits.
    virtual EState DoStep(EState state, ESocksEvent event) = 0;

    void Run(ESocksEvent event)
    {
        m_event = event;
        DoLoop();
    }

    IProxyConnection& m_connection;
    CSocksClientInput m_input;

private:
    void DoLoop()
    {
        // The event is for the state it found; the steps after it see none.
        ESocksEvent event = std::exchange(m_event, ESocksEvent::None);
        while (m_state != EState::Closed) {
            const EState state = m_state;
            const EState next = event == ESocksEvent::Terminated ? EState::Closed : DoStep(state, event);
            if (next == state || m_state == EState::Closed)
                return; // waiting, or terminated by the connection inside the step
            m_state = next;
            if (next == EState::Closed) {
                // Terminate lets go of the rest itself; the connection knows already.
                if (event != ESocksEvent::Terminated)
                    Close();
                return;
            }
            event = ESocksEvent::None;
        }
    }

    // On entering Closed: drops what is held and asks the connection to end.
    void Close()
    {
        m_input.Clear();
        m_connection.SetHandlerTimer(-1);
        // Last: the connection may terminate us inside this call.
        if (m_connection.IsConnectedToClient())
            m_connection.DisconnectClient();
    }

    CSocksClientInput::EPhase Phase() const
    {
        if (m_state == EState::Relay)
            return CSocksClientInput::EPhase::Relaying;
        if (m_state == EState::Resolve || m_state == EState::Connect)
            return CSocksClientInput::EPhase::Commanding;
        return CSocksClientInput::EPhase::Negotiating;
    }

    EState m_state;
    ESocksEvent m_event = ESocksEvent::None;
};

} // namespace Proxy
} // namespace ZRT
