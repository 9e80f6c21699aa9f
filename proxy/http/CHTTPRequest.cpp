#include "proxy/http/CHTTPRequest.h"

#include "proxy/http/CHTTPSyntax.h"

namespace ZRT {
namespace Proxy {

namespace {

bool IsTarget(const std::string& target)
{
    if (target.empty())
        return false;
    for (const char c : target) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte == ' ' || CHTTPSyntax::IsControl(byte))
            return false;
    }
    return true;
}

} // namespace

CHTTPRequest::CHTTPRequest() = default;

CHTTPRequest::~CHTTPRequest() = default;

bool CHTTPRequest::AddLine(const std::string& line)
{
    if (!m_method.empty())
        return CHTTPPacket::AddLine(line);
    return TakeRequestLine(line);
}

bool CHTTPRequest::TakeRequestLine(const std::string& line)
{
    const std::string::size_type methodEnd = line.find(' ');
    if (methodEnd == std::string::npos)
        return false;
    const std::string::size_type targetEnd = line.find(' ', methodEnd + 1);
    if (targetEnd == std::string::npos)
        return false;
    std::string method = line.substr(0, methodEnd);
    std::string target = line.substr(methodEnd + 1, targetEnd - methodEnd - 1);
    std::string version = line.substr(targetEnd + 1);
    if (!CHTTPSyntax::IsToken(method) || !IsTarget(target) || !CHTTPSyntax::IsVersion(version))
        return false;
    m_method.swap(method);
    m_uri.swap(target);
    m_version.swap(version);
    return true;
}

void CHTTPRequest::AppendStartLine(std::string& head, const std::string& version) const
{
    head += m_method;
    head += HTTP_FIELD_SEPARATOR;
    head += m_uri;
    head += HTTP_FIELD_SEPARATOR;
    head += version.empty() ? m_version : version;
    head += HTTP_LINE_END;
}

} // namespace Proxy
} // namespace ZRT
