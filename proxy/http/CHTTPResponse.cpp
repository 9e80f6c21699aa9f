#include "proxy/http/CHTTPResponse.h"

#include "proxy/http/CHTTPSyntax.h"

namespace ZRT {
namespace Proxy {

namespace {

// "HTTP/1.1 200": version, SP, three digits.
const std::string::size_type VERSION_SIZE = 8;
const std::string::size_type CODE_START = VERSION_SIZE + 1;
const std::string::size_type CODE_SIZE = 3;
const std::string::size_type CODE_END = CODE_START + CODE_SIZE;

bool IsStatusCode(const std::string& code)
{
    if (code.size() != CODE_SIZE || code[0] < '1' || code[0] > '5')
        return false;
    return code[1] >= '0' && code[1] <= '9' && code[2] >= '0' && code[2] <= '9';
}

} // namespace

CHTTPResponse::CHTTPResponse() = default;

CHTTPResponse::~CHTTPResponse() = default;

bool CHTTPResponse::AddLine(const std::string& line)
{
    if (!m_version.empty())
        return CHTTPPacket::AddLine(line);
    return TakeStatusLine(line);
}

bool CHTTPResponse::TakeStatusLine(const std::string& line)
{
    if (line.size() < CODE_END || line[VERSION_SIZE] != ' ')
        return false;
    if (line.size() > CODE_END && line[CODE_END] != ' ')
        return false;
    std::string version = line.substr(0, VERSION_SIZE);
    std::string code = line.substr(CODE_START, CODE_SIZE);
    std::string reason = line.size() > CODE_END ? line.substr(CODE_END + 1) : std::string();
    if (!CHTTPSyntax::IsVersion(version) || !IsStatusCode(code) || !CHTTPSyntax::IsText(reason))
        return false;
    m_version.swap(version);
    m_statusCode.swap(code);
    m_reason.swap(reason);
    return true;
}

unsigned int CHTTPResponse::GetStatusCode() const
{
    if (!IsStatusCode(m_statusCode))
        return 0;
    return static_cast<unsigned int>((m_statusCode[0] - '0') * 100 + (m_statusCode[1] - '0') * 10
                                     + (m_statusCode[2] - '0'));
}

void CHTTPResponse::AppendStartLine(std::string& head, const std::string& version) const
{
    head += version.empty() ? m_version : version;
    head += HTTP_FIELD_SEPARATOR;
    head += m_statusCode;
    head += HTTP_FIELD_SEPARATOR;
    head += m_reason;
    head += HTTP_LINE_END;
}

} // namespace Proxy
} // namespace ZRT
