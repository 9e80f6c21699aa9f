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
// blank line that ends the head. It never reads a body: whatever follows the blank line is left
// in m_pendingData for the owner. The derived class picks the message type.
//
// A line ends at LF; one CR before it belongs to the line end, so CRLF and a bare LF both end a
// line (the head is written anew with CRLF before it goes on). Any other CR stays in the line,
// where the message refuses it with every other control byte. A refused line, or a head past
// MAX_HEADER_BLOCK_SIZE, ends the parse: PARSE_ERROR from then until Reset.
//
// Each byte is looked at once, however the head is split: a line still open at the end of a
// chunk waits in m_pendingData (known to hold no LF), and the next chunk is searched from its
// own start.
//
// Used on the connection's thread only.
class ZRT_EXPORT CHTTPParser {
public:
    enum EParseState : int32_t {
        PARSE_STATE_START = 0,      // no message; nothing pending
        PARSE_STATE_START_LINE = 1, // message created, its start line not read yet
        PARSE_STATE_HEADERS = 2,    // start line read, reading field lines
        PARSE_STATE_COMPLETE = 3,   // blank line seen
        PARSE_STATE_ERROR = 4       // a line was refused or the head is too large
    };

    enum EParseResult : int32_t {
        PARSE_COMPLETE = 0,  // the blank line was found in this call
        PARSE_NEED_MORE = 1, // every complete line was accepted; more bytes needed
        PARSE_ERROR = 2      // the head was refused now or before, or the call was refused
    };

    // Largest head (start line through the blank line's LF, empty lines before a request line
    // included) accepted. A head is a few KiB in practice; past this a peer is feeding garbage or
    // trying to pin memory.
    static constexpr unsigned int MAX_HEADER_BLOCK_SIZE = 64 * 1024;

    CHTTPParser();
    virtual ~CHTTPParser();
    CHTTPParser(const CHTTPParser&) = delete;
    CHTTPParser& operator=(const CHTTPParser&) = delete;

    // A new, unreferenced, empty message; the parser takes the first reference.
    virtual CHTTPPacket* CreatePacket() const = 0;

    void Reset();
    // Feeds the next chunk. The caller's bytes are copied where kept, so it may reuse them.
    // PARSE_ERROR without a change for null data and once the head is complete.
    EParseResult Parse(const unsigned char* data, unsigned int len);
    // Bytes searched or copied by Parse since the last Reset: the work a head cost.
    unsigned long long GetBytesExamined() const { return m_bytesExamined; }

    // Read directly by the owner after PARSE_COMPLETE.
    QOX::CRefCountPtr<CHTTPPacket> m_packet;
    CByteBufferList m_pendingData;
    EParseState m_state = PARSE_STATE_START;

protected:
    // Whether empty lines before the start line are skipped (a client may send a CRLF after a
    // body) or refused.
    virtual bool SkipsEmptyLinesBeforeStartLine() const { return false; }

private:
    // One whole line, its line end removed.
    EParseResult TakeLine(const std::string& line);
    EParseResult Fail();
    // False, counting nothing, when count more bytes would take the head past its bound.
    bool CountHeaderBytes(unsigned int count);

    unsigned long long m_bytesExamined = 0;
    // Bytes of the current head taken so far.
    unsigned int m_headerBytes = 0;
};

} // namespace Proxy
} // namespace ZRT
