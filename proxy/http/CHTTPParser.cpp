#include "proxy/http/CHTTPParser.h"

#include <cstring>

namespace ZRT {
namespace Proxy {

CHTTPParser::CHTTPParser() = default;

CHTTPParser::~CHTTPParser()
{
    Reset();
}

void CHTTPParser::Reset()
{
    m_packet.Reset();
    m_pendingData.Clear();
    m_state = PARSE_STATE_START;
    m_headerBytes = 0;
    m_bytesExamined = 0;
}

CHTTPParser::EParseResult CHTTPParser::Parse(const unsigned char* data, unsigned int len)
{
    if (!data || m_state == PARSE_STATE_COMPLETE || m_state == PARSE_STATE_ERROR)
        return PARSE_ERROR;
    if (m_state == PARSE_STATE_START) {
        m_packet = CreatePacket();
        m_state = PARSE_STATE_START_LINE;
    }
    unsigned int pos = 0;
    std::string line;
    while (pos < len) {
        const void* found = std::memchr(data + pos, '\n', len - pos);
        if (!found) {
            // The line goes on in the next chunk; it counts against the bound already.
            const unsigned int rest = len - pos;
            if (!CountHeaderBytes(rest))
                return Fail();
            m_pendingData.AppendBytes(data + pos, rest);
            m_bytesExamined += 2ull * rest;
            return PARSE_NEED_MORE;
        }
        const unsigned int lf = static_cast<unsigned int>(static_cast<const unsigned char*>(found) - data);
        if (!CountHeaderBytes(lf + 1 - pos))
            return Fail();
        const unsigned int pending = m_pendingData.GetSize();
        line.assign(pending, '\0');
        if (pending > 0) {
            m_pendingData.PeekBytes(0, reinterpret_cast<unsigned char*>(&line[0]), pending);
            m_pendingData.Clear();
        }
        line.append(reinterpret_cast<const char*>(data + pos), lf - pos);
        m_bytesExamined += 2ull * (lf + 1 - pos) + pending;
        pos = lf + 1;
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        const EParseResult result = TakeLine(line);
        if (result == PARSE_ERROR)
            return Fail();
        if (result == PARSE_COMPLETE) {
            // Bytes behind the head belong to the body.
            if (pos < len)
                m_pendingData.AddBuffer(QOX::CRefCountPtr<CByteBuffer>(new CByteBuffer(data + pos, len - pos, false)));
            return PARSE_COMPLETE;
        }
    }
    return PARSE_NEED_MORE;
}

CHTTPParser::EParseResult CHTTPParser::TakeLine(const std::string& line)
{
    if (m_state == PARSE_STATE_START_LINE) {
        if (line.empty())
            return SkipsEmptyLinesBeforeStartLine() ? PARSE_NEED_MORE : PARSE_ERROR;
        if (!m_packet || !m_packet->AddLine(line))
            return PARSE_ERROR;
        m_state = PARSE_STATE_HEADERS;
        return PARSE_NEED_MORE;
    }
    if (line.empty()) {
        m_state = PARSE_STATE_COMPLETE;
        return PARSE_COMPLETE;
    }
    return m_packet->AddLine(line) ? PARSE_NEED_MORE : PARSE_ERROR;
}

CHTTPParser::EParseResult CHTTPParser::Fail()
{
    m_state = PARSE_STATE_ERROR;
    m_pendingData.Clear();
    return PARSE_ERROR;
}

bool CHTTPParser::CountHeaderBytes(unsigned int count)
{
    if (count > MAX_HEADER_BLOCK_SIZE - m_headerBytes)
        return false;
    m_headerBytes += count;
    return true;
}

} // namespace Proxy
} // namespace ZRT
