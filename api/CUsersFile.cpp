#include "api/CUsersFile.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "api/CCryptVerifier.h"
#include "proxy/auth/CCredentials.h"

namespace ZRT {
namespace Api {

namespace {
const char SPACE[] = " \t";

// The line without its comment ('#' at its start or after white space) and outer spaces.
std::string EntryOf(const std::string& line)
{
    size_t end = line.size();
    for (size_t i = 0; i < line.size() && end == line.size(); ++i) {
        if (line[i] == '#' && (i == 0 || line[i - 1] == ' ' || line[i - 1] == '\t'))
            end = i;
    }
    const std::string kept = line.substr(0, end);
    const size_t start = kept.find_first_not_of(SPACE);
    if (start == std::string::npos)
        return std::string();
    return kept.substr(start, kept.find_last_not_of(SPACE) - start + 1);
}

bool IsRegularFile(const std::string& path, std::string& error)
{
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    if (!S_ISREG(info.st_mode)) {
        error = path + ": not a regular file";
        return false;
    }
    return true;
}
} // namespace

bool CUsersFile::ParseEntry(const std::string& text, std::string& user, std::string& password, std::string& error)
{
    if (!Proxy::CCredentials::ParseEntry(text, user, password, error))
        return false;
    std::string reason;
    if (CCryptVerifier::LooksLikeHash(password) && !CCryptVerifier::IsUsable(password, reason)) {
        error = "the hash of '" + user + "': " + reason;
        return false;
    }
    return true;
}

bool CUsersFile::Read(const std::string& path, Users& users, std::string& error)
{
    if (!IsRegularFile(path, error))
        return false;
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
        const std::string entry = EntryOf(line);
        if (entry.empty())
            continue;
        std::string user;
        std::string password;
        std::string reason;
        if (!ParseEntry(entry, user, password, reason)) {
            error = path;
            error.append(":").append(std::to_string(number)).append(": ").append(reason);
            return false;
        }
        read[user] = password;
    }
    if (file.bad()) {
        error = path + ": cannot be read to its end";
        return false;
    }
    // An empty file must not turn a proxy that asks for passwords into an open one.
    if (read.empty()) {
        error = path + ": no user in it (for a proxy without passwords, set auth none instead)";
        return false;
    }
    users.swap(read);
    return true;
}

} // namespace Api
} // namespace ZRT
