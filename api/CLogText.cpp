#include "api/CLogText.h"

#include <cstdint>
#include <cstring>

namespace ZRT {
namespace Api {

namespace {
// The length of the well-formed UTF-8 sequence of two to four bytes at text, 0 when there is none
// (RFC 3629: no overlong forms, no surrogates, nothing beyond U+10FFFF).
size_t SequenceLength(const unsigned char* text, size_t left)
{
    const unsigned char lead = text[0];
    size_t length = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        low = lead == 0xE0 ? 0xA0 : 0x80;
        high = lead == 0xED ? 0x9F : 0xBF;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        low = lead == 0xF0 ? 0x90 : 0x80;
        high = lead == 0xF4 ? 0x8F : 0xBF;
    }
    if (length == 0 || left < length || text[1] < low || text[1] > high)
        return 0;
    for (size_t i = 2; i < length; ++i) {
        if ((text[i] & 0xC0) != 0x80)
            return 0;
    }
    return length;
}

uint32_t CodePoint(const unsigned char* text, size_t length)
{
    uint32_t point = text[0] & (0x7Fu >> length);
    for (size_t i = 1; i < length; ++i)
        point = (point << 6) | (text[i] & 0x3Fu);
    return point;
}

// Valid characters that break or reorder a line where it is shown: C1 controls (NEL among them),
// the line and paragraph separators, and the bidirectional marks, embeddings and isolates.
bool MovesText(uint32_t point)
{
    return point < 0xA0 || point == 0x061C || point == 0x200E || point == 0x200F ||
           (point >= 0x2028 && point <= 0x202E) || (point >= 0x2066 && point <= 0x2069);
}

void AppendEscaped(std::string& out, const unsigned char* bytes, size_t count)
{
    static const char HEX[] = "0123456789abcdef";
    for (size_t i = 0; i < count; ++i) {
        const char escape[4] = {'\\', 'x', HEX[bytes[i] >> 4], HEX[bytes[i] & 0x0F]};
        out.append(escape, sizeof(escape));
    }
}
} // namespace

std::string CLogText::Escape(const std::string& text, size_t limit, const char* also)
{
    std::string out;
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    size_t at = 0;
    while (at < text.size()) {
        const unsigned char byte = bytes[at];
        size_t length = 1;
        bool plain = byte >= 0x20 && byte < 0x7F && byte != '\\' && std::strchr(also, byte) == nullptr;
        if (byte >= 0x80) {
            const size_t sequence = SequenceLength(bytes + at, text.size() - at);
            length = sequence > 0 ? sequence : 1;
            plain = sequence > 0 && !MovesText(CodePoint(bytes + at, sequence));
        }
        const size_t written = plain ? length : 4 * length;
        if (out.size() + written > limit) {
            out += CUT_MARKER;
            return out;
        }
        if (plain)
            out.append(text, at, length);
        else
            AppendEscaped(out, bytes + at, length);
        at += length;
    }
    return out;
}

std::string CLogText::Field(const std::string& text, size_t limit)
{
    return text.empty() ? std::string("-") : Escape(text, limit, " ");
}

} // namespace Api
} // namespace ZRT
