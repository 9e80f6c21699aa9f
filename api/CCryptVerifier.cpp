#include "api/CCryptVerifier.h"

#include <cctype>
#include <memory>
#include <string>

#include "proxy/auth/CCredentials.h"

#if defined(ZRT_WITH_CRYPT)
#include <crypt.h>
#endif

namespace ZRT {
namespace Api {

namespace {
const char* const PREFIXES[] = {"$y$", "$6$", "$5$", "$2b$", "$2y$", "$2a$"};

std::string PrefixOf(const std::string& text)
{
    for (const char* prefix : PREFIXES) {
        if (text.compare(0, std::char_traits<char>::length(prefix), prefix) == 0)
            return prefix;
    }
    return std::string();
}
} // namespace

bool CCryptVerifier::LooksLikeHash(const std::string& text)
{
    return !PrefixOf(text).empty();
}

#if defined(ZRT_WITH_CRYPT)

namespace {
// What crypt(3) writes: its base-64 alphabet, the '$' between the fields, and the '=' of
// SHA-crypt's "rounds=N".
const char HASH_CHARACTERS[] = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz$=";

// Whether the part after the salt has the length the method writes (bcrypt: two cost digits
// from 04 to 31, then salt and hash in one field), so that a hash cut short is refused when it
// is read, not at every login.
bool IsComplete(const std::string& prefix, const std::string& stored)
{
    const std::string last = stored.substr(stored.rfind('$') + 1);
    if (prefix[1] == '2') {
        const std::string cost = stored.substr(prefix.size(), 3);
        const bool digits = cost.size() == 3 && std::isdigit(static_cast<unsigned char>(cost[0])) &&
                            std::isdigit(static_cast<unsigned char>(cost[1])) && cost[2] == '$';
        return digits && cost >= "04$" && cost <= "31$" && stored.size() == prefix.size() + 3 + 53;
    }
    const size_t length = prefix == "$6$" ? 86 : 43;
    return last.size() == length && last.find('=') == std::string::npos;
}
} // namespace

bool CCryptVerifier::IsAvailable()
{
    return true;
}

bool CCryptVerifier::IsUsable(const std::string& stored, std::string& error)
{
    const std::string prefix = PrefixOf(stored);
    if (prefix.empty() || stored.find_first_not_of(HASH_CHARACTERS) != std::string::npos ||
        !IsComplete(prefix, stored)) {
        error = "not a whole crypt(3) hash ($y$, $6$, $5$ or $2b$ as crypt or zrt-proxy --hash-password write it)";
        return false;
    }
    // A salt for the method tells whether this libcrypt has it at all.
    char salt[CRYPT_GENSALT_OUTPUT_SIZE];
    if (!crypt_gensalt_rn(prefix.c_str(), 0, nullptr, 0, salt, sizeof(salt))) {
        error = "this system's crypt(3) has no " + prefix + " hashes";
        return false;
    }
#if defined(CRYPT_CHECKSALT_AVAILABLE)
    const int verdict = crypt_checksalt(stored.c_str());
    if (verdict == CRYPT_SALT_INVALID || verdict == CRYPT_SALT_METHOD_DISABLED) {
        error = "a " + prefix + " hash with parameters this system's crypt(3) refuses";
        return false;
    }
#endif
    return true;
}

bool CCryptVerifier::Verify(const std::string& stored, const std::string& password) const
{
    // crypt_rn reads C strings: a password with a NUL in it would be checked cut short.
    if (!LooksLikeHash(stored) || password.find('\0') != std::string::npos)
        return false;
    // 32 KiB of scratch space: on the heap, not on a thread's stack.
    const std::unique_ptr<crypt_data> data(new crypt_data());
    const char* const hashed = crypt_rn(password.c_str(), stored.c_str(), data.get(), sizeof(crypt_data));
    // A failure is NULL or a text starting with '*', never equal to a stored hash.
    if (!hashed || hashed[0] == '*')
        return false;
    return Proxy::CCredentials::Equal(hashed, stored);
}

#else

bool CCryptVerifier::IsAvailable()
{
    return false;
}

bool CCryptVerifier::IsUsable(const std::string& /*stored*/, std::string& error)
{
    error = "password hashes need libcrypt, which this build of the library lacks";
    return false;
}

bool CCryptVerifier::Verify(const std::string& /*stored*/, const std::string& /*password*/) const
{
    return false;
}

#endif

} // namespace Api
} // namespace ZRT
