#pragma once

#include <string>

namespace ZRT {
namespace Proxy {

// The base64 of HTTP Basic credentials (RFC 4648 alphabet, padding required).
class CBase64 {
public:
    // False for anything that is not whole base64 (wrong characters, length, or padding).
    static bool Decode(const std::string& text, std::string& bytes);
    static std::string Encode(const std::string& bytes);
};

} // namespace Proxy
} // namespace ZRT
