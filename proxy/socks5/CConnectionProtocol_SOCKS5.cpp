#include "proxy/socks5/CConnectionProtocol_SOCKS5.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>

#include <cstring>
#include <utility>

#include "proxy/address/CAddressManager.h"
#include "proxy/core/SProxySettings.h"
#include "proxy/socks5/CSocksAddress.h"
#include "transport/CSocketUtils.h"

namespace ZRT {
namespace Proxy {

namespace {
const unsigned char SOCKS_VERSION = 5;
const unsigned char METHOD_NO_AUTHENTICATION = 0x00;
const unsigned char METHOD_USERNAME_PASSWORD = 0x02;
// The username/password sub-negotiation's own version, and its replies.
const unsigned char AUTH_VERSION = 0x01;
const unsigned char AUTH_SUCCEEDED = 0x00;
const unsigned char AUTH_FAILED = 0x01;
const unsigned char METHOD_NONE_ACCEPTABLE = 0xFF;

enum ECommand { CMD_CONNECT = 1, CMD_BIND = 2, CMD_UDP_ASSOCIATE = 3 };
enum EReply {
    REP_SUCCEEDED = 0,
    REP_GENERAL_FAILURE = 1,
    REP_NOT_ALLOWED = 2,
    REP_NETWORK_UNREACHABLE = 3,
    REP_HOST_UNREACHABLE = 4,
    REP_REFUSED = 5,
    REP_TTL_EXPIRED = 6,
    REP_COMMAND_NOT_SUPPORTED = 7,
    REP_ADDRESS_TYPE_NOT_SUPPORTED = 8
};

// The reply to a connect that failed for this reason (an errno value), in precise replies.
int ConnectFailureReply(int failure)
{
    switch (failure) {
    case ENETUNREACH:
    case ENETDOWN:
        return REP_NETWORK_UNREACHABLE;
    case EHOSTUNREACH:
    case EHOSTDOWN:
        return REP_HOST_UNREACHABLE;
    case ETIMEDOUT:
        return REP_TTL_EXPIRED; // the nearest the protocol has to a connect that took too long
    case ECONNREFUSED:
    case ECONNRESET:
        return REP_REFUSED;
    default:
        return REP_GENERAL_FAILURE;
    }
}

bool IsUnspecifiedAddress(const IZRTConnectionAddress& address)
{
    const std::string host = CSocksAddress::HostKey(address);
    return host.find_first_not_of('\0') == std::string::npos;
}
} // namespace

// ---- life cycle ----

CConnectionProtocol_SOCKS5::CConnectionProtocol_SOCKS5(IProxyConnection& connection)
    : CSocksHandler(connection, EState::Greeting),
      m_lookup([&connection] { connection.WakeHandler(); }, connection.GetSettings().lookupLimitMs),
      m_login(connection)
{
}

CConnectionProtocol_SOCKS5::~CConnectionProtocol_SOCKS5()
{
    CConnectionProtocol_SOCKS5::Terminate(); // no dynamic dispatch from a destructor
}

void CConnectionProtocol_SOCKS5::Init() {}

void CConnectionProtocol_SOCKS5::Terminate()
{
    Run(ESocksEvent::Terminated);
    m_input.Clear();
    m_lookup.Cancel();
    m_login.Cancel();
    if (m_bind)
        m_bind->Stop();
    if (m_udp)
        m_udp->Close();
}

CConnectionProtocol_SOCKS5::EState CConnectionProtocol_SOCKS5::Refuse(int code, EOutcome outcome)
{
    m_connection.SetOutcome(outcome);
    SendCommandResponse(code);
    return EState::Closed;
}

// ---- entry points, all on the connection's thread ----

int CConnectionProtocol_SOCKS5::GetWatchedDescriptor() const
{
    return GetState() == EState::UdpAssociated && m_udp ? m_udp->GetSocket() : -1;
}

void CConnectionProtocol_SOCKS5::OnDescriptorReady()
{
    Run(ESocksEvent::Readable);
}

// ---- the state machine ----

CConnectionProtocol_SOCKS5::EState CConnectionProtocol_SOCKS5::DoStep(EState state, ESocksEvent event)
{
    switch (state) {
    case EState::Greeting:
        return DoGreeting();
    case EState::Authenticate:
        return DoAuthenticate();
    case EState::Login:
        return DoLogin(event);
    case EState::Request:
        return DoRequest();
    case EState::Resolve:
        return DoResolve();
    case EState::Connect:
        return DoConnectOutcome(event);
    case EState::BindAccept:
        return DoBindAccept(event);
    case EState::Relay:
        return DoRelay();
    case EState::UdpAssociated:
        return DoUdpAssociated(event);
    case EState::Closed:
        break;
    }
    return state;
}

CConnectionProtocol_SOCKS5::EState CConnectionProtocol_SOCKS5::DoGreeting()
{
    const unsigned int size = m_input.Size();
    const unsigned char* data = m_input.Data();
    if (size < 2)
        return EState::Greeting;
    if (data[0] != SOCKS_VERSION) {
        m_connection.SetOutcome(EOutcome::BadRequest);
        return EState::Closed;
    }
    const unsigned int methods = data[1];
    if (methods > 0 && size < methods + 2)
        return EState::Greeting;
    // With users, username/password is the only way in; without, no authentication is.
    const bool withUsers = !m_connection.GetSettings().users.empty();
    const unsigned char wanted = withUsers ? METHOD_USERNAME_PASSWORD : METHOD_NO_AUTHENTICATION;
    const bool accepted = methods > 0 && std::memchr(data + 2, wanted, methods) != nullptr;
    m_input.Consume(methods + 2);
    const char reply[2] = {static_cast<char>(SOCKS_VERSION),
                           static_cast<char>(accepted ? wanted : METHOD_NONE_ACCEPTABLE)};
    m_connection.SendToClient(reply, 2);
    if (!accepted) {
        m_connection.SetOutcome(withUsers ? EOutcome::AuthFailed : EOutcome::BadRequest);
        return EState::Closed;
    }
    return withUsers ? EState::Authenticate : EState::Request;
}

CConnectionProtocol_SOCKS5::EState CConnectionProtocol_SOCKS5::DoAuthenticate()
{
    // VER ULEN UNAME PLEN PASSWD, each length one byte.
    const unsigned int size = m_input.Size();
    const unsigned char* data = m_input.Data();
    if (size < 2)
        return EState::Authenticate;
    const unsigned int userLength = data[1];
    if (size < 3 + userLength)
        return EState::Authenticate;
    const unsigned int passwordLength = data[2 + userLength];
    if (size < 3 + userLength + passwordLength)
        return EState::Authenticate;
    const std::string user(reinterpret_cast<const char*>(data + 2), userLength);
    const std::string password(reinterpret_cast<const char*>(data + 3 + userLength), passwordLength);
    const bool versionOk = data[0] == AUTH_VERSION;
    m_input.Consume(3 + userLength + passwordLength);
    m_connection.SetUser(user);
    if (!versionOk) {
        AnswerLogin(false);
        return EState::Closed;
    }
    // The answer may have to wait (a slowed address, a password hash): then Login waits for it.
    m_login.Start(user, password);
    return DoLogin(ESocksEvent::None);
}

CConnectionProtocol_SOCKS5::EState CConnectionProtocol_SOCKS5::DoLogin(ESocksEvent event)
{
    // A slowed address's turn has come: its check runs now.
    if (event == ESocksEvent::Timer)
        m_login.OnTimer();
    bool valid = false;
    if (!m_login.TakeResult(valid))
        return EState::Login;
    AnswerLogin(valid);
    return valid ? EState::Request : EState::Closed;
}

void CConnectionProtocol_SOCKS5::AnswerLogin(bool valid)
{
    const char reply[2] = {static_cast<char>(AUTH_VERSION), static_cast<char>(valid ? AUTH_SUCCEEDED : AUTH_FAILED)};
    m_connection.SendToClient(reply, 2);
    if (!valid)
        m_connection.SetOutcome(EOutcome::AuthFailed);
}

CConnectionProtocol_SOCKS5::EState CConnectionProtocol_SOCKS5::DoRequest()
{
    const unsigned int size = m_input.Size();
    const unsigned char* data = m_input.Data();
    if (size < 4)
        return EState::Request;
    if (data[0] != SOCKS_VERSION) {
        m_connection.SetOutcome(EOutcome::BadRequest);
        return EState::Closed;
    }
    if (data[3] == CSocksAddress::ATYP_DOMAIN && size < 5)
        return EState::Request;
    const unsigned int block = CSocksAddress::BlockLength(data + 3);
    if (block == 0)
        return Refuse(REP_ADDRESS_TYPE_NOT_SUPPORTED, EOutcome::BadRequest);
    const unsigned int length = 3 + block;
    if (size < length)
        return EState::Request;
    unsigned char request[CSocksAddress::MAX_REQUEST_LENGTH];
    std::memcpy(request, data, length);
    m_input.Consume(length);
    m_connection.MarkRequestComplete();
    m_command = request[1];
    static const char* const KINDS[] = {"socks5", "socks5", "bind", "udp"};
    const char* kind = m_command <= CMD_UDP_ASSOCIATE ? KINDS[m_command] : "socks5";
    if (request[3] != CSocksAddress::ATYP_DOMAIN) {
        const AddressPtr address = CSocksAddress::DecodeNumeric(request + 3);
        m_connection.DescribeExchange(kind, address ? address->ToString() : std::string());
        return DoCommand(address);
    }
    m_connection.DescribeExchange(kind, CSocksAddress::DomainKey(request + 3));
    const std::string name(reinterpret_cast<const char*>(request + 5), request[4]);
    if (!CAddressManager::IsPlausibleHostName(name))
        return Refuse(REP_ADDRESS_TYPE_NOT_SUPPORTED, EOutcome::BadRequest);
    // The command is judged once the name is known, as for an address given as such.
    m_lookup.Start(m_connection.GetAddressManager(), CSocksAddress::DomainKey(request + 3));
    return DoResolve();
}

CConnectionProtocol_SOCKS5::EState CConnectionProtocol_SOCKS5::DoResolve()
{
    AddressPtr address;
    const CNameLookup::EResult result = m_lookup.Take(address);
    // Back when the answer comes (Resume), or by the lookup's limit.
    m_connection.SetHandlerTimer(m_lookup.GetWakeDelay());
    if (result == CNameLookup::EResult::Waiting)
        return EState::Resolve;
    // A name that is not answered in time does not resolve either.
    if (!address && m_connection.GetSettings().socks5PreciseReplies)
        return Refuse(REP_HOST_UNREACHABLE, EOutcome::NoDestination);
    return DoCommand(address);
}

CConnectionProtocol_SOCKS5::EState CConnectionProtocol_SOCKS5::DoCommand(const AddressPtr& destination)
{
    if (!destination)
        return Refuse(REP_ADDRESS_TYPE_NOT_SUPPORTED, EOutcome::NoDestination);
    m_destination = destination;
    switch (m_command) {
    case CMD_CONNECT:
        return DoConnect(destination);
    case CMD_BIND:
        return DoBind(destination);
    case CMD_UDP_ASSOCIATE:
        return DoUdpAssociate(destination);
    default:
        return Refuse(REP_COMMAND_NOT_SUPPORTED, EOutcome::BadRequest);
    }
}

CConnectionProtocol_SOCKS5::EState CConnectionProtocol_SOCKS5::DoConnect(const AddressPtr& destination)
{
    // A tunnel back into the proxy would loop until the descriptors run out.
    if (m_connection.GetAddressManager().IsProxyItself(*destination))
        return Refuse(REP_NOT_ALLOWED, EOutcome::NotAllowed);
    if (!m_connection.IsDestinationAllowed(*destination))
        return Refuse(REP_NOT_ALLOWED, EOutcome::Denied);
    if (!m_connection.BeginConnectToHost(destination))
        return Refuse(REP_REFUSED, EOutcome::Unreachable);
    return EState::Connect;
}

CConnectionProtocol_SOCKS5::EState CConnectionProtocol_SOCKS5::DoConnectOutcome(ESocksEvent event)
{
    if (event == ESocksEvent::ConnectFailed) {
        const bool precise = m_connection.GetSettings().socks5PreciseReplies;
        return Refuse(precise ? ConnectFailureReply(m_connection.GetConnectFailure()) : REP_REFUSED,
                      EOutcome::Unreachable);
    }
    if (event != ESocksEvent::Connected)
        return EState::Connect;
    SendCommandResponse(REP_SUCCEEDED);
    return EState::Relay;
}

CConnectionProtocol_SOCKS5::EState CConnectionProtocol_SOCKS5::DoBind(const AddressPtr& destination)
{
    IConnectionListener* listener = m_connection.GetConnectionListener();
    if (!listener)
        return Refuse(REP_REFUSED, EOutcome::BadRequest);
    if (!IsUnspecifiedAddress(*destination) && !m_connection.IsDestinationAllowed(*destination))
        return Refuse(REP_NOT_ALLOWED, EOutcome::Denied);
    m_bind.reset(new CSocks5Bind(m_connection));
    const AddressPtr listening = m_bind->Start(*listener, *destination);
    if (!listening)
        return Refuse(REP_REFUSED, EOutcome::Unreachable);
    SendResponse(REP_SUCCEEDED, *listening);
    m_connection.SetHandlerTimer(m_connection.GetSettings().bindWaitMs);
    return EState::BindAccept;
}

CConnectionProtocol_SOCKS5::EState CConnectionProtocol_SOCKS5::DoBindAccept(ESocksEvent event)
{
    QOX::CRefCountPtr<IZRTDataLayer> stream;
    AddressPtr peer;
    if (!m_bind || !m_bind->TakePeer(stream, peer))
        return event == ESocksEvent::Timer ? Refuse(REP_GENERAL_FAILURE, EOutcome::Timeout) : EState::BindAccept;
    m_connection.SetHandlerTimer(-1);
    // A BIND completes once: nobody else is awaited.
    m_bind->Stop();
    if (!peer || !m_connection.AdoptHostLink(stream)) {
        stream->Disconnect();
        return Refuse(REP_REFUSED, EOutcome::Unreachable);
    }
    SendResponse(REP_SUCCEEDED, *peer);
    return EState::Relay;
}

CConnectionProtocol_SOCKS5::EState CConnectionProtocol_SOCKS5::DoUdpAssociate(const AddressPtr& destination)
{
    IDatagramHandler* handler = m_connection.GetDatagramHandler();
    if (!handler)
        return Refuse(REP_REFUSED, EOutcome::BadRequest);
    m_udp.reset(new CSocks5UdpRelay(m_connection));
    sockaddr_storage local{};
    if (!m_udp->Open(*handler, *destination) || !m_udp->GetLocalAddress(local)) {
        m_udp.reset();
        return Refuse(REP_REFUSED, EOutcome::Unreachable);
    }
    // The reply names 0.0.0.0 (the address the client reached us at) and the relay's port.
    sockaddr_in reply;
    std::memset(&reply, 0, sizeof(reply));
    reply.sin_family = AF_INET;
    reply.sin_addr.s_addr = htonl(INADDR_ANY);
    reply.sin_port = local.ss_family == AF_INET ? reinterpret_cast<const sockaddr_in&>(local).sin_port
                                                : reinterpret_cast<const sockaddr_in6&>(local).sin6_port;
    SendResponse(REP_SUCCEEDED, reinterpret_cast<const sockaddr*>(&reply));
    return EState::UdpAssociated;
}

CConnectionProtocol_SOCKS5::EState CConnectionProtocol_SOCKS5::DoUdpAssociated(ESocksEvent event)
{
    // The TCP connection of an association carries nothing; a byte on it ends everything. Its
    // end is the client's word that the association ended, and the host's end of datagrams ours.
    if (m_input.Size() > 0 || m_udp->HasEnded())
        return EState::Closed;
    if (event == ESocksEvent::Readable)
        m_udp->OnReadable();
    else if (event == ESocksEvent::Woken || event == ESocksEvent::Timer)
        m_udp->SettleLookups();
    // Back by the time the earliest datagram's lookup runs out.
    m_connection.SetHandlerTimer(m_udp->GetWakeDelay());
    return EState::UdpAssociated;
}

CConnectionProtocol_SOCKS5::EState CConnectionProtocol_SOCKS5::DoRelay()
{
    // What the client sent while the command was under way goes first.
    return m_input.Release() ? EState::Relay : EState::Closed;
}

// ---- replies ----

void CConnectionProtocol_SOCKS5::SendResponse(int code, const sockaddr* address)
{
    unsigned char reply[64];
    std::memset(reply, 0, sizeof(reply));
    reply[0] = SOCKS_VERSION;
    reply[1] = static_cast<unsigned char>(code);
    reply[2] = 0;
    const int written = CSocksAddress::Encode(reply + 3, address);
    if (written < 1)
        return;
    m_connection.SendToClient(reinterpret_cast<const char*>(reply), written + 3);
}

void CConnectionProtocol_SOCKS5::SendResponse(int code, const IZRTConnectionAddress& address)
{
    sockaddr_storage area;
    std::memset(&area, 0, sizeof(area));
    int length = CSocketUtils::MAX_ADDRESS_LENGTH;
    address.GetSockAddr(reinterpret_cast<sockaddr*>(&area), &length);
    SendResponse(code, reinterpret_cast<const sockaddr*>(&area));
}

void CConnectionProtocol_SOCKS5::SendCommandResponse(int code)
{
    sockaddr_in own;
    std::memset(&own, 0, sizeof(own));
    own.sin_family = AF_INET;
    own.sin_addr.s_addr = htonl(INADDR_ANY);
    own.sin_port = htons(static_cast<uint16_t>(m_connection.GetClientPort()));
    SendResponse(code, reinterpret_cast<const sockaddr*>(&own));
}

} // namespace Proxy
} // namespace ZRT
