#pragma once

#include <string>

namespace ZRT {
namespace Daemon {

// Makes the crypt(3) hash an operator writes in place of a password (auth USER:HASH, the users
// file): yescrypt with libcrypt's default cost where it has yescrypt, SHA-512 crypt ("$6$")
// otherwise, each with a fresh random salt.
//
// Threads: any; no state.
class CPasswordHash {
public:
    // False with the reason for an empty password, one SOCKS5 cannot carry (over 255 bytes, or
    // with a NUL), or a build without libcrypt.
    static bool Make(const std::string& password, std::string& hash, std::string& error);
};

} // namespace Daemon
} // namespace ZRT
