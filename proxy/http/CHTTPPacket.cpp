#include "proxy/http/CHTTPPacket.h"

#include <strings.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace ZRT {
namespace Proxy {

const std::string HTTP_LINE_END = "\r\n";
const std::string HTTP_HEADER_SEPARATOR = ": ";
const std::string HTTP_FIELD_SEPARATOR = " ";

namespace {

const char HEADER_NAME_END[] = " :";
const char CONTENT_LENGTH[] = "content-length";

bool SameName(const std::string& a, const std::string& b)
{
    return strcasecmp(a.c_str(), b.c_str()) == 0;
}

} // namespace

CHTTPPacket::CHTTPPacket() = default;

CHTTPPacket::~CHTTPPacket() = default;

bool CHTTPPacket::AddLine(const std::string& line)
{
    const std::string::size_type nameEnd = line.find_first_of(HEADER_NAME_END);
    if (nameEnd == std::string::npos)
        return false;
    const std::string::size_type valueStart = line.find_first_not_of(HEADER_NAME_END, nameEnd);
    const std::string value = valueStart == std::string::npos ? std::string() : line.substr(valueStart);
    AddHeader(line.substr(0, nameEnd), value);
    return true;
}

void CHTTPPacket::AddHeader(const std::string& name, const std::string& value)
{
    ProcessHeader(name, value);
    m_headers.emplace_back(name, value);
}

void CHTTPPacket::SetHeader(const std::string& name, const std::string& value)
{
    ProcessHeader(name, value);
    for (auto& header : m_headers) {
        if (SameName(header.first, name)) {
            header.second = value;
            return;
        }
    }
    AddHeader(name, value);
}

void CHTTPPacket::AddContent(unsigned char* data, unsigned int len)
{
    m_content.AddBuffer(QOX::CRefCountPtr<CByteBuffer>(new CByteBuffer(data, len, false)));
}

int32_t CHTTPPacket::GetContentLen() const
{
    return m_contentLen;
}

const CHTTPPacket::HeaderList& CHTTPPacket::GetHeaders() const
{
    return m_headers;
}

void CHTTPPacket::SetHeaders(const HeaderList& headers)
{
    m_headers = headers;
    for (const auto& header : m_headers)
        ProcessHeader(header.first, header.second);
}

bool CHTTPPacket::GetHeader(const std::string& name, std::string& value) const
{
    for (const auto& header : m_headers) {
        if (SameName(header.first, name)) {
            value = header.second;
            return true;
        }
    }
    return false;
}

const CByteBufferList& CHTTPPacket::GetContent() const
{
    return m_content;
}

unsigned int CHTTPPacket::FillSendBuffer(unsigned char* buffer, unsigned int size) const
{
    if (!buffer)
        return 0;
    unsigned int written = 0;
    for (const auto& header : m_headers) {
        if (!WritePiece(buffer, size, written, header.first)
            || !WritePiece(buffer, size, written, HTTP_HEADER_SEPARATOR)
            || !WritePiece(buffer, size, written, header.second)
            || !WritePiece(buffer, size, written, HTTP_LINE_END))
            return written;
    }
    if (!WritePiece(buffer, size, written, HTTP_LINE_END))
        return written;
    const unsigned int contentSize = m_content.GetSize();
    if (contentSize > size - written)
        return written;
    m_content.PeekBytes(0, buffer + written, contentSize);
    return written + contentSize;
}

unsigned int CHTTPPacket::CalcSendBufferSize() const
{
    unsigned int total = 0;
    for (const auto& header : m_headers)
        total += static_cast<unsigned int>(header.first.size() + HTTP_HEADER_SEPARATOR.size() + header.second.size()
                                           + HTTP_LINE_END.size());
    total += static_cast<unsigned int>(HTTP_LINE_END.size());
    return total + m_content.GetSize();
}

bool CHTTPPacket::ProcessHeader(const std::string& name, const std::string& value)
{
    if (strcasecmp(name.c_str(), CONTENT_LENGTH) != 0)
        return false;
    // strtol saturates at the width of long. Clamping to 32 bits gives 64-bit builds what a 32-bit
    // long gives, instead of a wrapped length (2147483648 would otherwise turn negative).
    const long parsed = std::strtol(value.c_str(), nullptr, 10);
    m_contentLen = static_cast<int32_t>(std::min<long>(std::max<long>(parsed, INT32_MIN), INT32_MAX));
    return true;
}

bool CHTTPPacket::NextToken(const std::string& line, std::string::size_type& pos, std::string& token)
{
    if (pos >= line.size())
        return false;
    const std::string::size_type start = line.find_first_not_of(' ', pos);
    if (start == std::string::npos)
        return false;
    std::string::size_type end = line.find(' ', start);
    if (end == std::string::npos)
        end = line.size();
    token = line.substr(start, end - start);
    pos = end;
    return true;
}

bool CHTTPPacket::WritePiece(unsigned char* buffer, unsigned int size, unsigned int& written, const std::string& piece)
{
    if (written > size || piece.size() > size - written)
        return false;
    if (!piece.empty())
        std::memcpy(buffer + written, piece.data(), piece.size());
    written += static_cast<unsigned int>(piece.size());
    return true;
}

} // namespace Proxy
} // namespace ZRT
