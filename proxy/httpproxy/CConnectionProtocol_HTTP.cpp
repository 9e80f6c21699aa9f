#include "proxy/httpproxy/CConnectionProtocol_HTTP.h"

#include <errno.h>
#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "proxy/address/CAddressManager.h"
#include "proxy/core/SProxySettings.h"
#include "proxy/http/CBase64.h"
#include "proxy/http/CHTTPFraming.h"
#include "proxy/http/CHTTPHopByHop.h"
#include "transport/CSocketUtils.h"

namespace ZRT {
namespace Proxy {

namespace {
using EReply = CHTTPReplies::EReply;

const char TUNNEL_METHOD[] = "CONNECT";
const char VERSION_1_0[] = "HTTP/1.0";
const char VERSION_1_1[] = "HTTP/1.1";
const char BASIC_SCHEME[] = "basic";

int StatusOf(EReply reply)
{
    switch (reply) {
    case EReply::BadRequest:
        return 400;
    case EReply::Forbidden:
        return 403;
    case EReply::NotFound:
        return 404;
    case EReply::AuthRequired:
        return 407;
    case EReply::BadGateway:
        return 502;
    case EReply::GatewayTimeout:
        return 504;
    case EReply::LoopDetected:
        return 508;
    }
    return 502;
}

std::string Pending(const CHTTPParser& parser)
{
    std::string bytes(parser.m_pendingData.GetSize(), '\0');
    if (!bytes.empty())
        parser.m_pendingData.PeekBytes(0, reinterpret_cast<unsigned char*>(&bytes[0]), static_cast<unsigned int>(bytes.size()));
    return bytes;
}

const unsigned char* Bytes(const char* data)
{
    return reinterpret_cast<const unsigned char*>(data);
}

// "Basic" (any case), spaces, base64 of user:password; false without both.
bool ReadBasic(const std::string& field, std::string& user, std::string& password)
{
    const size_t schemeEnd = field.find(' ');
    if (schemeEnd == std::string::npos || strcasecmp(field.substr(0, schemeEnd).c_str(), BASIC_SCHEME) != 0)
        return false;
    const size_t start = field.find_first_not_of(' ', schemeEnd);
    std::string credentials;
    if (start == std::string::npos || !CBase64::Decode(field.substr(start), credentials))
        return false;
    const size_t colon = credentials.find(':');
    if (colon == std::string::npos)
        return false;
    user = credentials.substr(0, colon);
    password = credentials.substr(colon + 1);
    return true;
}
} // namespace

// ---- life cycle ----

CConnectionProtocol_HTTP::CConnectionProtocol_HTTP(IProxyConnection& connection)
    : m_connection(connection), m_keepAliveMs(connection.GetSettings().httpKeepAliveMs),
      m_lookup([&connection] { connection.WakeHandler(); }, connection.GetSettings().lookupLimitMs),
      m_login(connection), m_origin(connection, m_keepAliveMs), m_answer(connection, m_keepAliveMs > 0)
{
}

CConnectionProtocol_HTTP::~CConnectionProtocol_HTTP()
{
    CConnectionProtocol_HTTP::Terminate(); // no dynamic dispatch from a destructor
}

void CConnectionProtocol_HTTP::Init() {}

void CConnectionProtocol_HTTP::Terminate()
{
    DoLoop(EEvent::Terminated);
    // A kept origin connection outlives its client: another client may use it.
    if (m_origin.GetState() == CHTTPOriginLink::EState::Parked)
        LetGoOfOrigin(true);
    m_lookup.Cancel();
    m_login.Cancel();
    m_input.clear();
}

// ---- events, all on the connection's thread ----

void CConnectionProtocol_HTTP::HandleRequest(const char* data, int length)
{
    if (!data || length <= 0 || m_state == EState::Closing || m_state == EState::Closed)
        return;
    const size_t size = static_cast<size_t>(length);
    if (m_state == EState::Tunnel && m_input.empty()) {
        m_connection.SendToHost(data, length);
        return;
    }
    // A body in full flow goes on without a copy; what follows it waits for its turn.
    if (m_state == EState::Exchange && m_input.empty() && !m_requestBody.IsDone()) {
        size_t taken = 0;
        if (!ForwardBody(data, size, taken)) {
            DoLoop(EEvent::MalformedBody);
            return;
        }
        m_input.append(data + taken, size - taken);
    } else {
        m_input.append(data, size);
    }
    DoLoop();
}

void CConnectionProtocol_HTTP::HandleResponse(const char* data, int length)
{
    if (!data || length <= 0 || m_state == EState::Closed)
        return;
    if (m_state == EState::Tunnel) {
        m_connection.SendToClient(data, length);
        return;
    }
    if (m_state != EState::Exchange) {
        // An origin that speaks unasked is out of step: its connection serves nobody more.
        if (m_origin.GetState() == CHTTPOriginLink::EState::Parked)
            LetGoOfOrigin(false);
        return;
    }
    m_answer.Read(data, static_cast<size_t>(length), !m_requestBody.IsDone() || m_clientEnd != EClientEnd::Sending);
    DoLoop();
}

void CConnectionProtocol_HTTP::OnHostConnected(bool connected)
{
    if (m_state != EState::Connect)
        return;
    DoLoop(connected ? EEvent::Connected : EEvent::ConnectFailed);
}

void CConnectionProtocol_HTTP::Resume()
{
    DoLoop();
}

void CConnectionProtocol_HTTP::OnTimer()
{
    switch (m_state) {
    case EState::Login:
        if (m_login.OnTimer())
            DoLoop();
        return;
    case EState::Resolve:
        DoLoop(); // the lookup knows whether its time is up
        return;
    case EState::ReadHead:
        DoLoop(EEvent::Timer);
        return;
    default:
        return;
    }
}

bool CConnectionProtocol_HTTP::HandleClientEnd()
{
    switch (m_state) {
    case EState::Tunnel:
        return m_connection.EndHostOutput();
    case EState::Login:
    case EState::Resolve:
    case EState::Connect:
    case EState::Exchange:
        // A client that sent its request and finished still gets its answer; then the end.
        if (m_clientEnd == EClientEnd::Sending)
            m_clientEnd = EClientEnd::Ended;
        DoLoop();
        return m_state != EState::Closing && m_state != EState::Closed;
    default:
        return false;
    }
}

bool CConnectionProtocol_HTTP::HandleHostEnd()
{
    if (m_state == EState::Tunnel)
        return true;
    if (m_origin.GetState() == CHTTPOriginLink::EState::Parked) {
        // The kept origin connection closed between requests: the client stays.
        LetGoOfOrigin(false);
        return true;
    }
    if (m_state != EState::Exchange)
        return false;
    m_answer.OnOriginEnd();
    DoLoop();
    return m_state == EState::Connect;
}

unsigned long long CConnectionProtocol_HTTP::GetResponseRelayAllowance() const
{
    if (m_state == EState::Tunnel)
        return RELAY_ALL;
    return m_state == EState::Exchange ? m_answer.GetRelayAllowance() : 0;
}

void CConnectionProtocol_HTTP::OnResponseRelayed(unsigned long long count)
{
    if (m_state == EState::Exchange && m_answer.Relayed(count))
        DoLoop();
}

unsigned long long CConnectionProtocol_HTTP::GetRequestRelayAllowance() const
{
    if (!m_input.empty())
        return 0; // held bytes go first
    if (m_state == EState::Tunnel)
        return RELAY_ALL;
    if (m_state != EState::Exchange || m_requestBody.IsDone())
        return 0;
    return m_requestBody.GetRelayAllowance();
}

void CConnectionProtocol_HTTP::OnRequestRelayed(unsigned long long count)
{
    if (m_state != EState::Exchange)
        return;
    m_requestBody.Relayed(count);
    if (m_requestBody.IsDone())
        DoLoop();
}

// ---- the state machine ----

void CConnectionProtocol_HTTP::DoLoop(EEvent event)
{
    // The event is for the state it found; the steps after it see none.
    while (m_state != EState::Closed) {
        const EState state = m_state;
        const EState next = event == EEvent::Terminated ? EState::Closed : DoStep(state, event);
        if (m_state == EState::Closed)
            return; // terminated by the connection inside the step
        m_state = next;
        if (next == state)
            return; // waiting for an event
        event = EEvent::None;
    }
}

CConnectionProtocol_HTTP::EState CConnectionProtocol_HTTP::DoStep(EState state, EEvent event)
{
    switch (state) {
    case EState::ReadHead:
        return DoReadHead(event);
    case EState::Login:
        return DoLogin();
    case EState::Resolve:
        return DoResolve();
    case EState::Connect:
        return DoConnect(event);
    case EState::Exchange:
        return DoExchange(event);
    case EState::Tunnel:
        return DoTunnel();
    case EState::Closing:
    case EState::Closed:
        break; // nothing more to do
    }
    return state;
}

CConnectionProtocol_HTTP::EState CConnectionProtocol_HTTP::DoReadHead(EEvent event)
{
    if (event == EEvent::Timer) {
        // Idle between requests for as long as a persistent connection may be.
        m_connection.DisconnectClient();
        return EState::Closing;
    }
    if (m_input.empty())
        return EState::ReadHead;
    std::string input;
    input.swap(m_input);
    m_connection.SetHandlerTimer(-1); // not idle any more
    const CHTTPParser::EParseResult result = m_requestParser.Parse(Bytes(input.data()), static_cast<unsigned int>(input.size()));
    if (result == CHTTPParser::PARSE_ERROR)
        return Fail(EReply::BadRequest, EOutcome::BadRequest);
    if (result != CHTTPParser::PARSE_COMPLETE)
        return EState::ReadHead;
    m_input = Pending(m_requestParser);
    m_request = QOX::StaticCast<CHTTPRequest>(m_requestParser.m_packet);
    m_requestParser.Reset();
    return StartRequest();
}

CConnectionProtocol_HTTP::EState CConnectionProtocol_HTTP::StartRequest()
{
    m_connection.MarkRequestComplete();
    m_method = m_request->m_method;
    const bool tunnel = strcasecmp(m_method.c_str(), TUNNEL_METHOD) == 0;
    m_connection.DescribeExchange(tunnel ? "connect" : "http", "");
    const CHTTPFraming framing = CHTTPFraming::OfRequest(*m_request);
    const bool upgrade = Persistent() && framing.AsksUpgrade(); // kept only with keep-alive
    m_kind = tunnel ? EHTTPRequestKind::Connect : upgrade ? EHTTPRequestKind::Upgrade : EHTTPRequestKind::Ordinary;
    // Nothing of the previous request's answer carries over.
    m_answer.Begin(m_method, m_kind, m_request->m_version == VERSION_1_0,
                   Persistent() && framing.IsPersistent() && !tunnel);
    if (framing.GetFault() != CHTTPFraming::EFault::None)
        return Fail(EReply::BadRequest, EOutcome::BadRequest, "The request's length or fields contradict each other.");
    const CHTTPHopByHop::SRemoved removed = CHTTPHopByHop::Remove(*m_request, upgrade);
    m_requestBody.Begin(tunnel ? CHTTPFraming::EBody::None : framing.GetBody(), framing.GetLength());
    return RouteRequest(removed.proxyAuthorization.empty() ? std::string() : removed.proxyAuthorization.front());
}

CConnectionProtocol_HTTP::EState CConnectionProtocol_HTTP::RouteRequest(const std::string& authorization)
{
    if (!m_route.Find(*m_request))
        return Fail(Persistent() ? EReply::BadRequest : EReply::NotFound, EOutcome::NoDestination,
                    "The request names no destination.");
    m_connection.DescribeExchange(m_kind == EHTTPRequestKind::Connect ? "connect" : "http", m_route.GetDestination());
    if (!CAddressManager::IsPlausibleHostName(CSocketUtils::StripBrackets(m_route.GetHost())))
        return Fail(EReply::BadRequest, EOutcome::BadRequest, "The request's destination is not a host name.");
    return StartLogin(authorization);
}
CConnectionProtocol_HTTP::EState CConnectionProtocol_HTTP::StartLogin(const std::string& authorization)
{
    if (m_connection.GetSettings().users.empty())
        return FindDestination();
    std::string user;
    std::string password;
    if (!ReadBasic(authorization, user, password))
        return Fail(EReply::AuthRequired, EOutcome::AuthFailed);
    m_connection.SetUser(user);
    // A slowed address or a password hash: the request waits for the answer.
    return m_login.Start(user, password) ? DoLogin() : EState::Login;
}

CConnectionProtocol_HTTP::EState CConnectionProtocol_HTTP::DoLogin()
{
    bool valid = false;
    if (!m_login.TakeResult(valid))
        return EState::Login;
    if (!valid)
        return Fail(EReply::AuthRequired, EOutcome::AuthFailed);
    return FindDestination();
}

CConnectionProtocol_HTTP::EState CConnectionProtocol_HTTP::FindDestination()
{
    const std::string destination = m_route.GetDestination();
    CAddressManager& addresses = m_connection.GetAddressManager();
    // This machine is no destination for the HTTP side, however it is named; its port that is
    // the proxy's own would be a loop.
    if (addresses.IsLocalAddress(destination)) {
        if (addresses.IsProxyPort(static_cast<unsigned int>(std::strtoul(m_route.GetPort().c_str(), nullptr, 10))))
            return Fail(Persistent() ? EReply::LoopDetected : EReply::NotFound, EOutcome::NotAllowed);
        return Fail(Persistent() ? EReply::Forbidden : EReply::NotFound, EOutcome::NoDestination,
                    "The proxy does not reach its own machine.");
    }
    m_lookup.Start(addresses, destination);
    return DoResolve();
}

CConnectionProtocol_HTTP::EState CConnectionProtocol_HTTP::DoResolve()
{
    AddressPtr address;
    const CNameLookup::EResult result = m_lookup.Take(address);
    // Back when the answer comes (Resume), or by the lookup's limit.
    m_connection.SetHandlerTimer(m_lookup.GetWakeDelay());
    if (result == CNameLookup::EResult::Waiting)
        return EState::Resolve;
    if (result == CNameLookup::EResult::TimedOut)
        return Fail(Persistent() ? EReply::GatewayTimeout : EReply::NotFound, EOutcome::NoDestination,
                    "The name of the destination was not found in time.");
    return UseDestination(address);
}


CConnectionProtocol_HTTP::EState CConnectionProtocol_HTTP::UseDestination(const AddressPtr& destination)
{
    if (!destination)
        return Fail(Persistent() ? EReply::BadGateway : EReply::NotFound, EOutcome::NoDestination,
                    "The name " + m_route.GetHost() + " is unknown.");
    if (m_connection.GetAddressManager().IsProxyItself(*destination))
        return Fail(Persistent() ? EReply::LoopDetected : EReply::NotFound, EOutcome::NotAllowed);
    if (!m_connection.IsDestinationAllowed(*destination))
        return Fail(EReply::Forbidden, EOutcome::Denied);
    switch (m_origin.Open(destination, m_kind != EHTTPRequestKind::Connect && Persistent())) {
    case CHTTPOriginLink::EOpened::Reused:
        return SendRequest();
    case CHTTPOriginLink::EOpened::Connecting:
        return EState::Connect;
    case CHTTPOriginLink::EOpened::Failed:
        break;
    }
    return Fail(Persistent() ? EReply::BadGateway : EReply::NotFound, EOutcome::Unreachable);
}

CConnectionProtocol_HTTP::EState CConnectionProtocol_HTTP::DoConnect(EEvent event)
{
    if (event == EEvent::ConnectFailed) {
        const bool late = m_connection.GetConnectFailure() == ETIMEDOUT;
        return Fail(!Persistent() ? EReply::NotFound : late ? EReply::GatewayTimeout : EReply::BadGateway,
                    EOutcome::Unreachable,
                    late ? "The destination did not answer in time." : "The destination refused the connection.");
    }
    if (event != EEvent::Connected)
        return EState::Connect;
    if (m_kind != EHTTPRequestKind::Connect)
        return SendRequest();
    m_connection.SendToClient(CHTTPReplies::CONNECTION_ESTABLISHED,
                              static_cast<int>(std::strlen(CHTTPReplies::CONNECTION_ESTABLISHED)));
    m_request.Reset(); // a tunnel may live for hours; its head is of no more use
    return EState::Tunnel;
}

CConnectionProtocol_HTTP::EState CConnectionProtocol_HTTP::SendRequest()
{
    std::string host;
    const bool hasHost = m_request->GetHeader("host", host);
    m_request->m_uri = m_route.GetOriginTarget();
    // Routed by an absolute target: the origin learns the same host from its Host field.
    if (m_route.IsAbsolute() || !hasHost)
        m_request->SetHeader("Host", m_route.GetAuthority());
    if (m_kind == EHTTPRequestKind::Upgrade)
        m_request->SetHeader("Connection", "upgrade");
    const std::string head = m_request->GetHead(Persistent() ? VERSION_1_1 : VERSION_1_0);
    m_connection.SendToHost(head.data(), static_cast<int>(head.size()));
    m_answer.Expect();
    return EState::Exchange;
}

CConnectionProtocol_HTTP::EState CConnectionProtocol_HTTP::DoExchange(EEvent event)
{
    if (event == EEvent::MalformedBody)
        return Fail(EReply::BadRequest, EOutcome::BadRequest, "The request's chunked body is malformed.");
    if (m_answer.GetState() == CHTTPAnswer::EState::Faulted)
        return Fail(EReply::BadGateway, EOutcome::Unreachable, m_answer.GetFault());
    if (m_answer.GetState() == CHTTPAnswer::EState::Lost)
        return OriginLost();
    // Held client bytes: the rest of this request's body first, the next requests wait.
    if (!ForwardHeldBody())
        return Fail(EReply::BadRequest, EOutcome::BadRequest, "The request's chunked body is malformed.");
    if (m_answer.GetState() == CHTTPAnswer::EState::Upgraded) {
        // The tunnel passes the client's end on by itself, even when the exchange did: a link
        // that can no longer end one direction alone ends the client.
        if (m_clientEnd == EClientEnd::PassedOn)
            m_clientEnd = EClientEnd::Ended;
        return EState::Tunnel;
    }
    if (!m_requestBody.IsDone() && m_clientEnd != EClientEnd::Sending && m_input.empty())
        return Fail(EReply::BadRequest, EOutcome::BadRequest, "The request ended before its body.");
    PassClientEnd();
    if (m_answer.GetState() == CHTTPAnswer::EState::Done && (m_requestBody.IsDone() || m_answer.EndsClient()))
        return FinishExchange();
    return EState::Exchange;
}

bool CConnectionProtocol_HTTP::ForwardHeldBody()
{
    if (m_input.empty() || m_requestBody.IsDone())
        return true;
    std::string input;
    input.swap(m_input);
    size_t taken = 0;
    if (!ForwardBody(input.data(), input.size(), taken))
        return false;
    m_input = input.substr(taken);
    return true;
}

void CConnectionProtocol_HTTP::PassClientEnd()
{
    if (!m_requestBody.IsDone() || m_clientEnd != EClientEnd::Ended)
        return;
    m_clientEnd = EClientEnd::PassedOn;
    m_answer.LeaveOriginOutOfStep();
    m_connection.EndHostOutput();
}

CConnectionProtocol_HTTP::EState CConnectionProtocol_HTTP::DoTunnel()
{
    if (!m_input.empty()) {
        std::string input;
        input.swap(m_input);
        m_connection.SendToHost(input.data(), static_cast<int>(input.size()));
    }
    if (m_clientEnd != EClientEnd::Ended)
        return EState::Tunnel;
    m_clientEnd = EClientEnd::PassedOn;
    if (!m_connection.EndHostOutput()) {
        m_connection.DisconnectClient();
        return EState::Closing;
    }
    return EState::Tunnel;
}

CConnectionProtocol_HTTP::EState CConnectionProtocol_HTTP::OriginLost()
{
    // A kept connection that its origin closed just as it was used: once more on a new one, for
    // a request that can be sent again as it was (no body went yet, no answer began).
    const bool again = m_origin.GetState() == CHTTPOriginLink::EState::Reused && !m_answer.HasStarted() &&
                       m_requestBody.IsDone() && m_request;
    if (!again)
        return Fail(EReply::BadGateway, EOutcome::Unreachable, "The destination closed the connection.");
    if (!m_origin.Replace())
        return Fail(EReply::BadGateway, EOutcome::Unreachable);
    // The client's end went to the connection that is gone: the new one hears it behind the request.
    if (m_clientEnd == EClientEnd::PassedOn)
        m_clientEnd = EClientEnd::Ended;
    return EState::Connect;
}

CConnectionProtocol_HTTP::EState CConnectionProtocol_HTTP::FinishExchange()
{
    m_connection.FinishRequest(m_method, m_answer.GetStatus());
    const bool reusable = m_answer.KeepsOriginInStep() && m_requestBody.IsDone() && Persistent();
    const bool last = m_answer.EndsClient() || m_clientEnd != EClientEnd::Sending;
    // Recorded: whatever goes wrong before the next request's head is answered on its own.
    m_method.clear();
    m_answer.Forget();
    m_request.Reset();
    // Kept for the client's next request, which most often goes to the same origin; to the pool
    // when it goes elsewhere or the client goes.
    if (reusable && !last)
        m_origin.Park();
    else
        LetGoOfOrigin(reusable);
    if (last) {
        m_connection.DisconnectClient();
        return EState::Closing;
    }
    m_connection.SetHandlerTimer(m_keepAliveMs); // idle until the next request
    return EState::ReadHead;
}

CConnectionProtocol_HTTP::EState CConnectionProtocol_HTTP::Fail(EReply reply, EOutcome outcome, const std::string& why)
{
    m_connection.SetOutcome(outcome);
    m_connection.SetHandlerTimer(-1);
    m_lookup.Cancel();
    m_login.Cancel();
    int status = m_answer.GetStatus();
    if (!m_answer.HasStarted() && m_connection.IsConnectedToClient()) {
        const std::string text = CHTTPReplies::Make(reply, Persistent(), why);
        m_connection.SendToClient(text.data(), static_cast<int>(text.size()));
        status = StatusOf(reply);
    }
    if (!m_method.empty())
        m_connection.FinishRequest(m_method, status);
    LetGoOfOrigin(false);
    m_input.clear();
    m_connection.DisconnectClient();
    return EState::Closing;
}

void CConnectionProtocol_HTTP::LetGoOfOrigin(bool reusable)
{
    // Nothing is kept while a CONNECT request is under way, not even a connection parked before it.
    m_origin.Release(reusable && m_kind != EHTTPRequestKind::Connect);
}

bool CConnectionProtocol_HTTP::ForwardBody(const char* data, size_t length, size_t& taken)
{
    return m_requestBody.Relay(data, length, taken, [this](const char* bytes, size_t count) {
        m_connection.SendToHost(bytes, static_cast<int>(count));
    });
}

} // namespace Proxy
} // namespace ZRT
