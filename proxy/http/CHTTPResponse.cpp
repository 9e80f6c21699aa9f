#include "proxy/http/CHTTPResponse.h"

namespace ZRT {
namespace Proxy {

CHTTPResponse::CHTTPResponse() = default;

CHTTPResponse::~CHTTPResponse() = default;

bool CHTTPResponse::AddLine(const std::string& line)
{
    // The version is only empty until the status line has been taken.
    if (!m_version.empty())
        return CHTTPPacket::AddLine(line);
    std::string::size_type pos = 0;
    if (!NextToken(line, pos, m_version) || !NextToken(line, pos, m_statusCode))
        return false;
    const std::string::size_type reason = line.find_first_not_of(' ', pos);
    if (reason != std::string::npos)
        m_reason = line.substr(reason);
    return true;
}

unsigned int CHTTPResponse::FillSendBuffer(unsigned char* buffer, unsigned int size) const
{
    if (!buffer)
        return 0;
    unsigned int written = 0;
    if (!WritePiece(buffer, size, written, m_version) || !WritePiece(buffer, size, written, HTTP_FIELD_SEPARATOR)
        || !WritePiece(buffer, size, written, m_statusCode) || !WritePiece(buffer, size, written, HTTP_FIELD_SEPARATOR)
        || !WritePiece(buffer, size, written, m_reason) || !WritePiece(buffer, size, written, HTTP_LINE_END))
        return written;
    return written + CHTTPPacket::FillSendBuffer(buffer + written, size - written);
}

unsigned int CHTTPResponse::CalcSendBufferSize() const
{
    const std::string::size_type startLine = m_version.size() + m_statusCode.size() + m_reason.size()
                                             + 2 * HTTP_FIELD_SEPARATOR.size() + HTTP_LINE_END.size();
    return static_cast<unsigned int>(startLine) + CHTTPPacket::CalcSendBufferSize();
}

} // namespace Proxy
} // namespace ZRT
