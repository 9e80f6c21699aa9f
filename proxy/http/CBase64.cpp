#include "proxy/http/CBase64.h"

namespace ZRT {
namespace Proxy {

namespace {
const char ALPHABET[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int ValueOf(char c)
{
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    if (c == '+')
        return 62;
    if (c == '/')
        return 63;
    return -1;
}
} // namespace

bool CBase64::Decode(const std::string& text, std::string& bytes)
{
    if (text.size() % 4 != 0)
        return false;
    std::string out;
    for (size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        const int pads = last ? (text[i + 3] == '=') + (text[i + 2] == '=' && text[i + 3] == '=') : 0;
        unsigned int group = 0;
        for (size_t j = 0; j < 4; ++j) {
            const int value = j >= 4 - static_cast<size_t>(pads) ? 0 : ValueOf(text[i + j]);
            if (value < 0)
                return false;
            group = (group << 6) | static_cast<unsigned int>(value);
        }
        out += static_cast<char>((group >> 16) & 0xFF);
        if (pads < 2)
            out += static_cast<char>((group >> 8) & 0xFF);
        if (pads < 1)
            out += static_cast<char>(group & 0xFF);
    }
    bytes.swap(out);
    return true;
}

std::string CBase64::Encode(const std::string& bytes)
{
    std::string out;
    for (size_t i = 0; i < bytes.size(); i += 3) {
        const size_t left = bytes.size() - i;
        unsigned int group = static_cast<unsigned int>(static_cast<unsigned char>(bytes[i])) << 16;
        if (left > 1)
            group |= static_cast<unsigned int>(static_cast<unsigned char>(bytes[i + 1])) << 8;
        if (left > 2)
            group |= static_cast<unsigned int>(static_cast<unsigned char>(bytes[i + 2]));
        out += ALPHABET[(group >> 18) & 63];
        out += ALPHABET[(group >> 12) & 63];
        out += left > 1 ? ALPHABET[(group >> 6) & 63] : '=';
        out += left > 2 ? ALPHABET[group & 63] : '=';
    }
    return out;
}

} // namespace Proxy
} // namespace ZRT
