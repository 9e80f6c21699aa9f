#pragma once

#include <string>

#include "proxy/core/IPasswordVerifier.h"

namespace ZRT {
namespace Api {

// Checks passwords against crypt(3) hashes as an operator writes them in place of a password:
// yescrypt ("$y$"), SHA-crypt ("$6$", "$5$") and bcrypt ("$2b$", "$2y$", "$2a$", where libcrypt
// has it), with libcrypt's re-entrant crypt_rn. A build without libcrypt (ZRT_WITH_CRYPT unset)
// still tells hashes from passwords, so that it can refuse them instead of taking a hash for
// the password itself.
//
// Threads: every operation on any thread, several at once; it keeps no state.
class CCryptVerifier : public Proxy::IPasswordVerifier {
public:
    // Whether this build checks hashes at all.
    static bool IsAvailable();
    // Whether text is written as a hash of one of the methods above (then it is no password).
    static bool LooksLikeHash(const std::string& text);
    // Whether stored is a hash this system's libcrypt can check: a known method that is
    // enabled, its parameters, only the characters crypt(3) writes. False with the reason. It
    // computes no hash, so a file of many users is checked at once.
    static bool IsUsable(const std::string& stored, std::string& error);

    bool Recognizes(const std::string& stored) const override { return LooksLikeHash(stored); }
    // Hashes password with stored's method and salt, and compares the result with stored in
    // time that does not depend on where they differ. Takes as long as the method makes it.
    bool Verify(const std::string& stored, const std::string& password) const override;
};

} // namespace Api
} // namespace ZRT
