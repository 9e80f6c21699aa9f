#include "proxy/socks5/CConnectionProtocol_SOCKS5.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>

#include "proxy/address/CAddressManager.h"
#include "proxy/core/SProxySettings.h"
#include "proxy/socks5/CSocksAddress.h"

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
    REP_REFUSED = 5,
    REP_COMMAND_NOT_SUPPORTED = 7,
    REP_ADDRESS_TYPE_NOT_SUPPORTED = 8
};

// Room for a sockaddr_in6, the largest address the handler deals with.
const int SOCKADDR_AREA_LENGTH = 28;

bool IsUnspecifiedAddress(const IZRTConnectionAddress& address)
{
    const std::string host = CSocksAddress::HostKey(address);
    return host.find_first_not_of('\0') == std::string::npos;
}
} // namespace

// ---- CBuffer ----

bool CConnectionProtocol_SOCKS5::CBuffer::AppendData(const char* data, unsigned int length)
{
    if (length == 0 || !data)
        return false;
    m_bytes.insert(m_bytes.end(), data, data + length);
    return true;
}

void CConnectionProtocol_SOCKS5::CBuffer::Consume(unsigned int count)
{
    if (count >= m_bytes.size()) {
        m_bytes.clear();
        return;
    }
    m_bytes.erase(m_bytes.begin(), m_bytes.begin() + count);
}

// ---- life cycle ----

CConnectionProtocol_SOCKS5::CConnectionProtocol_SOCKS5(IProxyConnection& connection)
    : m_connection(connection), m_lookup([&connection] { connection.WakeHandler(); }), m_login(connection)
{
}

CConnectionProtocol_SOCKS5::~CConnectionProtocol_SOCKS5()
{
    CConnectionProtocol_SOCKS5::Terminate(); // no dynamic dispatch from a destructor
}

void CConnectionProtocol_SOCKS5::Init() {}

void CConnectionProtocol_SOCKS5::Terminate()
{
    m_state = EState::Closed;
    m_buffer.Clear();
    m_lookup.Cancel();
    m_login.Cancel();
    if (m_bind)
        m_bind->Stop();
    if (m_udp)
        m_udp->Close();
}

void CConnectionProtocol_SOCKS5::Close()
{
    m_state = EState::Closed;
    m_buffer.Clear();
    m_connection.SetHandlerTimer(-1);
    // The connection terminates us in turn (on this thread).
    if (m_connection.IsConnectedToClient())
        m_connection.DisconnectClient();
}

void CConnectionProtocol_SOCKS5::Refuse(int code, EOutcome outcome)
{
    m_connection.SetOutcome(outcome);
    SendCommandResponse(code);
    Close();
}

// ---- entry points, all on the connection's thread ----

void CConnectionProtocol_SOCKS5::HandleRequest(const char* data, int length)
{
    if (m_state == EState::Closed || !data || length <= 0)
        return;
    // Relaying with nothing held: straight to the host, without the copy into the buffer.
    if (PassesRequestsThrough()) {
        m_connection.SendToHost(data, length);
        return;
    }
    m_buffer.AppendData(data, static_cast<unsigned int>(length));
    DoLoop();
}

void CConnectionProtocol_SOCKS5::HandleResponse(const char* data, int length)
{
    if (m_state == EState::Relay && data && length > 0)
        m_connection.SendToClient(data, length);
}

bool CConnectionProtocol_SOCKS5::HandleClientEnd()
{
    switch (m_state) {
    case EState::Relay:
        return m_connection.EndHostOutput();
    case EState::Resolve:
    case EState::Connect:
        // A client that sent its request (and what follows it) and then finished still gets its
        // answer: the end goes to the host behind those bytes once the relay starts.
        m_clientEnded = true;
        return true;
    case EState::BindAccept:
        // A BIND may wait minutes for its peer: a client that went must not hold the listener
        // and a client slot all that time.
        return false;
    default:
        return false;
    }
}

bool CConnectionProtocol_SOCKS5::HandleHostEnd()
{
    return m_state == EState::Relay;
}

void CConnectionProtocol_SOCKS5::OnHostConnected(bool connected)
{
    if (m_state != EState::Connect)
        return;
    if (!connected) {
        Refuse(REP_REFUSED, EOutcome::Unreachable);
        return;
    }
    SendCommandResponse(REP_SUCCEEDED);
    m_state = EState::Relay;
    DoLoop();
}

void CConnectionProtocol_SOCKS5::Resume()
{
    if (m_state == EState::UdpAssociated && m_udp)
        m_udp->Resume();
    DoLoop();
}

