#include "daemon/CPasswordHash.h"

#include <memory>

#if defined(ZRT_WITH_CRYPT)
#include <crypt.h>
#endif

namespace ZRT {
namespace Daemon {

namespace {
const size_t MAX_PASSWORD = 255; // what one length byte of SOCKS5 username/password carries

#if defined(ZRT_WITH_CRYPT)
bool Hash(const std::string& password, std::string& hash, std::string& error)
{
    char salt[CRYPT_GENSALT_OUTPUT_SIZE];
    // The library's default method (null prefix) is yescrypt where it has it; "$6$" otherwise.
    if (!crypt_gensalt_rn(nullptr, 0, nullptr, 0, salt, sizeof(salt)) &&
        !crypt_gensalt_rn("$6$", 0, nullptr, 0, salt, sizeof(salt))) {
        error = "crypt(3) makes no salt for yescrypt or SHA-512";
        return false;
    }
    const std::unique_ptr<crypt_data> data(new crypt_data());
    const char* const hashed = crypt_rn(password.c_str(), salt, data.get(), sizeof(crypt_data));
    if (!hashed || hashed[0] == '*') {
        error = "crypt(3) refused to hash the password";
        return false;
    }
    hash = hashed;
    return true;
}
#else
bool Hash(const std::string& /*password*/, std::string& /*hash*/, std::string& error)
{
    error = "this build has no libcrypt, so it makes and checks no password hashes";
    return false;
}
#endif
} // namespace

bool CPasswordHash::Make(const std::string& password, std::string& hash, std::string& error)
{
    if (password.empty()) {
        error = "the password is empty";
        return false;
    }
    if (password.size() > MAX_PASSWORD || password.find('\0') != std::string::npos) {
        error = "SOCKS5 carries passwords of up to 255 bytes without NUL bytes";
        return false;
    }
    return Hash(password, hash, error);
}

} // namespace Daemon
} // namespace ZRT
