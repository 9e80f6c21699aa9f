#include "proxy/httpproxy/CConnectionProtocol_HTTP.h"

#include <strings.h>

#include <cstring>
#include <vector>

#include "proxy/address/CAddressManager.h"
#include "proxy/core/SProxySettings.h"
#include "proxy/http/CBase64.h"

namespace ZRT {
namespace Proxy {

const std::string CConnectionProtocol_HTTP::ms_httpVersion = "HTTP/1.0";

namespace {

const char TUNNEL_METHOD[] = "CONNECT";
const char HOST_HEADER[] = "host";
const char DEFAULT_PORT[] = "80";
const char PORT_SEPARATOR[] = ":";
const char SCHEME_SEPARATOR[] = "://";
const char PORT_OR_BRACKET[] = "]:";
const char SET_COOKIE[] = "set-cookie";
const char PROXY_AUTHORIZATION[] = "proxy-authorization";
const char BASIC_SCHEME[] = "basic";
const char* const HOP_BY_HOP_HEADERS[] = {"proxy-connection", "connection", "keep-alive"};

// Strips scheme and path from a target or Host value and splits off the port. A bracketed IPv6
// literal keeps its brackets and its inner colons.
bool SplitHostAndPort(const std::string& text, std::string& host, std::string& port)
{
    host = text;
    port.clear();
    const std::string::size_type scheme = host.find(SCHEME_SEPARATOR);
    if (scheme != std::string::npos)
        host.erase(0, scheme + std::strlen(SCHEME_SEPARATOR));
    const std::string::size_type path = host.find('/');
    if (path != std::string::npos)
        host.erase(path);
    if (host.empty())
        return false;
    const std::string::size_type last = host.find_last_of(PORT_OR_BRACKET);
    if (last == std::string::npos || host[last] == ']')
        return true;
    port = host.substr(last + 1);
    host.erase(last);
    return !host.empty();
}

bool SameName(const std::string& name, const char* expected)
{
    return strcasecmp(name.c_str(), expected) == 0;
}

std::string ToOriginForm(const std::string& uri)
{
    const std::string::size_type scheme = uri.find(SCHEME_SEPARATOR);
    if (scheme == std::string::npos)
        return uri;
    const std::string::size_type path = uri.find('/', scheme + std::strlen(SCHEME_SEPARATOR));
    if (path == std::string::npos)
        return uri;
    return uri.substr(path);
}

const unsigned char* Bytes(const char* data)
{
    return reinterpret_cast<const unsigned char*>(data);
}

} // namespace

void CConnectionProtocol_HTTP::CProxyHTTPRequest::AddHeader(const std::string& name, const std::string& value)
{
    if (SameName(name, PROXY_AUTHORIZATION)) {
        m_proxyAuthorization = value;
        return;
    }
    for (const char* hopByHop : HOP_BY_HOP_HEADERS) {
        if (SameName(name, hopByHop))
            return;
    }
    CHTTPPacket::AddHeader(name, value);
}

void CConnectionProtocol_HTTP::CProxyHTTPResponse::AddHeader(const std::string& name, const std::string& value)
{
    if (!SameName(name, SET_COOKIE)) {
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

CConnectionProtocol_HTTP::CProxyHTTPRequestParser::~CProxyHTTPRequestParser() = default;

CHTTPPacket* CConnectionProtocol_HTTP::CProxyHTTPRequestParser::CreatePacket() const
{
    return new CProxyHTTPRequest();
}

CConnectionProtocol_HTTP::CProxyHTTPResponseParser::~CProxyHTTPResponseParser() = default;

CHTTPPacket* CConnectionProtocol_HTTP::CProxyHTTPResponseParser::CreatePacket() const
{
    return new CProxyHTTPResponse();
}

CConnectionProtocol_HTTP::CConnectionProtocol_HTTP(IProxyConnection& connection)
    : m_connection(connection), m_lookup([&connection] { connection.WakeHandler(); }), m_login(connection)
{
}

CConnectionProtocol_HTTP::~CConnectionProtocol_HTTP() = default;

void CConnectionProtocol_HTTP::Init() {}

// A lookup under way is all there is to stop.
void CConnectionProtocol_HTTP::Terminate()
{
    m_lookup.Cancel();
    m_login.Cancel();
    m_wait = EWait::None;
    m_held.clear();
}

void CConnectionProtocol_HTTP::HandleRequest(const char* data, int length)
{
    // The connection never hands over an empty chunk; a negative length would wrap in the parser.
    if (!data || length <= 0)
        return;
    if (m_wait != EWait::None) {
        m_held.append(data, static_cast<size_t>(length));
        return;
    }
    if (!m_requestPassThrough) {
        ProcessHTTPRequest(data, length);
        return;
    }
    if (m_connection.IsConnectedToHost())
        m_connection.SendToHost(data, length);
}

void CConnectionProtocol_HTTP::HandleResponse(const char* data, int length)
{
    if (!data || length <= 0)
        return;
    if (!m_responsePassThrough) {
        ProcessHTTPResponse(data, length);
        return;
    }
    if (m_connection.IsConnectedToClient())
        m_connection.SendToClient(data, length);
}

void CConnectionProtocol_HTTP::ProcessHTTPRequest(const char* data, int length)
{
    if (m_connection.IsConnectedToHost() || m_requestParser.m_state == CHTTPParser::PARSE_STATE_COMPLETE)
        return;
    const CHTTPParser::EParseResult result = m_requestParser.Parse(Bytes(data), static_cast<unsigned int>(length));
    if (result == CHTTPParser::PARSE_ERROR) {
        m_connection.SetOutcome(EOutcome::BadRequest);
        SendErrorToClient(REPLY_BAD_REQUEST);
        m_requestParser.Reset();
        return;
    }
    if (result != CHTTPParser::PARSE_COMPLETE)
        return;

    m_connection.MarkRequestComplete();
    m_request = QOX::StaticCast<CHTTPRequest>(m_requestParser.m_packet);
    if (StartLogin(*m_request))
        Route();
}

void CConnectionProtocol_HTTP::Route()
{
    if (!GetDestination(m_request))
        Refuse(EOutcome::NoDestination);
}

bool CConnectionProtocol_HTTP::StartLogin(const CHTTPRequest& request)
{
    if (m_connection.GetSettings().users.empty())
        return true;
    // "Basic" (any case), spaces, then base64 of user:password.
    const std::string& field = static_cast<const CProxyHTTPRequest&>(request).GetProxyAuthorization();
    const size_t schemeEnd = field.find(' ');
    std::string credentials;
    size_t colon = std::string::npos;
    if (schemeEnd != std::string::npos && SameName(field.substr(0, schemeEnd), BASIC_SCHEME)) {
        const size_t start = field.find_first_not_of(' ', schemeEnd);
        if (CBase64::Decode(start == std::string::npos ? std::string() : field.substr(start), credentials))
            colon = credentials.find(':');
    }
    if (colon == std::string::npos)
        return FinishLogin(false);
    const std::string user = credentials.substr(0, colon);
    m_connection.SetUser(user);
    if (m_login.Start(user, credentials.substr(colon + 1)))
        return TakeLogin();
    // A slowed address or a password hash: the request waits for the answer.
    m_wait = EWait::Login;
    return false;
}

bool CConnectionProtocol_HTTP::TakeLogin()
{
    bool valid = false;
    if (!m_login.TakeResult(valid))
        return false;
    m_wait = EWait::None;
    return FinishLogin(valid);
}

bool CConnectionProtocol_HTTP::FinishLogin(bool valid)
{
    if (valid)
        return true;
    m_connection.DescribeExchange(strcasecmp(m_request->m_method.c_str(), TUNNEL_METHOD) == 0 ? "connect" : "http", "");
    m_connection.SetOutcome(EOutcome::AuthFailed);
    m_request.Reset();
    m_requestParser.Reset();
    m_held.clear();
    SendErrorToClient(REPLY_AUTHENTICATION_REQUIRED);
    return false;
}

void CConnectionProtocol_HTTP::Refuse(EOutcome outcome)
{
    m_connection.SetOutcome(outcome);
    m_wait = EWait::None;
    m_held.clear();
    m_request.Reset();
    SendErrorToClient(REPLY_NOT_FOUND);
    m_requestParser.Reset();
}

void CConnectionProtocol_HTTP::Resume()
{
    if (m_wait == EWait::Login) {
        if (TakeLogin())
            Route();
        return;
    }
    QOX::CRefCountPtr<IZRTConnectionAddress> destination;
    if (m_wait != EWait::Lookup || !m_lookup.TakeAnswer(destination))
        return;
    m_connection.SetHandlerTimer(-1);
    UseDestination(destination);
}

void CConnectionProtocol_HTTP::OnTimer()
{
    if (m_wait == EWait::Login) {
        if (m_login.OnTimer() && TakeLogin())
            Route();
        return;
    }
    if (m_wait != EWait::Lookup)
        return;
    // A name that is not answered in time does not resolve.
    m_lookup.Cancel();
    Refuse(EOutcome::NoDestination);
}

void CConnectionProtocol_HTTP::UseDestination(const QOX::CRefCountPtr<IZRTConnectionAddress>& destination)
{
    // A destination that is the proxy itself, in whatever form it was named, would loop back in.
    if (!destination) {
        Refuse(EOutcome::NoDestination);
        return;
    }
    if (m_connection.GetAddressManager().IsProxyItself(*destination)) {
        Refuse(EOutcome::NotAllowed);
        return;
    }
    if (!m_connection.IsDestinationAllowed(*destination)) {
        m_connection.SetOutcome(EOutcome::Denied);
        m_wait = EWait::None;
        m_held.clear();
        m_request.Reset();
        SendErrorToClient(REPLY_FORBIDDEN);
        m_requestParser.Reset();
        return;
    }
    if (!m_connection.BeginConnectToHost(destination)) {
        Refuse(EOutcome::Unreachable);
        return;
    }
    m_wait = EWait::Connect;
}

void CConnectionProtocol_HTTP::OnHostConnected(bool connected)
{
    if (m_wait != EWait::Connect || !m_request)
        return;
    if (!connected) {
        Refuse(EOutcome::Unreachable);
        return;
    }
    m_wait = EWait::None;
    const QOX::CRefCountPtr<CHTTPRequest> request = std::move(m_request);
    m_request.Reset();
    if (strcasecmp(request->m_method.c_str(), TUNNEL_METHOD) == 0) {
        // The parser keeps whatever came behind the CONNECT header block; it is never relayed.
        m_connection.SendToClient(REPLY_CONNECTION_ESTABLISHED, REPLY_CONNECTION_ESTABLISHED_LENGTH);
        m_requestPassThrough = true;
        m_responsePassThrough = true;
    } else {
        ForwardRequest(*request);
        m_requestPassThrough = true;
        m_requestParser.Reset();
    }
    // What the client sent while we waited follows, as if it had come now, and then its end.
    std::string held;
    held.swap(m_held);
    if (!held.empty())
        HandleRequest(held.data(), static_cast<int>(held.size()));
    if (m_clientEnded && !m_connection.EndHostOutput())
        m_connection.DisconnectClient();
}

bool CConnectionProtocol_HTTP::HandleClientEnd()
{
    // Once the request is complete, the client's end is passed on: a client that half-closes
    // after its request still gets the whole answer.
    if (m_wait != EWait::None) {
        m_clientEnded = true;
        return true;
    }
    return m_requestPassThrough && m_connection.EndHostOutput();
}

bool CConnectionProtocol_HTTP::HandleHostEnd()
{
    // A response whose header block never ended is not passed on as if it were complete.
    return m_responsePassThrough;
}

// Sends the rewritten header block and the body bytes that arrived with it in one piece.
void CConnectionProtocol_HTTP::ForwardRequest(CHTTPRequest& request)
{
    std::string host;
    if (request.GetHeader(HOST_HEADER, host) && !host.empty())
        request.m_uri = ToOriginForm(request.m_uri);
    request.m_version = ms_httpVersion;

    const unsigned int headerSize = request.CalcSendBufferSize();
    const unsigned int bodySize = m_requestParser.m_pendingData.GetSize();
    std::vector<unsigned char> buffer(static_cast<size_t>(headerSize) + bodySize);
    request.FillSendBuffer(buffer.data(), headerSize);
    if (bodySize > 0)
        m_requestParser.m_pendingData.PeekBytes(0, buffer.data() + headerSize, bodySize);
    m_connection.SendToHost(reinterpret_cast<const char*>(buffer.data()), static_cast<int>(buffer.size()));
}

void CConnectionProtocol_HTTP::ProcessHTTPResponse(const char* data, int length)
{
    if (!m_connection.IsConnectedToClient() || m_responseParser.m_state == CHTTPParser::PARSE_STATE_COMPLETE)
        return;
    const CHTTPParser::EParseResult result = m_responseParser.Parse(Bytes(data), static_cast<unsigned int>(length));
    if (result == CHTTPParser::PARSE_ERROR) {
        m_connection.SetOutcome(EOutcome::BadRequest);
        SendErrorToClient(REPLY_BAD_REQUEST);
        m_responseParser.Reset();
        return;
    }
    if (result != CHTTPParser::PARSE_COMPLETE)
        return;

    QOX::CRefCountPtr<CHTTPResponse> response = QOX::StaticCast<CHTTPResponse>(m_responseParser.m_packet);
    if (response) {
        response->m_version = ms_httpVersion;
        const unsigned int headerSize = response->CalcSendBufferSize();
        const unsigned int bodySize = m_responseParser.m_pendingData.GetSize();
        std::vector<unsigned char> buffer(static_cast<size_t>(headerSize) + bodySize);
        unsigned int written = response->FillSendBuffer(buffer.data(), headerSize);
        if (bodySize > 0) {
            m_responseParser.m_pendingData.PeekBytes(0, buffer.data() + written, bodySize);
            written += bodySize;
        }
        m_connection.SendToClient(reinterpret_cast<const char*>(buffer.data()), static_cast<int>(written));
    }
    m_responsePassThrough = true;
    m_responseParser.Reset();
}

void CConnectionProtocol_HTTP::SendErrorToClient(const char* reply)
{
    if (!reply)
        reply = REPLY_BAD_REQUEST;
    if (!m_connection.IsConnectedToClient())
        return;
    m_connection.SendToClient(reply, static_cast<int>(std::strlen(reply)));
    m_connection.DisconnectClient();
}

bool CConnectionProtocol_HTTP::GetDestination(const QOX::CRefCountPtr<CHTTPRequest>& request)
{
    std::string address;
    if (!ExtractAddress(request, address))
        return false;
    if (!CAddressManager::IsPlausibleHostName(address.substr(0, address.rfind(':')))) {
        m_connection.SetOutcome(EOutcome::BadRequest);
        SendErrorToClient(REPLY_BAD_REQUEST);
        return true; // answered
    }
    m_connection.DescribeExchange(strcasecmp(request->m_method.c_str(), TUNNEL_METHOD) == 0 ? "connect" : "http",
                                  address);
    CAddressManager& addresses = m_connection.GetAddressManager();
    if (addresses.IsLocalAddress(address))
        return false;
    if (m_lookup.Start(addresses, address)) {
        QOX::CRefCountPtr<IZRTConnectionAddress> destination;
        m_lookup.TakeAnswer(destination);
        UseDestination(destination);
        return true;
    }
    m_wait = EWait::Lookup;
    m_connection.SetHandlerTimer(m_connection.GetSettings().lookupLimitMs);
    return true;
}

bool CConnectionProtocol_HTTP::ExtractAddress(const QOX::CRefCountPtr<CHTTPRequest>& request, std::string& address)
{
    address.clear();
    if (!request)
        return false;
    std::string uriHost;
    std::string uriPort;
    SplitHostAndPort(request->m_uri, uriHost, uriPort);

    std::string host;
    std::string port;
    std::string hostHeader;
    if (request->GetHeader(HOST_HEADER, hostHeader) && !hostHeader.empty()) {
        SplitHostAndPort(hostHeader, host, port);
        if (port.empty())
            port = uriPort;
    } else {
        host = uriHost;
        port = uriPort;
    }
    if (host.empty())
        return false;
    if (port.empty())
        port = DEFAULT_PORT;
    address = host + PORT_SEPARATOR + port;
    return true;
}

} // namespace Proxy
} // namespace ZRT
