#pragma once

#include <sys/socket.h>

#include <memory>
#include <string>
#include <vector>

#include "proxy/address/CNameLookup.h"
#include "proxy/auth/CLoginCheck.h"
#include "proxy/core/IConnectionProtocol.h"
#include "proxy/core/IProxyConnection.h"
#include "proxy/socks5/CSocks5Bind.h"
#include "proxy/socks5/CSocksClientInput.h"
#include "proxy/socks5/CSocks5UdpRelay.h"
#include "runtime/CRefCountPtr.h"
#include "runtime/Export.h"
#include "transport/IZRTConnectionAddress.h"

namespace ZRT {
namespace Proxy {

// Server side of SOCKS version 5 (RFC 1928) for one client: method negotiation (no
// authentication, or username/password (RFC 1929) when the proxy has users), CONNECT, BIND and
// UDP ASSOCIATE.
//
// One state machine, run by DoLoop alone: each step returns the next state, and DoLoop runs steps
// until one has to wait. Every operation is called on the connection's thread. The entry points
// only record what happened and run the loop, whose step for the current state takes it:
// HandleRequest (client bytes, kept in the buffer until a step takes them), OnHostConnected
// (CONNECT's link), Resume (a name lookup answered, a BIND peer arrived, a password hash checked,
// a UDP datagram's lookup answered), OnTimer (the limits of a lookup and of a BIND, a slowed
// login's turn, the UDP relay's lookups), OnDescriptorReady (the UDP relay's socket) and
// Terminate (the connection's end, which also lets go of every helper). Entering Closed asks the
// connection to end, last: the connection may terminate the handler inside that call or after it.
// A BIND's peer becomes the connection's host link, so CONNECT and BIND relay alike, through the
// connection; UDP ASSOCIATE relays through its own socket, which the connection polls for the
// handler.
//
//   Greeting -> [Authenticate -> Login] -> Request -> [Resolve] -> Connect -> Relay
//                                    -> BindAccept -> Relay
//                                    -> UdpAssociated
//   any state -> Closed (a refusal, an error, the client's end, Terminate)
class ZRT_EXPORT CConnectionProtocol_SOCKS5 : public IConnectionProtocol {
public:
    enum class EState { Greeting, Authenticate, Login, Request, Resolve, Connect, BindAccept, Relay, UdpAssociated, Closed };

    explicit CConnectionProtocol_SOCKS5(IProxyConnection& connection);
    ~CConnectionProtocol_SOCKS5() override;
    CConnectionProtocol_SOCKS5(const CConnectionProtocol_SOCKS5&) = delete;
    CConnectionProtocol_SOCKS5& operator=(const CConnectionProtocol_SOCKS5&) = delete;

    void Init() override;
    void Terminate() override;
    void HandleRequest(const char* data, int length) override;
    void HandleResponse(const char* data, int length) override;
    unsigned int GetRequestBacklog() const override { return m_input.Size(); }
    bool PassesResponsesThrough() const override { return m_state == EState::Relay; }
    bool PassesRequestsThrough() const override { return m_input.PassesThrough(Phase()); }
    bool HandleClientEnd() override;
    bool HandleHostEnd() override;
    void OnHostConnected(bool connected) override;
    void Resume() override;
    void OnTimer() override;
    int GetWatchedDescriptor() const override;
    void OnDescriptorReady() override;
    const char* GetFamily() const override { return "socks5"; }

    EState GetState() const { return m_state; }

private:
    using AddressPtr = QOX::CRefCountPtr<IZRTConnectionAddress>;
    // What an entry point hands to the step of the current state.
    enum class EEvent { None, Woken, Connected, ConnectFailed, Timer, Readable, Terminated };

    // Records the event and runs the loop.
    void Run(EEvent event);
    void DoLoop();
    EState DoStep(EState state, EEvent event);
    EState DoGreeting();
    EState DoAuthenticate();
    EState DoLogin(EEvent event);
    EState DoRequest();
    EState DoResolve();
    EState DoCommand(const AddressPtr& destination);
    EState DoConnect(const AddressPtr& destination);
    EState DoConnectOutcome(EEvent event);
    EState DoBind(const AddressPtr& destination);
    EState DoBindAccept(EEvent event);
    EState DoUdpAssociate(const AddressPtr& destination);
    EState DoUdpAssociated(EEvent event);
    EState DoRelay();
    // On entering Closed: drops what is buffered and asks the connection to end.
    void Close();
    CSocksClientInput::EPhase Phase() const;
    // The username/password reply; a failure is recorded.
    void AnswerLogin(bool valid);
    // Replies with the code (0.0.0.0 and the client's port) and records the outcome; Closed.
    EState Refuse(int code, EOutcome outcome);

    void SendResponse(int code, const sockaddr* address);
    void SendResponse(int code, const IZRTConnectionAddress& address);
    // A reply with 0.0.0.0 and the client's own TCP port.
    void SendCommandResponse(int code);

    IProxyConnection& m_connection;
    EState m_state = EState::Greeting;
    EEvent m_event = EEvent::None;
    CSocksClientInput m_input;
    unsigned char m_command = 0;
    AddressPtr m_destination;
    CNameLookup m_lookup;
    CLoginCheck m_login;
    std::unique_ptr<CSocks5Bind> m_bind;
    std::unique_ptr<CSocks5UdpRelay> m_udp;
};

} // namespace Proxy
} // namespace ZRT
