#include "proxy/http/CHTTPPacket.h"

#include <cstring>

#include "proxy/http/CHTTPSyntax.h"

namespace ZRT {
namespace Proxy {

const std::string HTTP_LINE_END = "\r\n";
const std::string HTTP_HEADER_SEPARATOR = ": ";
const std::string HTTP_FIELD_SEPARATOR = " ";

CHTTPPacket::CHTTPPacket() = default;

CHTTPPacket::~CHTTPPacket() = default;

bool CHTTPPacket::AddLine(const std::string& line)
{
    const std::string::size_type colon = line.find(':');
    if (colon == std::string::npos || !CHTTPSyntax::IsText(line))
        return false;
    const std::string name = line.substr(0, colon);
    // A folded line and "Name :" fail here too: white space is no token character.
    if (!CHTTPSyntax::IsToken(name))
        return false;
    AddHeader(name, CHTTPSyntax::Trim(line, colon + 1, line.size()));
    return true;
}

void CHTTPPacket::AddHeader(const std::string& name, const std::string& value)
{
    m_headers.emplace_back(name, value);
}

void CHTTPPacket::SetHeader(const std::string& name, const std::string& value)
{
    bool found = false;
    for (auto header = m_headers.begin(); header != m_headers.end();) {
        if (!CHTTPSyntax::SameName(header->first, name.c_str())) {
            ++header;
            continue;
        }
        if (found) {
            header = m_headers.erase(header);
            continue;
        }
        header->second = value;
        found = true;
        ++header;
    }
    if (!found)
        AddHeader(name, value);
}

void CHTTPPacket::AddContent(unsigned char* data, unsigned int len)
{
    m_content.AddBuffer(QOX::CRefCountPtr<CByteBuffer>(new CByteBuffer(data, len, false)));
}

const CHTTPPacket::HeaderList& CHTTPPacket::GetHeaders() const
{
    return m_headers;
}

void CHTTPPacket::SetHeaders(const HeaderList& headers)
{
    m_headers = headers;
}

bool CHTTPPacket::GetHeader(const std::string& name, std::string& value) const
{
    for (const auto& header : m_headers) {
        if (CHTTPSyntax::SameName(header.first, name.c_str())) {
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

std::string CHTTPPacket::GetHead(const std::string& version) const
{
    std::string head;
    AppendStartLine(head, version);
    head.reserve(head.size() + GetFieldBlockSize());
    for (const auto& header : m_headers) {
        head += header.first;
        if (header.second.empty()) {
            head += ':';
        } else {
            head += HTTP_HEADER_SEPARATOR;
            head += header.second;
        }
        head += HTTP_LINE_END;
    }
    head += HTTP_LINE_END;
    return head;
}

unsigned int CHTTPPacket::FillSendBuffer(unsigned char* buffer, unsigned int size) const
{
    if (!buffer)
        return 0;
    const std::string head = GetHead();
    const unsigned int contentSize = m_content.GetSize();
    if (head.size() > size || contentSize > size - head.size())
        return 0;
    std::memcpy(buffer, head.data(), head.size());
    m_content.PeekBytes(0, buffer + head.size(), contentSize);
    return static_cast<unsigned int>(head.size()) + contentSize;
}

unsigned int CHTTPPacket::CalcSendBufferSize() const
{
    std::string startLine;
    AppendStartLine(startLine, std::string());
    return static_cast<unsigned int>(startLine.size() + GetFieldBlockSize()) + m_content.GetSize();
}

std::string::size_type CHTTPPacket::GetFieldBlockSize() const
{
    std::string::size_type size = HTTP_LINE_END.size();
    for (const auto& header : m_headers) {
        const std::string::size_type separator = header.second.empty() ? 1 : HTTP_HEADER_SEPARATOR.size();
        size += header.first.size() + separator + header.second.size() + HTTP_LINE_END.size();
    }
    return size;
}

void CHTTPPacket::AppendStartLine(std::string& /*head*/, const std::string& /*version*/) const {}

} // namespace Proxy
} // namespace ZRT
