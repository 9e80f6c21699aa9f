#include "proxy/http/CHTTPParser.h"

#include <cstring>
#include <memory>

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
    m_pendingScanned = 0;
    m_bytesExamined = 0;
}

bool CHTTPParser::ReadLine(const unsigned char* data, unsigned int len, unsigned int& pos, std::string& line)
{
    if (pos >= len)
        return false;
    const void* found = std::memchr(data + pos, '\n', len - pos);
    if (!found)
        return false;
    const unsigned int lf = static_cast<unsigned int>(static_cast<const unsigned char*>(found) - data);
    unsigned int end = lf;
    if (end > pos && data[end - 1] == '\r')
        --end;
    line.assign(reinterpret_cast<const char*>(data + pos), end - pos);
    pos = lf + 1;
    return true;
}

CHTTPParser::EParseResult CHTTPParser::Parse(const unsigned char* data, unsigned int len)
{
    if (m_state == PARSE_STATE_COMPLETE || !data || m_headerBytes > MAX_HEADER_BLOCK_SIZE)
        return PARSE_ERROR;
    if (m_state == PARSE_STATE_START) {
        Reset();
        m_packet = CreatePacket();
        m_state = PARSE_STATE_HEADERS;
    }
    const unsigned int pending = m_pendingData.GetSize();
    if (pending == 0 && len == 0)
        return PARSE_ERROR;
    if (m_pendingScanned >= pending)
        return ParseChunk(data, len);
    // Bytes behind a rejected line (the owner went on without Reset): joined once and read anew.
    if (len > ~0u - pending)
        return PARSE_ERROR;
    std::unique_ptr<unsigned char[]> joined(new unsigned char[pending + len]);
    m_pendingData.PeekBytes(0, joined.get(), pending);
    if (len > 0)
        std::memcpy(joined.get() + pending, data, len);
    m_pendingData.Clear();
    m_pendingScanned = 0;
    return ParseChunk(joined.get(), pending + len);
}

CHTTPParser::EParseResult CHTTPParser::ParseChunk(const unsigned char* data, unsigned int len)
{
    unsigned int pos = 0;
    std::string line;
    while (pos < len) {
        const unsigned int pending = m_pendingData.GetSize();
        const void* found = std::memchr(data + pos, '\n', len - pos);
        if (!found) {
            // The line goes on in the next chunk; it counts against the bound already.
            const unsigned int rest = len - pos;
            if (!FitsInBlock(pending + rest))
                return Overflow();
            m_pendingData.AppendBytes(data + pos, rest);
            m_pendingScanned = pending + rest;
            m_bytesExamined += 2ull * rest;
            return PARSE_NEED_MORE;
        }
        const unsigned int lf = static_cast<unsigned int>(static_cast<const unsigned char*>(found) - data);
        line.assign(pending, '\0');
        if (pending > 0) {
            m_pendingData.PeekBytes(0, reinterpret_cast<unsigned char*>(&line[0]), pending);
            m_pendingData.Clear();
            m_pendingScanned = 0;
        }
        line.append(reinterpret_cast<const char*>(data + pos), lf - pos);
        m_bytesExamined += 2ull * (lf + 1 - pos) + pending;
        pos = lf + 1;
        if (!CountHeaderBytes(static_cast<unsigned int>(line.size()) + 1))
            return Overflow();
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.empty()) {
            m_state = PARSE_STATE_COMPLETE;
            // Bytes behind a complete block belong to the body.
            KeepPending(data + pos, len - pos);
            return PARSE_COMPLETE;
        }
        CHTTPPacket* packet = m_packet.Get();
        if (!packet || !packet->AddLine(line)) {
            KeepPending(data + pos, len - pos);
            return PARSE_ERROR;
        }
    }
    return PARSE_NEED_MORE;
}

CHTTPParser::EParseResult CHTTPParser::Overflow()
{
    m_headerBytes = MAX_HEADER_BLOCK_SIZE + 1;
    m_pendingData.Clear();
    m_pendingScanned = 0;
    return PARSE_ERROR;
}

bool CHTTPParser::CountHeaderBytes(unsigned int count)
{
    if (!FitsInBlock(count))
        return false;
    m_headerBytes += count;
    return true;
}

bool CHTTPParser::FitsInBlock(unsigned int count) const
{
    return m_headerBytes <= MAX_HEADER_BLOCK_SIZE && count <= MAX_HEADER_BLOCK_SIZE - m_headerBytes;
}

void CHTTPParser::KeepPending(const unsigned char* data, unsigned int len)
{
    m_pendingData.Clear();
    if (len > 0)
        m_pendingData.AddBuffer(QOX::CRefCountPtr<CByteBuffer>(new CByteBuffer(data, len, false)));
}

} // namespace Proxy
} // namespace ZRT
