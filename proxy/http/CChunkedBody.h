#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/Export.h"

namespace ZRT {
namespace Proxy {

// Follows a body in the chunked coding (RFC 9112 §7.1) as its bytes pass, in pieces of any size,
// and says which bytes frame it (size lines with their extensions, the CRLF after each chunk's
// data, the last chunk, the trailer section) and which are chunk data, and where it ends (after
// the trailer section's empty line). It never copies or changes a byte: a handler relays the
// bytes as they are, or keeps only the data runs for an HTTP/1.0 peer.
//
// Framing lines end in CRLF only (the bytes go on unchanged, so the next hop must read them as
// this does). Refused: a size that is not hex or has more than MAX_SIZE_DIGITS digits, white
// space after the size not followed by ';', a control byte in an extension, anything but CRLF
// after chunk data, a CR not followed by LF, a trailer line that is no field line, a framing line
// over MAX_LINE or a trailer section over MAX_TRAILERS. Extensions are checked byte by byte only.
//
// Used on the connection's thread only.
class ZRT_EXPORT CChunkedBody {
public:
    enum class EPart { Framing, Data };

    struct SRun {
        EPart part;
        size_t length;
    };

    static constexpr unsigned int MAX_SIZE_DIGITS = 15;
    // A size line or one trailer line, its CRLF included.
    static constexpr size_t MAX_LINE = 4096;
    // The trailer section, its last CRLF included.
    static constexpr size_t MAX_TRAILERS = 16384;

    // The run at the front of data[0, len): bytes that are all framing or all data. Shorter than
    // len when the part changes, when the body ends with it (IsDone: later bytes are not the
    // body's) or when the byte after it is refused (IsFailed). Once done or failed: an empty run.
    SRun Next(const unsigned char* data, size_t len);
    // The data bytes of the current chunk not seen yet: the caller may move up to that many
    // without looking and report them with SkipData. 0 outside chunk data.
    uint64_t GetDataLeft() const;
    // Counts count bytes of chunk data as seen; more than GetDataLeft() fails the body.
    void SkipData(uint64_t count);
    bool IsDone() const { return m_state == EState::Done; }
    bool IsFailed() const { return m_state == EState::Failed; }
    // Ready for the next body.
    void Reset();

private:
    enum class EState {
        SizeStart,    // first hex digit of a size line
        Size,         // more hex digits, ';', white space or CR
        SizeBlank,    // white space after the size: only ';' may follow
        Extension,    // after ';' up to CR
        SizeLF,       // LF of a size line
        Data,         // m_size bytes of chunk data
        DataCR,       // the CRLF after the data
        DataLF,
        TrailerStart, // a trailer line, or the CR of the empty line that ends the body
        TrailerName,
        TrailerValue,
        TrailerLF,
        EndLF,        // LF of the empty line
        Done,
        Failed
    };

    // Takes one framing byte; false when it is refused.
    bool Step(unsigned char c);
    bool StepSizeLine(unsigned char c);
    bool StepTrailer(unsigned char c);
    void EndLine(EState next);

    EState m_state = EState::SizeStart;
    // The size being read, then the data bytes left of the chunk.
    uint64_t m_size = 0;
    unsigned int m_digits = 0;
    size_t m_lineBytes = 0;
    size_t m_trailerBytes = 0;
};

} // namespace Proxy
} // namespace ZRT
