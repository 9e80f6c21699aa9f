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
