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

    // Pending bytes and the new chunk are joined on the heap: together they can be far larger
    // than a thread's stack. Without pending bytes the chunk is read in place.
    const unsigned int pending = m_pendingData.GetSize();
    if (pending > 0 && len > ~0u - pending)
        return PARSE_ERROR;
    std::unique_ptr<unsigned char[]> joined;
    const unsigned char* work = data;
    const unsigned int workLen = pending + len;
    if (pending > 0) {
        joined.reset(new unsigned char[workLen]);
        m_pendingData.PeekBytes(0, joined.get(), pending);
        if (len > 0)
            std::memcpy(joined.get() + pending, data, len);
        work = joined.get();
    }

    if (m_state == PARSE_STATE_START) {
        Reset();
        m_packet = CreatePacket();
        m_state = PARSE_STATE_HEADERS;
    }

    EParseResult result = PARSE_ERROR;
    bool overflow = false;
    unsigned int pos = 0;
    std::string line;
    while (pos < workLen) {
        const unsigned int lineStart = pos;
        if (!ReadLine(work, workLen, pos, line)) {
            result = PARSE_NEED_MORE;
            break;
        }
        if (!CountHeaderBytes(pos - lineStart)) {
            overflow = true;
            break;
        }
        if (line.empty()) {
            m_state = PARSE_STATE_COMPLETE;
            result = PARSE_COMPLETE;
            break;
        }
        CHTTPPacket* packet = m_packet.Get();
        if (!packet || !packet->AddLine(line)) {
            result = PARSE_ERROR;
            break;
        }
        result = PARSE_NEED_MORE;
    }
    // Bytes behind a complete block belong to the body; anything else still counts against it.
    if (result != PARSE_COMPLETE && !FitsInBlock(workLen - pos))
        overflow = true;

    if (overflow) {
        m_headerBytes = MAX_HEADER_BLOCK_SIZE + 1;
        m_pendingData.Clear();
        return PARSE_ERROR;
    }
    KeepPending(work + pos, workLen - pos);
    return result;
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
