#pragma once

#include <map>
#include <string>

namespace ZRT {
namespace Proxy {

// Checks a user name and password against the proxy's users without telling, by the time it
// takes, which part was wrong or how much of it was right: every entry is compared, each in
// time that depends only on the lengths. Header-only, as the handlers below the core use it.
class CCredentials {
public:
    using Users = std::map<std::string, std::string>;
    // What one length byte of SOCKS5 username/password carries.
    static constexpr size_t MAX_PART = 255;

    // One "user:password" as an operator writes it: false with a reason for a missing colon, an
    // empty name or a part longer than SOCKS5 carries.
    static bool ParseEntry(const std::string& text, std::string& user, std::string& password, std::string& error)
    {
        const size_t colon = text.find(':');
        if (colon == std::string::npos) {
            error = "expected user:password";
            return false;
        }
        user = text.substr(0, colon);
        password = text.substr(colon + 1);
        if (user.empty()) {
            error = "the user name is empty";
            return false;
        }
        if (user.size() > MAX_PART || password.size() > MAX_PART) {
            error = "user name and password are limited to 255 bytes each";
            return false;
        }
        return true;
    }

    // Whether a stored password is written as a crypt(3) hash ("$ID$..."): such an entry needs a
    // verifier and is never compared as the password itself.
    static bool LooksLikeHash(const std::string& stored)
    {
        const size_t end = stored.find('$', 1);
        return stored.size() > 3 && stored[0] == '$' && end != std::string::npos && end <= 3;
    }

    static bool Check(const Users& users, const std::string& user, const std::string& password)
    {
        bool match = false;
        for (const auto& entry : users) {
            // Both compared always: a known name with a wrong password costs what an unknown
            // one does.
            const bool name = Equal(entry.first, user);
            const bool secret = Equal(entry.second, password);
            match = match || (name && secret);
        }
        return match;
    }

    // Equal texts, compared in time that depends only on their lengths.
    static bool Equal(const std::string& a, const std::string& b)
    {
        // Every byte of the longer text is looked at; a length difference is one more mismatch.
        const size_t length = a.size() > b.size() ? a.size() : b.size();
        unsigned int difference = a.size() == b.size() ? 0u : 1u;
        for (size_t i = 0; i < length; ++i) {
            const unsigned char x = i < a.size() ? static_cast<unsigned char>(a[i]) : 0;
            const unsigned char y = i < b.size() ? static_cast<unsigned char>(b[i]) : 0;
            difference |= static_cast<unsigned int>(x ^ y);
        }
        return difference == 0;
    }
};

} // namespace Proxy
} // namespace ZRT
