#include "api/CUsersFile.h"

#include <cerrno>
#include <cstring>
#include <fstream>

namespace ZRT {
namespace Api {

namespace {
const size_t MAX_PART = 255; // what one length byte of SOCKS5 username/password carries
}

bool CUsersFile::ParseEntry(const std::string& text, std::string& user, std::string& password, std::string& error)
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

bool CUsersFile::Read(const std::string& path, Users& users, std::string& error)
{
    std::ifstream file(path);
    if (!file) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    Users read;
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        const size_t start = line.find_first_not_of(" \t");
        if (start == std::string::npos || line[start] == '#')
            continue;
        std::string user;
        std::string password;
        std::string reason;
        if (!ParseEntry(line.substr(start), user, password, reason)) {
            error = path;
            error.append(":").append(std::to_string(number)).append(": ").append(reason);
            return false;
        }
        read[user] = password;
    }
    users.swap(read);
    return true;
}

} // namespace Api
} // namespace ZRT
