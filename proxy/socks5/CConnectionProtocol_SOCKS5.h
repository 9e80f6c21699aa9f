#pragma once

#include <sys/socket.h>

#include <memory>
#include <string>
#include <vector>

#include "proxy/address/CNameLookup.h"
#include "proxy/auth/CLoginCheck.h"
#include "proxy/core/IProxyConnection.h"
#include "proxy/socks5/CSocks5Bind.h"
#include "proxy/socks5/CSocksHandler.h"
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
// One state machine (see CSocksHandler). Every operation is called on the connection's thread.
// The events: HandleRequest (client bytes, kept in the buffer until a step takes them), OnHostConnected
// (CONNECT's link), Resume (a name lookup answered, a BIND peer arrived, a password hash checked,
// a UDP datagram's lookup answered), OnTimer (the limits of a lookup and of a BIND, a slowed
// login's turn, the UDP relay's lookups), OnDescriptorReady (the UDP relay's socket) and
// Terminate (the connection's end, which also lets go of every helper).
// A BIND's peer becomes the connection's host link, so CONNECT and BIND relay alike, through the
// connection; UDP ASSOCIATE relays through its own socket, which the connection polls for the
// handler.
//
//   Greeting -> [Authenticate -> Login] -> Request -> [Resolve] -> Connect -> Relay
//                                    -> BindAccept -> Relay
//                                    -> UdpAssociated
//   any state -> Closed (a refusal, an error, the client's end, Terminate)
enum class ESocks5State { Greeting, Authenticate, Login, Request, Resolve, Connect, BindAccept, Relay, UdpAssociated, Closed };

class ZRT_EXPORT CConnectionProtocol_SOCKS5 : public CSocksHandler<ESocks5State> {
public:
    using EState = ESocks5State;

    explicit CConnectionProtocol_SOCKS5(IProxyConnection& connection);
    ~CConnectionProtocol_SOCKS5() override;
    CConnectionProtocol_SOCKS5(const CConnectionProtocol_SOCKS5&) = delete;
    CConnectionProtocol_SOCKS5& operator=(const CConnectionProtocol_SOCKS5&) = delete;

    void Init() override;
    void Terminate() override;
    int GetWatchedDescriptor() const override;
    void OnDescriptorReady() override;
    const char* GetFamily() const override { return "socks5"; }

private:
    using AddressPtr = QOX::CRefCountPtr<IZRTConnectionAddress>;
    EState DoStep(EState state, ESocksEvent event) override;
    EState DoGreeting();
    EState DoAuthenticate();
    EState DoLogin(ESocksEvent event);
    EState DoRequest();
    EState DoResolve();
    EState DoCommand(const AddressPtr& destination);
    EState DoConnect(const AddressPtr& destination);
    EState DoConnectOutcome(ESocksEvent event);
    EState DoBind(const AddressPtr& destination);
    EState DoBindAccept(ESocksEvent event);
    EState DoUdpAssociate(const AddressPtr& destination);
    EState DoUdpAssociated(ESocksEvent event);
    EState DoRelay();
    // The username/password reply; a failure is recorded.
    void AnswerLogin(bool valid);
    // Replies with the code (0.0.0.0 and the client's port) and records the outcome; Closed.
    EState Refuse(int code, EOutcome outcome);

    void SendResponse(int code, const sockaddr* address);
    void SendResponse(int code, const IZRTConnectionAddress& address);
    // A reply with 0.0.0.0 and the client's own TCP port.
    void SendCommandResponse(int code);

    unsigned char m_command = 0;
    AddressPtr m_destination;
    CNameLookup m_lookup;
    CLoginCheck m_login;
    std::unique_ptr<CSocks5Bind> m_bind;
    std::unique_ptr<CSocks5UdpRelay> m_udp;
};

} // namespace Proxy
} // namespace ZRT
