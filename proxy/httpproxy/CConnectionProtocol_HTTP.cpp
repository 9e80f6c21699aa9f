#include "proxy/httpproxy/CConnectionProtocol_HTTP.h"

#include <errno.h>
#include <strings.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "proxy/address/CAddressManager.h"
#include "proxy/core/CProxyStats.h"
#include "proxy/core/SProxySettings.h"
#include "proxy/http/CBase64.h"
#include "proxy/http/CHTTPFraming.h"
#include "proxy/http/CHTTPHopByHop.h"
#include "proxy/httpproxy/COriginPool.h"
#include "transport/CSocketUtils.h"

namespace ZRT {
namespace Proxy {

namespace {
using EReply = CHTTPReplies::EReply;

const char TUNNEL_METHOD[] = "CONNECT";
const char VERSION_1_0[] = "HTTP/1.0";
const char VERSION_1_1[] = "HTTP/1.1";
const char SET_COOKIE[] = "set-cookie";
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

// ---- Set-Cookie ----

void CConnectionProtocol_HTTP::CProxyHTTPResponse::AddHeader(const std::string& name, const std::string& value)
{
    if (strcasecmp(name.c_str(), SET_COOKIE) != 0) {
        CHTTPPacket::AddHeader(name, value);
        return;
    }
    const auto addPiece = [&](const std::string& piece) {
        if (!piece.empty())
            CHTTPPacket::AddHeader(name, piece);
    };
    const std::string::size_type length = value.size();
    std::string::size_type start = 0;
    std::string::size_type pos = 0;
    for (;;) {
        const std::string::size_type comma = value.find(',', pos);
        if (comma == std::string::npos || comma == length - 1) {
            addPiece(value.substr(start));
            return;
        }
        pos = comma + 1;
        if (value[pos] == ' ')
            continue;
        addPiece(value.substr(start, comma - start));
        start = pos;
    }
}

CConnectionProtocol_HTTP::CProxyHTTPResponseParser::~CProxyHTTPResponseParser() = default;

CHTTPPacket* CConnectionProtocol_HTTP::CProxyHTTPResponseParser::CreatePacket() const
{
    return new CProxyHTTPResponse();
}

// ---- life cycle ----

CConnectionProtocol_HTTP::CConnectionProtocol_HTTP(IProxyConnection& connection)
    : m_connection(connection), m_keepAliveMs(connection.GetSettings().httpKeepAliveMs),
      m_lookup([&connection] { connection.WakeHandler(); }, connection.GetSettings().lookupLimitMs),
      m_login(connection)
{
}

CConnectionProtocol_HTTP::~CConnectionProtocol_HTTP()
{
    CConnectionProtocol_HTTP::Terminate(); // no dynamic dispatch from a destructor
}

void CConnectionProtocol_HTTP::Init() {}

void CConnectionProtocol_HTTP::Terminate()
{
    // A kept origin connection outlives its client: another client may use it.
    if (m_parked && !m_terminated)
        LetGoOfOrigin(true);
    m_parked = false;
    m_terminated = true;
    m_state = EState::Closed;
    m_lookup.Cancel();
    m_login.Cancel();
    m_input.clear();
}

// ---- events, all on the connection's thread ----

void CConnectionProtocol_HTTP::HandleRequest(const char* data, int length)
{
    if (m_terminated || !data || length <= 0 || m_state == EState::Closing)
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
            m_state = Fail(EReply::BadRequest, EOutcome::BadRequest, "The request's chunked body is malformed.");
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
    if (m_terminated || !data || length <= 0)
        return;
    if (m_state == EState::Tunnel) {
        m_connection.SendToClient(data, length);
        return;
    }
    if (m_state != EState::Exchange) {
        // An origin that speaks unasked is out of step: its connection serves nobody more.
        m_originReusable = false;
        if (m_parked) {
            m_parked = false;
            LetGoOfOrigin(false);
        }
        return;
    }
    ReadResponse(data, static_cast<size_t>(length));
    DoLoop();
}

void CConnectionProtocol_HTTP::OnHostConnected(bool connected)
{
    if (m_terminated || m_state != EState::Connect)
        return;
    m_connected = connected;
    DoLoop();
}

void CConnectionProtocol_HTTP::Resume()
{
    DoLoop();
}

void CConnectionProtocol_HTTP::OnTimer()
{
    if (m_terminated)
        return;
    switch (m_state) {
    case EState::Login:
        if (m_login.OnTimer())
            DoLoop();
        return;
    case EState::Resolve:
        DoLoop(); // the lookup knows whether its time is up
        return;
    case EState::ReadHead:
        // Idle between requests for as long as a persistent connection may be.
        m_state = EState::Closing;
        m_connection.DisconnectClient();
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
        m_clientEnded = true;
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
    if (m_parked) {
        // The kept origin connection closed between requests: the client stays.
        m_parked = false;
        LetGoOfOrigin(false);
        return true;
    }
    if (m_state != EState::Exchange)
        return false;
    if (m_response == EResponse::Body && m_responseBody.RunsUntilClose()) {
        // The origin's close is the end of its answer.
        m_response = EResponse::Done;
        m_originReusable = false;
        m_closeAfter = true;
    } else if (m_response != EResponse::Done) {
        m_originLost = true;
    }
    DoLoop();
    return m_state == EState::Connect;
}

unsigned long long CConnectionProtocol_HTTP::GetResponseRelayAllowance() const
{
    if (m_state == EState::Tunnel)
        return RELAY_ALL;
    if (m_state != EState::Exchange || m_response != EResponse::Body)
        return 0;
    return m_responseBody.GetRelayAllowance();
}

void CConnectionProtocol_HTTP::OnResponseRelayed(unsigned long long count)
{
    if (m_state != EState::Exchange || m_response != EResponse::Body)
        return;
    m_responseBody.Relayed(count);
    if (m_responseBody.IsDone()) {
        m_response = EResponse::Done;
        DoLoop();
    }
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

void CConnectionProtocol_HTTP::DoLoop()
{
    while (!m_terminated) {
        const EState state = m_state;
        EState next = state;
        switch (state) {
        case EState::ReadHead:
            next = DoReadHead();
            break;
        case EState::Login:
            next = DoLogin();
            break;
        case EState::Resolve:
            next = DoResolve();
            break;
        case EState::Connect:
            next = DoConnect();
            break;
        case EState::Exchange:
            next = DoExchange();
            break;
        case EState::Tunnel:
            next = DoTunnel();
            break;
        case EState::Closing:
        case EState::Closed:
            break; // nothing more to do
        }
        if (m_terminated)
            return;
        m_state = next;
        // A step that stays in its state waits for an event.
        if (next == state)
            return;
    }
}

CConnectionProtocol_HTTP::EState CConnectionProtocol_HTTP::DoReadHead()
{
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
    // Nothing of the previous request's answer carries over.
    m_response = EResponse::Head;
    m_status = 0;
    m_responseStarted = false;
    m_upgraded = false;
    m_originLost = false;
    m_endPassedOn = false;
    m_responseFault.clear();
    m_connected.reset();
    m_connection.MarkRequestComplete();
    m_method = m_request->m_method;
    m_tunnel = strcasecmp(m_method.c_str(), TUNNEL_METHOD) == 0;
    m_connection.DescribeExchange(m_tunnel ? "connect" : "http", "");
    const CHTTPFraming framing = CHTTPFraming::OfRequest(*m_request);
    if (framing.GetFault() != CHTTPFraming::EFault::None)
        return Fail(EReply::BadRequest, EOutcome::BadRequest, "The request's length or fields contradict each other.");
    m_clientHttp10 = m_request->m_version == VERSION_1_0;
    m_clientPersistent = Persistent() && framing.IsPersistent() && !m_tunnel;
    m_upgrade = Persistent() && framing.AsksUpgrade();
    const CHTTPHopByHop::SRemoved removed = CHTTPHopByHop::Remove(*m_request, m_upgrade);
    m_requestBody.Begin(m_tunnel ? CHTTPFraming::EBody::None : framing.GetBody(), framing.GetLength());
    if (!m_route.Find(*m_request))
        return Fail(Persistent() ? EReply::BadRequest : EReply::NotFound, EOutcome::NoDestination,
                    "The request names no destination.");
    m_connection.DescribeExchange(m_tunnel ? "connect" : "http", m_route.GetDestination());
    if (!CAddressManager::IsPlausibleHostName(CSocketUtils::StripBrackets(m_route.GetHost())))
        return Fail(EReply::BadRequest, EOutcome::BadRequest, "The request's destination is not a host name.");
    return StartLogin(removed.proxyAuthorization.empty() ? std::string() : removed.proxyAuthorization.front());
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
    const std::string key = destination->ToString();
    m_reusedOrigin = false;
    m_retried = false;
    if (m_parked) {
        // The origin connection kept from the previous request, when it goes to the same place.
        m_parked = false;
        if (!m_tunnel && key == m_originKey) {
            m_destination = destination;
            m_reusedOrigin = true;
            m_connection.GetStats().Add(CProxyStats::HTTP_ORIGINS_REUSED);
            return SendRequest();
        }
        LetGoOfOrigin(true);
    }
    m_destination = destination;
    m_originKey = key;
    if (!m_tunnel && Persistent()) {
        const QOX::CRefCountPtr<IZRTDataLayer> idle = m_connection.GetOriginPool().Take(m_originKey);
        if (idle && m_connection.AdoptHostLink(idle)) {
            m_reusedOrigin = true;
            m_connection.GetStats().Add(CProxyStats::HTTP_ORIGINS_REUSED);
            return SendRequest();
        }
        if (idle)
            idle->Disconnect();
    }
    if (!m_connection.BeginConnectToHost(destination))
        return Fail(Persistent() ? EReply::BadGateway : EReply::NotFound, EOutcome::Unreachable);
    return EState::Connect;
}

CConnectionProtocol_HTTP::EState CConnectionProtocol_HTTP::DoConnect()
{
    if (!m_connected)
        return EState::Connect;
    const bool connected = *m_connected;
    m_connected.reset();
    if (!connected) {
        const bool late = m_connection.GetConnectFailure() == ETIMEDOUT;
        return Fail(!Persistent() ? EReply::NotFound : late ? EReply::GatewayTimeout : EReply::BadGateway,
                    EOutcome::Unreachable,
                    late ? "The destination did not answer in time." : "The destination refused the connection.");
    }
    if (!m_tunnel)
        return SendRequest();
    m_connection.SendToClient(CHTTPReplies::CONNECTION_ESTABLISHED,
                              static_cast<int>(std::strlen(CHTTPReplies::CONNECTION_ESTABLISHED)));
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
    if (m_upgrade)
        m_request->SetHeader("Connection", "upgrade");
    const std::string head = m_request->GetHead(Persistent() ? VERSION_1_1 : VERSION_1_0);
    m_connection.SendToHost(head.data(), static_cast<int>(head.size()));
    m_responseParser.Reset();
    m_originReusable = Persistent();
    m_closeAfter = !m_clientPersistent;
    return EState::Exchange;
}

CConnectionProtocol_HTTP::EState CConnectionProtocol_HTTP::DoExchange()
{
    if (!m_responseFault.empty())
        return Fail(EReply::BadGateway, EOutcome::Unreachable, m_responseFault);
    if (m_originLost)
        return OriginLost();
    // Held client bytes: the rest of this request's body first, the next requests wait.
    if (!m_input.empty() && !m_requestBody.IsDone()) {
        std::string input;
        input.swap(m_input);
        size_t taken = 0;
        if (!ForwardBody(input.data(), input.size(), taken))
            return Fail(EReply::BadRequest, EOutcome::BadRequest, "The request's chunked body is malformed.");
        m_input = input.substr(taken);
    }
    if (m_upgraded)
        return EState::Tunnel;
    if (!m_requestBody.IsDone() && m_clientEnded && m_input.empty())
        return Fail(EReply::BadRequest, EOutcome::BadRequest, "The request ended before its body.");
    // A client that finished with its request: the origin hears the end too (some answer only
    // then), and its connection serves nobody else afterwards.
    if (m_requestBody.IsDone() && m_clientEnded && !m_endPassedOn) {
        m_endPassedOn = true;
        m_originReusable = false;
        m_closeAfter = true;
        m_connection.EndHostOutput();
    }
    if (m_response == EResponse::Done && (m_requestBody.IsDone() || m_closeAfter))
        return FinishExchange();
    return EState::Exchange;
}

CConnectionProtocol_HTTP::EState CConnectionProtocol_HTTP::DoTunnel()
{
    if (!m_input.empty()) {
        std::string input;
        input.swap(m_input);
        m_connection.SendToHost(input.data(), static_cast<int>(input.size()));
    }
    if (m_clientEnded && !m_connection.EndHostOutput()) {
        m_connection.DisconnectClient();
        return EState::Closing;
    }
    m_clientEnded = false; // passed on
    return EState::Tunnel;
}

CConnectionProtocol_HTTP::EState CConnectionProtocol_HTTP::OriginLost()
{
    m_originLost = false;
    // A kept connection that its origin closed just as it was used: once more on a new one, for
    // a request that can be sent again as it was (no body went yet).
    const bool again = m_reusedOrigin && !m_retried && !m_responseStarted && m_requestBody.IsDone() &&
                       m_request && m_response == EResponse::Head;
    if (!again)
        return Fail(EReply::BadGateway, EOutcome::Unreachable, "The destination closed the connection.");
    LetGoOfOrigin(false);
    m_retried = true;
    m_reusedOrigin = false;
    if (!m_connection.BeginConnectToHost(m_destination))
        return Fail(EReply::BadGateway, EOutcome::Unreachable);
    return EState::Connect;
}

CConnectionProtocol_HTTP::EState CConnectionProtocol_HTTP::FinishExchange()
{
    m_connection.FinishRequest(m_method, m_status);
    const bool reusable = m_originReusable && m_requestBody.IsDone() && Persistent();
    m_request.Reset();
    m_destination.Reset();
    // Kept for the client's next request, which most often goes to the same origin; to the pool
    // when it goes elsewhere or the client goes.
    m_parked = reusable && !m_closeAfter && !m_clientEnded;
    if (!m_parked)
        LetGoOfOrigin(reusable);
    if (m_closeAfter || m_clientEnded) {
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
    if (!m_responseStarted && m_connection.IsConnectedToClient()) {
        const std::string text = CHTTPReplies::Make(reply, Persistent(), why);
        m_connection.SendToClient(text.data(), static_cast<int>(text.size()));
        m_status = StatusOf(reply);
    }
    if (!m_method.empty())
        m_connection.FinishRequest(m_method, m_status);
    LetGoOfOrigin(false);
    m_input.clear();
    m_connection.DisconnectClient();
    return EState::Closing;
}

void CConnectionProtocol_HTTP::LetGoOfOrigin(bool reusable)
{
    const QOX::CRefCountPtr<IZRTDataLayer> link = m_connection.ReleaseHostLink();
    if (!link)
        return;
    if (reusable && Persistent() && !m_tunnel &&
        m_connection.GetOriginPool().Give(m_originKey, link, std::chrono::milliseconds(m_keepAliveMs)))
        return;
    link->Disconnect();
}

// ---- bodies and answers ----

bool CConnectionProtocol_HTTP::ForwardBody(const char* data, size_t length, size_t& taken)
{
    return m_requestBody.Relay(data, length, taken, [this](const char* bytes, size_t count) {
        m_connection.SendToHost(bytes, static_cast<int>(count));
    });
}

void CConnectionProtocol_HTTP::ReadResponse(const char* data, size_t length)
{
    std::string carried; // bytes behind a head, read anew
    while (length > 0 && m_responseFault.empty() && !m_upgraded) {
        if (m_response == EResponse::Done) {
            m_originReusable = false; // more than its answer: out of step
            return;
        }
        if (m_response == EResponse::Body) {
            size_t taken = 0;
            const bool framed = m_responseBody.Relay(data, length, taken, [this](const char* bytes, size_t count) {
                m_connection.SendToClient(bytes, static_cast<int>(count));
            });
            if (!framed) {
                FaultResponse("The destination's chunked answer is malformed.");
                return;
            }
            data += taken;
            length -= taken;
            if (m_responseBody.IsDone())
                m_response = EResponse::Done;
            continue;
        }
        const CHTTPParser::EParseResult result = m_responseParser.Parse(Bytes(data), static_cast<unsigned int>(length));
        if (result == CHTTPParser::PARSE_ERROR) {
            FaultResponse("The destination's answer is malformed.");
            return;
        }
        if (result != CHTTPParser::PARSE_COMPLETE)
            return;
        std::string rest = Pending(m_responseParser);
        carried.swap(rest);
        data = carried.data();
        length = carried.size();
        StartResponse();
    }
    if (m_upgraded && length > 0)
        m_connection.SendToClient(data, static_cast<int>(length));
}

void CConnectionProtocol_HTTP::StartResponse()
{
    const QOX::CRefCountPtr<CHTTPResponse> response = QOX::StaticCast<CHTTPResponse>(m_responseParser.m_packet);
    m_responseParser.Reset();
    if (!response) {
        FaultResponse("The destination's answer is malformed.");
        return;
    }
    const int status = static_cast<int>(response->GetStatusCode());
    const char* version = Persistent() ? VERSION_1_1 : VERSION_1_0;
    if (status == 101) {
        if (!m_upgrade) {
            FaultResponse("The destination switched protocols unasked.");
            return;
        }
        CHTTPHopByHop::Remove(*response, true);
        response->SetHeader("Connection", "upgrade");
        const std::string head = response->GetHead(VERSION_1_1);
        m_connection.SendToClient(head.data(), static_cast<int>(head.size()));
        m_responseStarted = true;
        m_status = status;
        m_upgraded = true;
        return;
    }
    if (status < 200) {
        // Interim answers pass on (an HTTP/1.0 client knows none); the final one follows.
        CHTTPHopByHop::Remove(*response, false);
        if (!m_clientHttp10) {
            const std::string head = response->GetHead(version);
            m_connection.SendToClient(head.data(), static_cast<int>(head.size()));
        }
        return;
    }
    // An origin must not collect the proxy's credentials from its users.
    if (status == 407) {
        FaultResponse("The destination asked for proxy credentials.");
        return;
    }
    const CHTTPFraming framing = CHTTPFraming::OfResponse(*response, m_method);
    if (framing.GetFault() != CHTTPFraming::EFault::None) {
        FaultResponse("The destination's answer has no certain length.");
        return;
    }
    CHTTPHopByHop::Remove(*response, false);
    const bool chunked = framing.GetBody() == CHTTPFraming::EBody::Chunked;
    // An HTTP/1.0 client knows no chunks: it gets the data, ended by the close.
    const bool dechunk = chunked && m_clientHttp10;
    if (dechunk) {
        CHTTPPacket::HeaderList fields;
        for (const auto& field : response->GetHeaders()) {
            if (strcasecmp(field.first.c_str(), "transfer-encoding") != 0)
                fields.push_back(field);
        }
        response->SetHeaders(fields);
    }
    m_originReusable = m_originReusable && framing.IsPersistent();
    m_closeAfter = m_closeAfter || !m_requestBody.IsDone() || dechunk || m_clientEnded ||
                   framing.GetBody() == CHTTPFraming::EBody::UntilClose;
    if (m_closeAfter)
        response->SetHeader("Connection", "close");
    else if (m_clientHttp10)
        response->SetHeader("Connection", "keep-alive");
    const std::string head = response->GetHead(version);
    m_connection.SendToClient(head.data(), static_cast<int>(head.size()));
    m_responseStarted = true;
    m_status = status;
    m_responseBody.Begin(framing.GetBody(), framing.GetLength(), dechunk);
    m_response = m_responseBody.IsDone() ? EResponse::Done : EResponse::Body;
}

void CConnectionProtocol_HTTP::FaultResponse(const std::string& why)
{
    m_originReusable = false;
    m_responseFault = why;
}

} // namespace Proxy
} // namespace ZRT
