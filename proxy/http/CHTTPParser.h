#pragma once

#include <cstdint>
#include <string>

#include "proxy/http/CHTTPPacket.h"
#include "runtime/CRefCountPtr.h"
#include "runtime/Export.h"
#include "transport/CByteBufferList.h"

namespace ZRT {
namespace Proxy {

// Cuts received bytes, in chunks of any size, into lines and feeds them to one message until the
// blank line that ends the header block. It never reads a body: whatever follows the blank line
// is left in m_pendingData for the owner. The derived class picks the message type.
//
// Each byte is looked at once, however the block is split: a line still open at the end of a
// chunk waits in m_pendingData (known to hold no line end), and the next chunk is searched from
// its own start.
class ZRT_EXPORT CHTTPParser {
public:
    enum EParseState : int32_t {
        PARSE_STATE_START = 0,    // no message; nothing pending
        PARSE_STATE_HEADERS = 1,  // message created, reading start line and headers
        PARSE_STATE_COMPLETE = 2  // blank line seen
    };

    enum EParseResult : int32_t {
        PARSE_COMPLETE = 0,  // the blank line was found in this call
        PARSE_NEED_MORE = 1, // every complete line was accepted; more bytes needed
        PARSE_ERROR = 2      // a line was rejected, the block is too large, or the call was refused
    };

    // Largest header block (start line through the blank line's LF) accepted. A header block is
    // a few KiB in practice; past this a peer is feeding garbage or trying to pin memory, so Parse
    // answers PARSE_ERROR from then until Reset, and drops what it had pending.
    static constexpr unsigned int MAX_HEADER_BLOCK_SIZE = 64 * 1024;

    CHTTPParser();
    virtual ~CHTTPParser();
    CHTTPParser(const CHTTPParser&) = delete;
    CHTTPParser& operator=(const CHTTPParser&) = delete;

    // A new, unreferenced, empty message; the parser takes the first reference.
    virtual CHTTPPacket* CreatePacket() const = 0;

    void Reset();
    // Cuts the line starting at pos out of data[0, len): up to the next LF, minus one CR before
    // it. False, with pos and line unchanged, when no LF follows.
    bool ReadLine(const unsigned char* data, unsigned int len, unsigned int& pos, std::string& line);
    // Feeds the next chunk. The caller's bytes are copied where kept, so it may reuse them.
    EParseResult Parse(const unsigned char* data, unsigned int len);
    // Bytes searched or copied by Parse since the last Reset: the work a header block cost.
    unsigned long long GetBytesExamined() const { return m_bytesExamined; }

    // Read directly by the owner after PARSE_COMPLETE.
    QOX::CRefCountPtr<CHTTPPacket> m_packet;
    CByteBufferList m_pendingData;
    EParseState m_state = PARSE_STATE_START;

private:
    // False, counting nothing, when count more bytes would take the block past its bound.
    bool CountHeaderBytes(unsigned int count);
    bool FitsInBlock(unsigned int count) const;
    void KeepPending(const unsigned char* data, unsigned int len);
    EParseResult Overflow();
    // Parses a chunk while m_pendingData holds at most the start of a line.
    EParseResult ParseChunk(const unsigned char* data, unsigned int len);

    // Bytes at the front of m_pendingData known to hold no LF.
    unsigned int m_pendingScanned = 0;
    unsigned long long m_bytesExamined = 0;

    // Bytes of the current header block consumed so far; past the bound once it overflowed.
    unsigned int m_headerBytes = 0;
};

} // namespace Proxy
} // namespace ZRT