void CConnectionProtocol_SOCKS5::OnTimer()
{
    if (m_state == EState::Resolve) {
        // A name that is not answered in time does not resolve.
        m_lookup.Cancel();
        Refuse(REP_ADDRESS_TYPE_NOT_SUPPORTED, EOutcome::NoDestination);
    } else if (m_state == EState::BindAccept) {
        Refuse(REP_GENERAL_FAILURE, EOutcome::Timeout);
    } else if (m_state == EState::Login && m_login.OnTimer()) {
        DoLoop();
    }
}

int CConnectionProtocol_SOCKS5::GetWatchedDescriptor() const
{
    return m_state == EState::UdpAssociated && m_udp ? m_udp->GetSocket() : -1;
}

void CConnectionProtocol_SOCKS5::OnDescriptorReady()
{
    if (m_state == EState::UdpAssociated && m_udp)
        m_udp->OnReadable();
}

// ---- the state machine ----

void CConnectionProtocol_SOCKS5::DoLoop()
{
    for (;;) {
        const EState state = m_state;
        EState next = state;
        switch (state) {
        case EState::Greeting:
            next = DoGreeting();
            break;
        case EState::Authenticate:
            next = DoAuthenticate();
            break;
        case EState::Login:
            next = DoLogin();
            break;
        case EState::Request:
            next = DoRequest();
            break;
        case EState::Resolve:
            next = DoResolveComplete();
            break;
        case EState::BindAccept:
            next = DoBindAccept();
            break;
        case EState::Relay:
            next = DoRelay();
            break;
        case EState::UdpAssociated:
            // The TCP connection of an association carries nothing; a byte on it ends everything.
            next = m_buffer.GetSize() > 0 ? EState::Closed : state;
            break;
        case EState::Connect: // OnHostConnected continues
        case EState::Closed:
            break;
        }
        if (m_state == EState::Closed)
            return; // a step closed already (a refusal)
        if (next == state)
            return;
        m_state = next;
        if (next == EState::Closed) {
            Close();
            return;
        }
    }
}

CConnectionProtocol_SOCKS5::EState CConnectionProtocol_SOCKS5::DoGreeting()
{
    const unsigned int size = m_buffer.GetSize();
    const unsigned char* data = m_buffer.GetData();
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
    m_buffer.Consume(methods + 2);
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
    const unsigned int size = m_buffer.GetSize();
    const unsigned char* data = m_buffer.GetData();
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
    m_buffer.Consume(3 + userLength + passwordLength);
    m_connection.SetUser(user);
    if (!versionOk) {
        AnswerLogin(false);
        return EState::Closed;
    }
    // The answer may have to wait (a slowed address, a password hash): then Login waits for it.
    return m_login.Start(user, password) ? DoLogin() : EState::Login;
}

CConnectionProtocol_SOCKS5::EState CConnectionProtocol_SOCKS5::DoLogin()
{
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
    const unsigned int size = m_buffer.GetSize();
    const unsigned char* data = m_buffer.GetData();
    if (size < 4)
        return EState::Request;
    if (data[0] != SOCKS_VERSION) {
        m_connection.SetOutcome(EOutcome::BadRequest);
        return EState::Closed;
    }
    if (data[3] == CSocksAddress::ATYP_DOMAIN && size < 5)
        return EState::Request;
    const unsigned int block = CSocksAddress::BlockLength(data + 3);
    if (block == 0) {
        Refuse(REP_ADDRESS_TYPE_NOT_SUPPORTED, EOutcome::BadRequest);
        return EState::Closed;
    }
    const unsigned int length = 3 + block;
    if (size < length)
        return EState::Request;
    unsigned char request[CSocksAddress::MAX_REQUEST_LENGTH];
    std::memcpy(request, data, length);
    m_buffer.Consume(length);
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
    if (!CAddressManager::IsPlausibleHostName(name)) {
        Refuse(REP_ADDRESS_TYPE_NOT_SUPPORTED, EOutcome::BadRequest);
        return EState::Closed;
    }
    // The command is judged once the name is known, as for an address given as such.
    if (!m_lookup.Start(m_connection.GetAddressManager(), CSocksAddress::DomainKey(request + 3))) {
        m_connection.SetHandlerTimer(m_connection.GetSettings().lookupLimitMs);
        return EState::Resolve;
    }
    return DoResolveComplete();
}

CConnectionProtocol_SOCKS5::EState CConnectionProtocol_SOCKS5::DoResolveComplete()
{
    AddressPtr address;
    if (!m_lookup.TakeAnswer(address))
        return EState::Resolve;
    m_connection.SetHandlerTimer(-1);
    return DoCommand(address);
}

