#include "daemon/CConfigFile.h"

#include <cerrno>
#include <cstring>
#include <fstream>

namespace ZRT {
namespace Daemon {

namespace {
const char SPACE[] = " \t";

std::string Trim(const std::string& text)
{
    const size_t start = text.find_first_not_of(SPACE);
    if (start == std::string::npos)
        return std::string();
    return text.substr(start, text.find_last_not_of(SPACE) - start + 1);
}
} // namespace

bool CConfigFile::Read(const std::string& path, std::vector<SEntry>& entries, std::string& error)
{
    std::ifstream file(path);
    if (!file) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    std::vector<SEntry> read;
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        const std::string text = Trim(line);
        if (text.empty() || text[0] == '#')
            continue;
        const std::string origin = path + ":" + std::to_string(number);
        const size_t gap = text.find_first_of(SPACE);
        if (gap == std::string::npos) {
            error = origin;
            error.append(": '").append(text).append("' has no value (write: name value)");
            return false;
        }
        read.push_back({text.substr(0, gap), Trim(text.substr(gap)), origin});
    }
    entries.swap(read);
    return true;
}

} // namespace Daemon
} // namespace ZRT
