#include "proxy/http/CHTTPRequest.h"

namespace ZRT {
namespace Proxy {

CHTTPRequest::CHTTPRequest() = default;

CHTTPRequest::~CHTTPRequest() = default;

bool CHTTPRequest::AddLine(const std::string& line)
{
    // The method is only empty until the request line has been taken.
    if (!m_method.empty())
        return CHTTPPacket::AddLine(line);
    std::string::size_type pos = 0;
    if (!NextToken(line, pos, m_method) || !NextToken(line, pos, m_uri) || !NextToken(line, pos, m_version))
        return false;
    std::string extra;
    return !NextToken(line, pos, extra);
}

unsigned int CHTTPRequest::FillSendBuffer(unsigned char* buffer, unsigned int size) const
{
    if (!buffer)
        return 0;
    unsigned int written = 0;
    if (!WritePiece(buffer, size, written, m_method) || !WritePiece(buffer, size, written, HTTP_FIELD_SEPARATOR)
        || !WritePiece(buffer, size, written, m_uri) || !WritePiece(buffer, size, written, HTTP_FIELD_SEPARATOR)
        || !WritePiece(buffer, size, written, m_version) || !WritePiece(buffer, size, written, HTTP_LINE_END))
        return written;
    return written + CHTTPPacket::FillSendBuffer(buffer + written, size - written);
}

unsigned int CHTTPRequest::CalcSendBufferSize() const
{
    const std::string::size_type startLine = m_method.size() + m_uri.size() + m_version.size()
                                             + 2 * HTTP_FIELD_SEPARATOR.size() + HTTP_LINE_END.size();
    return static_cast<unsigned int>(startLine) + CHTTPPacket::CalcSendBufferSize();
}

} // namespace Proxy
} // namespace ZRT