CConnectionProtocol_SOCKS5::EState CConnectionProtocol_SOCKS5::DoCommand(const AddressPtr& destination)
{
    if (!destination) {
        Refuse(REP_ADDRESS_TYPE_NOT_SUPPORTED, EOutcome::NoDestination);
        return EState::Closed;
    }
    m_destination = destination;
    switch (m_command) {
    case CMD_CONNECT:
        return DoConnect(destination);
    case CMD_BIND:
        return DoBind(destination);
    case CMD_UDP_ASSOCIATE:
        return DoUdpAssociate(destination);
    default:
        Refuse(REP_COMMAND_NOT_SUPPORTED, EOutcome::BadRequest);
        return EState::Closed;
    }
}

CConnectionProtocol_SOCKS5::EState CConnectionProtocol_SOCKS5::DoConnect(const AddressPtr& destination)
{
    // A tunnel back into the proxy would loop until the descriptors run out.
    if (m_connection.GetAddressManager().IsProxyItself(*destination)) {
        Refuse(REP_NOT_ALLOWED, EOutcome::NotAllowed);
        return EState::Closed;
    }
    if (!m_connection.IsDestinationAllowed(*destination)) {
        Refuse(REP_NOT_ALLOWED, EOutcome::Denied);
        return EState::Closed;
    }
    if (!m_connection.BeginConnectToHost(destination)) {
        Refuse(REP_REFUSED, EOutcome::Unreachable);
        return EState::Closed;
    }
    return EState::Connect;
}

CConnectionProtocol_SOCKS5::EState CConnectionProtocol_SOCKS5::DoBind(const AddressPtr& destination)
{
    IConnectionListener* listener = m_connection.GetConnectionListener();
    if (!listener) {
        Refuse(REP_REFUSED, EOutcome::BadRequest);
        return EState::Closed;
    }
    if (!IsUnspecifiedAddress(*destination) && !m_connection.IsDestinationAllowed(*destination)) {
        Refuse(REP_NOT_ALLOWED, EOutcome::Denied);
        return EState::Closed;
    }
    m_bind.reset(new CSocks5Bind(m_connection));
    const AddressPtr listening = m_bind->Start(*listener, *destination);
    if (!listening) {
        Refuse(REP_REFUSED, EOutcome::Unreachable);
        return EState::Closed;
    }
    SendResponse(REP_SUCCEEDED, *listening);
    m_connection.SetHandlerTimer(m_connection.GetSettings().bindWaitMs);
    return EState::BindAccept;
}

CConnectionProtocol_SOCKS5::EState CConnectionProtocol_SOCKS5::DoBindAccept()
{
    QOX::CRefCountPtr<IZRTDataLayer> stream;
    AddressPtr peer;
    if (!m_bind || !m_bind->TakePeer(stream, peer))
        return EState::BindAccept;
    m_connection.SetHandlerTimer(-1);
    // A BIND completes once: nobody else is awaited.
    m_bind->Stop();
    if (!peer || !m_connection.AdoptHostLink(stream)) {
        stream->Disconnect();
        Refuse(REP_REFUSED, EOutcome::Unreachable);
        return EState::Closed;
    }
    SendResponse(REP_SUCCEEDED, *peer);
    return EState::Relay;
}

CConnectionProtocol_SOCKS5::EState CConnectionProtocol_SOCKS5::DoUdpAssociate(const AddressPtr& destination)
{
    IDatagramHandler* handler = m_connection.GetDatagramHandler();
    if (!handler) {
        Refuse(REP_REFUSED, EOutcome::BadRequest);
        return EState::Closed;
    }
    m_udp.reset(new CSocks5UdpRelay(m_connection));
    sockaddr_storage local{};
    if (!m_udp->Open(*handler, *destination) || !m_udp->GetLocalAddress(local)) {
        m_udp.reset();
        Refuse(REP_REFUSED, EOutcome::Unreachable);
        return EState::Closed;
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

CConnectionProtocol_SOCKS5::EState CConnectionProtocol_SOCKS5::DoRelay()
{
    // What the client sent while the command was under way goes first.
    const unsigned int size = m_buffer.GetSize();
    if (size > 0) {
        m_connection.SendToHost(reinterpret_cast<const char*>(m_buffer.GetData()), static_cast<int>(size));
        m_buffer.Clear();
    }
    if (m_clientEnded && !m_connection.EndHostOutput())
        return EState::Closed;
    m_clientEnded = false;
    return EState::Relay;
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
    int length = SOCKADDR_AREA_LENGTH;
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
