#pragma once

#include <cstddef>
#include <string>

namespace ZRT {
namespace Api {

// Makes bytes a client chose safe to write into a log line. Every byte that could end, cut or
// garble a line becomes \xNN: control characters (C0, DEL, and C1 as UTF-8), NUL, the line and
// paragraph separators and the bidirectional marks and overrides, each byte of a sequence that is
// not valid UTF-8 (overlongs, surrogates, truncated or stray bytes), and the backslash itself, so
// that no escape can be forged. Valid UTF-8 stays as it is. So a line built of escaped fields is
// valid UTF-8 without control characters, and one client makes exactly one line.
//
// Pure functions: any thread.
class CLogText {
public:
    static constexpr size_t USER_LIMIT = 256;
    static constexpr size_t DESTINATION_LIMIT = 300;
    // Any other text of a line (an address, an error message).
    static constexpr size_t TEXT_LIMIT = 1024;
    // Ends a text that was cut at its limit; no escaped text can contain it (a backslash of the
    // text itself is written \x5c).
    static constexpr const char* CUT_MARKER = "\\...";

    // text escaped, at most limit bytes (cut before a whole escape or character, then the marker
    // added); also lists more ASCII characters to escape (" " for a field between spaces, "\"" for
    // a quoted value).
    static std::string Escape(const std::string& text, size_t limit, const char* also = "");
    // A field of a line of space-separated fields: escaped, its spaces too; "-" when empty.
    static std::string Field(const std::string& text, size_t limit);
};

} // namespace Api
} // namespace ZRT
