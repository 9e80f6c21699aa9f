#pragma once

#include <map>
#include <string>

namespace ZRT {
namespace Api {

// The users of a proxy as an operator writes them: "user:password", one per line in a file
// (blank lines and lines starting with # are skipped), or one at a time as an option value.
class CUsersFile {
public:
    using Users = std::map<std::string, std::string>;

    // One "user:password": false with a reason for an empty name, a missing colon, or a part
    // longer than SOCKS5 carries (255 bytes).
    static bool ParseEntry(const std::string& text, std::string& user, std::string& password, std::string& error);
    // Every user of the file; false with "FILE:LINE: reason" (or why it cannot be read).
    static bool Read(const std::string& path, Users& users, std::string& error);
};

} // namespace Api
} // namespace ZRT
