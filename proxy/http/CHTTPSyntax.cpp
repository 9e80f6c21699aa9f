#include "proxy/http/CHTTPSyntax.h"

#include <strings.h>

#include <algorithm>
#include <cstring>

namespace ZRT {
namespace Proxy {

namespace {

// The loops below use these directly: the exported members cannot be inlined into them.
inline bool TokenByte(unsigned char c)
{
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'))
        return true;
    switch (c) {
    case '!': case '#': case '$': case '%': case '&': case '\'': case '*': case '+':
    case '-': case '.': case '^': case '_': case '`': case '|': case '~':
        return true;
    default:
        return false;
    }
}

inline bool TextByte(unsigned char c)
{
    return c >= 0x20 ? c != 0x7F : c == '\t';
}

} // namespace

bool CHTTPSyntax::IsTokenChar(unsigned char c)
{
    return TokenByte(c);
}

bool CHTTPSyntax::IsToken(const std::string& text)
{
    if (text.empty())
        return false;
    for (const char c : text) {
        if (!TokenByte(static_cast<unsigned char>(c)))
            return false;
    }
    return true;
}

bool CHTTPSyntax::IsControl(unsigned char c)
{
    return c < 0x20 || c == 0x7F;
}

bool CHTTPSyntax::IsBlank(unsigned char c)
{
    return c == ' ' || c == '\t';
}

bool CHTTPSyntax::IsTextChar(unsigned char c)
{
    return TextByte(c);
}

bool CHTTPSyntax::IsText(const std::string& text)
{
    for (const char c : text) {
        if (!TextByte(static_cast<unsigned char>(c)))
            return false;
    }
    return true;
}

bool CHTTPSyntax::IsVersion(const std::string& text)
{
    return text == VERSION_1_1 || text == VERSION_1_0;
}

std::string CHTTPSyntax::Trim(const std::string& text, std::string::size_type begin, std::string::size_type end)
{
    end = std::min(end, text.size());
    while (begin < end && IsBlank(static_cast<unsigned char>(text[begin])))
        ++begin;
    while (end > begin && IsBlank(static_cast<unsigned char>(text[end - 1])))
        --end;
    return text.substr(begin, end - begin);
}

void CHTTPSyntax::SplitList(const std::string& value, std::vector<std::string>& elements)
{
    std::string::size_type start = 0;
    for (;;) {
        const std::string::size_type comma = value.find(',', start);
        if (comma == std::string::npos) {
            elements.push_back(Trim(value, start, value.size()));
            return;
        }
        elements.push_back(Trim(value, start, comma));
        start = comma + 1;
    }
}

std::string CHTTPSyntax::ToLower(const std::string& text)
{
    std::string lower(text);
    for (char& c : lower) {
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    }
    return lower;
}

bool CHTTPSyntax::SameName(const std::string& name, const char* expected)
{
    return name.size() == std::strlen(expected) && strncasecmp(name.c_str(), expected, name.size()) == 0;
}

} // namespace Proxy
} // namespace ZRT
