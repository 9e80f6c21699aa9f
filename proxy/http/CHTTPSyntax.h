#pragma once

#include <string>
#include <vector>

#include "runtime/Export.h"

namespace ZRT {
namespace Proxy {

// The character classes and list rule shared by message heads, framing and chunked bodies
// (RFC 9110 §5.6). Pure functions: any thread may call them.
class ZRT_EXPORT CHTTPSyntax {
public:
    static constexpr char VERSION_1_0[] = "HTTP/1.0";
    static constexpr char VERSION_1_1[] = "HTTP/1.1";

    static bool IsTokenChar(unsigned char c);
    // One or more token characters: a method, a field name, a connection option, a coding.
    static bool IsToken(const std::string& text);
    // 0x00-0x1F and 0x7F.
    static bool IsControl(unsigned char c);
    // SP or HTAB: the optional white space around field values and list elements.
    static bool IsBlank(unsigned char c);
    // What a field value, reason phrase or chunk extension may hold: any byte but a control
    // byte, except HTAB (obs-text 0x80-0xFF included).
    static bool IsTextChar(unsigned char c);
    static bool IsText(const std::string& text);
    // The only versions taken: HTTP/1.0 and HTTP/1.1, exactly.
    static bool IsVersion(const std::string& text);
    // text[begin, end) without the SP and HTAB at either end; end may be npos.
    static std::string Trim(const std::string& text, std::string::size_type begin, std::string::size_type end);
    // Appends the comma-separated elements of a field value, trimmed; empty elements included,
    // so a caller can refuse them where the field is not a list.
    static void SplitList(const std::string& value, std::vector<std::string>& elements);
    static std::string ToLower(const std::string& text);
    // Field names and codings compare without regard to ASCII letter case.
    static bool SameName(const std::string& name, const char* expected);
};

} // namespace Proxy
} // namespace ZRT
