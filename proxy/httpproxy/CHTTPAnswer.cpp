#include "proxy/httpproxy/CHTTPAnswer.h"

#include <strings.h>

#include "proxy/http/CHTTPFraming.h"
#include "proxy/http/CHTTPHopByHop.h"
#include "runtime/CRefCountPtr.h"

namespace ZRT {
namespace Proxy {

namespace {
const char VERSION_1_0[] = "HTTP/1.0";
const char VERSION_1_1[] = "HTTP/1.1";

std::string Pending(const CHTTPParser& parser)
{
    std::string bytes(parser.m_pendingData.GetSize(), '\0');
    if (!bytes.empty())
        parser.m_pendingData.PeekBytes(0, reinterpret_cast<unsigned char*>(&bytes[0]), static_cast<unsigned int>(bytes.size()));
    return bytes;
}

void DropTransferEncoding(CHTTPResponse& response)
{
    CHTTPPacket::HeaderList fields;
    for (const auto& field : response.GetHeaders()) {
        if (strcasecmp(field.first.c_str(), "transfer-encoding") != 0)
            fields.push_back(field);
    }
    response.SetHeaders(fields);
}
} // namespace

CHTTPAnswer::CHTTPAnswer(IProxyConnection& connection, bool persistent)
    : m_connection(connection), m_version(persistent ? VERSION_1_1 : VERSION_1_0)
{
}

void CHTTPAnswer::Begin(const std::string& method, EHTTPRequestKind kind, bool clientHttp10, bool clientPersistent)
{
    m_state = EState::Head;
    m_method = method;
    m_kind = kind;
    m_clientHttp10 = clientHttp10;
    m_endsClient = !clientPersistent;
    m_status = 0;
    m_fault.clear();
}

void CHTTPAnswer::Expect()
{
    m_state = EState::Head;
    m_parser.Reset();
    m_originInStep = true;
}

void CHTTPAnswer::Read(const char* data, size_t length, bool requestOpen)
{
    std::string carried; // bytes behind a head, read anew
    while (length > 0) {
        switch (m_state) {
        case EState::Head:
            if (!ReadHead(data, length, carried, requestOpen))
                return;
            break;
        case EState::Body:
            if (!ReadBody(data, length))
                return;
            break;
        case EState::Done:
            m_originInStep = false; // more than its answer: out of step
            return;
        case EState::Upgraded:
            m_connection.SendToClient(data, static_cast<int>(length));
            return;
        case EState::Lost:
        case EState::Faulted:
            return;
        }
    }
}

bool CHTTPAnswer::ReadHead(const char*& data, size_t& length, std::string& carried, bool requestOpen)
{
    const CHTTPParser::EParseResult result =
        m_parser.Parse(reinterpret_cast<const unsigned char*>(data), static_cast<unsigned int>(length));
    if (result == CHTTPParser::PARSE_ERROR) {
        Fault("The destination's answer is malformed.");
        return false;
    }
    if (result != CHTTPParser::PARSE_COMPLETE)
        return false;
    std::string rest = Pending(m_parser);
    carried.swap(rest);
    data = carried.data();
    length = carried.size();
    StartResponse(requestOpen);
    return true;
}

bool CHTTPAnswer::ReadBody(const char*& data, size_t& length)
{
    size_t taken = 0;
    const bool framed = m_body.Relay(data, length, taken, [this](const char* bytes, size_t count) {
        m_connection.SendToClient(bytes, static_cast<int>(count));
    });
    if (!framed) {
        Fault("The destination's chunked answer is malformed.");
        return false;
    }
    data += taken;
    length -= taken;
    if (m_body.IsDone())
        m_state = EState::Done;
    return true;
}

void CHTTPAnswer::StartResponse(bool requestOpen)
{
    const QOX::CRefCountPtr<CHTTPResponse> response = QOX::StaticCast<CHTTPResponse>(m_parser.m_packet);
    m_parser.Reset();
    if (!response) {
        Fault("The destination's answer is malformed.");
        return;
    }
    const int status = static_cast<int>(response->GetStatusCode());
    if (status == 101) {
        SwitchProtocols(*response, status);
        return;
    }
    if (status < 200) {
        PassInterim(*response);
        return;
    }
    // An origin must not collect the proxy's credentials from its users.
    if (status == 407) {
        Fault("The destination asked for proxy credentials.");
        return;
    }
    StartFinal(*response, status, requestOpen);
}

void CHTTPAnswer::SwitchProtocols(CHTTPResponse& response, int status)
{
    if (m_kind != EHTTPRequestKind::Upgrade) {
        Fault("The destination switched protocols unasked.");
        return;
    }
    CHTTPHopByHop::Remove(response, true);
    response.SetHeader("Connection", "upgrade");
    SendHead(response, VERSION_1_1, status);
    m_state = EState::Upgraded;
}

void CHTTPAnswer::PassInterim(CHTTPResponse& response)
{
    // An HTTP/1.0 client knows no interim answers; the final one follows.
    CHTTPHopByHop::Remove(response, false);
    if (m_clientHttp10)
        return;
    const std::string head = response.GetHead(m_version);
    m_connection.SendToClient(head.data(), static_cast<int>(head.size()));
}

void CHTTPAnswer::StartFinal(CHTTPResponse& response, int status, bool requestOpen)
{
    const CHTTPFraming framing = CHTTPFraming::OfResponse(response, m_method);
    if (framing.GetFault() != CHTTPFraming::EFault::None) {
        Fault("The destination's answer has no certain length.");
        return;
    }
    CHTTPHopByHop::Remove(response, false);
    // An HTTP/1.0 client knows no chunks: it gets the data, ended by the close.
    const bool dechunk = framing.GetBody() == CHTTPFraming::EBody::Chunked && m_clientHttp10;
    if (dechunk)
        DropTransferEncoding(response);
    m_originInStep = m_originInStep && framing.IsPersistent();
    m_endsClient = m_endsClient || requestOpen || dechunk || framing.GetBody() == CHTTPFraming::EBody::UntilClose;
    if (m_endsClient)
        response.SetHeader("Connection", "close");
    else if (m_clientHttp10)
        response.SetHeader("Connection", "keep-alive");
    SendHead(response, m_version, status);
    m_body.Begin(framing.GetBody(), framing.GetLength(), dechunk);
    m_state = m_body.IsDone() ? EState::Done : EState::Body;
}

void CHTTPAnswer::SendHead(const CHTTPResponse& response, const char* version, int status)
{
    const std::string head = response.GetHead(version);
    m_connection.SendToClient(head.data(), static_cast<int>(head.size()));
    m_status = status;
}

void CHTTPAnswer::OnOriginEnd()
{
    if (m_state == EState::Body && m_body.RunsUntilClose()) {
        // The origin's close is the end of its answer.
        m_state = EState::Done;
        m_originInStep = false;
        m_endsClient = true;
        return;
    }
    if (m_state == EState::Head || m_state == EState::Body || m_state == EState::Upgraded)
        m_state = EState::Lost;
}

uint64_t CHTTPAnswer::GetRelayAllowance() const
{
    return m_state == EState::Body ? m_body.GetRelayAllowance() : 0;
}

bool CHTTPAnswer::Relayed(uint64_t count)
{
    if (m_state != EState::Body)
        return false;
    m_body.Relayed(count);
    if (!m_body.IsDone())
        return false;
    m_state = EState::Done;
    return true;
}

void CHTTPAnswer::Fault(const std::string& why)
{
    m_originInStep = false;
    m_fault = why;
    m_state = EState::Faulted;
}

} // namespace Proxy
} // namespace ZRT
