#include "proxy/http/CHTTPFraming.h"

#include <algorithm>

#include "proxy/http/CHTTPRequest.h"
#include "proxy/http/CHTTPResponse.h"
#include "proxy/http/CHTTPSyntax.h"

namespace ZRT {
namespace Proxy {

namespace {

const char CONTENT_LENGTH[] = "content-length";
const char TRANSFER_ENCODING[] = "transfer-encoding";
const char HOST[] = "host";
const char CONNECTION[] = "connection";
const char UPGRADE[] = "upgrade";
const char CHUNKED[] = "chunked";
const char OPTION_CLOSE[] = "close";
const char OPTION_KEEP_ALIVE[] = "keep-alive";
const char OPTION_UPGRADE[] = "upgrade";
const char METHOD_HEAD[] = "HEAD";
const char METHOD_CONNECT[] = "CONNECT";

const uint64_t MAX_LENGTH = 0x7FFFFFFFFFFFFFFFull;

// 1*DIGIT up to 2^63 - 1.
bool ParseLength(const std::string& text, uint64_t& length)
{
    if (text.empty())
        return false;
    uint64_t value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9')
            return false;
        const auto digit = static_cast<uint64_t>(c - '0');
        if (value > (MAX_LENGTH - digit) / 10)
            return false;
        value = value * 10 + digit;
    }
    length = value;
    return true;
}

} // namespace

CHTTPFraming CHTTPFraming::OfRequest(const CHTTPRequest& request)
{
    CHTTPFraming framing;
    framing.m_http11 = request.m_version == CHTTPSyntax::VERSION_1_1;
    framing.ReadFields(request.GetHeaders());
    if (framing.m_hostCount > 1)
        framing.SetFault(EFault::SeveralHosts);
    framing.CheckFields();
    if (framing.m_fault != EFault::None)
        return framing;
    // What follows a CONNECT head is the tunnel, never a body.
    if (request.m_method == METHOD_CONNECT)
        return framing;
    if (framing.m_transferEncodingFields > 0) {
        if (framing.m_codings.back() != CHUNKED) {
            framing.SetFault(EFault::BadTransferEncoding);
            return framing;
        }
        framing.m_body = EBody::Chunked;
        return framing;
    }
    if (framing.m_lengthValues > 0)
        framing.m_body = EBody::Length;
    return framing;
}

CHTTPFraming CHTTPFraming::OfResponse(const CHTTPResponse& response, const std::string& requestMethod)
{
    CHTTPFraming framing;
    framing.m_http11 = response.m_version == CHTTPSyntax::VERSION_1_1;
    framing.ReadFields(response.GetHeaders());
    framing.CheckFields();
    if (framing.m_fault != EFault::None)
        return framing;
    const unsigned int status = response.GetStatusCode();
    if (requestMethod == METHOD_HEAD || status / 100 == 1 || status == 204 || status == 304)
        return framing;
    if (requestMethod == METHOD_CONNECT && status / 100 == 2)
        return framing;
    if (framing.m_transferEncodingFields > 0) {
        framing.m_body = framing.m_codings.back() == CHUNKED ? EBody::Chunked : EBody::UntilClose;
        return framing;
    }
    framing.m_body = framing.m_lengthValues > 0 ? EBody::Length : EBody::UntilClose;
    return framing;
}

bool CHTTPFraming::HasConnectionOption(const char* option) const
{
    return std::find(m_connectionOptions.begin(), m_connectionOptions.end(), option) != m_connectionOptions.end();
}

bool CHTTPFraming::IsPersistent() const
{
    if (m_fault != EFault::None || m_body == EBody::UntilClose || HasConnectionOption(OPTION_CLOSE))
        return false;
    return m_http11 || HasConnectionOption(OPTION_KEEP_ALIVE);
}

bool CHTTPFraming::AsksUpgrade() const
{
    return m_http11 && m_upgradeField && HasConnectionOption(OPTION_UPGRADE);
}

void CHTTPFraming::ReadFields(const CHTTPPacket::HeaderList& fields)
{
    for (const auto& field : fields) {
        const std::string& name = field.first;
        if (CHTTPSyntax::SameName(name, CONTENT_LENGTH))
            ReadContentLength(field.second);
        else if (CHTTPSyntax::SameName(name, TRANSFER_ENCODING))
            ReadTransferEncoding(field.second);
        else if (CHTTPSyntax::SameName(name, CONNECTION))
            ReadConnection(field.second);
        else if (CHTTPSyntax::SameName(name, HOST))
            ++m_hostCount;
        else if (CHTTPSyntax::SameName(name, UPGRADE))
            m_upgradeField = true;
    }
}

// Content-Length is no list, but a sender that repeats one length ("5, 5", or two fields) still
// means one length.
void CHTTPFraming::ReadContentLength(const std::string& value)
{
    std::vector<std::string> elements;
    CHTTPSyntax::SplitList(value, elements);
    for (const std::string& element : elements) {
        uint64_t length = 0;
        if (!ParseLength(element, length)) {
            SetFault(EFault::BadContentLength);
            return;
        }
        if (m_lengthValues > 0 && length != m_length) {
            SetFault(EFault::DifferentContentLengths);
            return;
        }
        m_length = length;
        ++m_lengthValues;
    }
}

// Codings in lower case, without parameters; empty list elements are skipped as the list rule
// asks (a quoted parameter holding a comma is refused with them).
void CHTTPFraming::ReadTransferEncoding(const std::string& value)
{
    ++m_transferEncodingFields;
    std::vector<std::string> elements;
    CHTTPSyntax::SplitList(value, elements);
    for (const std::string& element : elements) {
        if (element.empty())
            continue;
        const std::string coding = CHTTPSyntax::Trim(element, 0, element.find(';'));
        if (!CHTTPSyntax::IsToken(coding)) {
            SetFault(EFault::BadTransferEncoding);
            return;
        }
        m_codings.push_back(CHTTPSyntax::ToLower(coding));
    }
}

void CHTTPFraming::ReadConnection(const std::string& value)
{
    std::vector<std::string> elements;
    CHTTPSyntax::SplitList(value, elements);
    for (const std::string& element : elements) {
        if (element.empty())
            continue;
        if (!CHTTPSyntax::IsToken(element)) {
            SetFault(EFault::BadConnection);
            return;
        }
        m_connectionOptions.push_back(CHTTPSyntax::ToLower(element));
    }
}

void CHTTPFraming::CheckFields()
{
    if (m_transferEncodingFields == 0)
        return;
    if (m_lengthValues > 0) {
        SetFault(EFault::LengthAndTransferEncoding);
        return;
    }
    // HTTP/1.0 has no transfer codings: such a message passed a hop that left its coding in place.
    if (!m_http11 || m_codings.empty()) {
        SetFault(EFault::BadTransferEncoding);
        return;
    }
    const auto chunked = std::find(m_codings.begin(), m_codings.end(), CHUNKED);
    if (chunked != m_codings.end() && chunked + 1 != m_codings.end())
        SetFault(EFault::BadTransferEncoding);
}

// The first fault found is the one reported.
void CHTTPFraming::SetFault(EFault fault)
{
    if (m_fault == EFault::None)
        m_fault = fault;
    m_body = EBody::None;
}

} // namespace Proxy
} // namespace ZRT
