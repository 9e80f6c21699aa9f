#pragma once

#include <map>
#include <string>

namespace ZRT {
namespace Api {

// The users of a proxy as an operator writes them: "user:password" or "user:HASH" (a crypt(3)
// hash, see CCryptVerifier), one per line in a file or one at a time as an option value. In a
// file, blank lines are skipped and '#' starts a comment at the start of a line or after a space
// or tab; the spaces around an entry are not part of it.
//
// Threads: the controlling thread of the proxy (it reads files); no state.
class CUsersFile {
public:
    using Users = std::map<std::string, std::string>;

    // One "user:password": false with a reason for an empty name, a missing colon, a part longer
    // than SOCKS5 carries (255 bytes), or a hash this build cannot check.
    static bool ParseEntry(const std::string& text, std::string& user, std::string& password, std::string& error);
    // Every user of the file; false with "FILE:LINE: reason", or "FILE: reason" when it cannot be
    // read, is not a regular file or holds no user (which would let every client in).
    static bool Read(const std::string& path, Users& users, std::string& error);
};

} // namespace Api
} // namespace ZRT
