#pragma once

#include <string>

namespace ZRT {
namespace Proxy {

// Checks a password against what the users table keeps for a user when that is not the password
// itself but a one-way hash (crypt(3): "$y$...", "$6$...", "$2b$..."). A hash check may take
// tens of milliseconds on purpose, so the engine never runs Verify on a thread that serves
// clients: the handler waits for it like for a name lookup.
//
// Threads: Recognizes on the connection's thread, Verify on a thread of the proxy's pool; both
// may run on several threads at once.
class IPasswordVerifier {
public:
    virtual ~IPasswordVerifier() = default;
    // True when stored is a hash this verifier checks; false: stored is the password itself.
    virtual bool Recognizes(const std::string& stored) const = 0;
    virtual bool Verify(const std::string& stored, const std::string& password) const = 0;
};

} // namespace Proxy
} // namespace ZRT
