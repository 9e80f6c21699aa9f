#include "daemon/CConfigFile.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>

namespace ZRT {
namespace Daemon {

namespace {
const char SPACE[] = " \t";

bool IsSpace(char c)
{
    return c == ' ' || c == '\t';
}

// The text up to its comment, without the spaces around it.
std::string WithoutComment(const std::string& text)
{
    size_t end = text.size();
    for (size_t i = 0; i < text.size() && end == text.size(); ++i) {
        if (text[i] == '#' && (i == 0 || IsSpace(text[i - 1])))
            end = i;
    }
    const std::string kept = text.substr(0, end);
    const size_t start = kept.find_first_not_of(SPACE);
    if (start == std::string::npos)
        return std::string();
    return kept.substr(start, kept.find_last_not_of(SPACE) - start + 1);
}

// text starts with '"': the quoted value, and whether only a comment follows it.
bool ParseQuoted(const std::string& text, std::string& value, std::string& reason)
{
    std::string quoted;
    size_t i = 1;
    for (; i < text.size() && text[i] != '"'; ++i) {
        if (text[i] != '\\') {
            quoted += text[i];
            continue;
        }
        if (i + 1 >= text.size() || (text[i + 1] != '"' && text[i + 1] != '\\')) {
            reason = "in quotes, a backslash goes before \" or \\ only";
            return false;
        }
        quoted += text[++i];
    }
    if (i >= text.size()) {
        reason = "the quote is not closed";
        return false;
    }
    if (!WithoutComment(text.substr(i + 1)).empty() || (i + 1 < text.size() && !IsSpace(text[i + 1]))) {
        reason = "text after the closing quote";
        return false;
    }
    value = quoted;
    return true;
}

bool IsRegularFile(const std::string& path, std::string& problem)
{
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) {
        problem = path + ": " + std::strerror(errno);
        return false;
    }
    if (!S_ISREG(info.st_mode)) {
        problem = path + ": not a regular file";
        return false;
    }
    return true;
}
} // namespace

bool CConfigFile::ParseValue(const std::string& text, std::string& value, std::string& reason)
{
    const size_t start = text.find_first_not_of(SPACE);
    if (start != std::string::npos && text[start] == '"')
        return ParseQuoted(text.substr(start), value, reason);
    value = WithoutComment(text);
    if (value.empty()) {
        reason = "no value (write: name value)";
        return false;
    }
    return true;
}

bool CConfigFile::Read(const std::string& path, std::vector<SEntry>& entries, std::vector<std::string>& problems)
{
    std::string problem;
    if (!IsRegularFile(path, problem)) {
        problems.push_back(problem);
        return false;
    }
    std::ifstream file(path);
    if (!file) {
        problems.push_back(path + ": " + std::strerror(errno));
        return false;
    }
    const size_t before = problems.size();
    std::vector<SEntry> read;
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        const size_t start = line.find_first_not_of(SPACE);
        if (start == std::string::npos || line[start] == '#')
            continue;
        const std::string origin = path + ":" + std::to_string(number);
        const size_t gap = line.find_first_of(SPACE, start);
        const std::string name = line.substr(start, gap == std::string::npos ? std::string::npos : gap - start);
        SEntry entry{name, std::string(), origin};
        std::string reason;
        if (!ParseValue(gap == std::string::npos ? std::string() : line.substr(gap), entry.value, reason)) {
            problems.push_back(origin);
            problems.back().append(": ").append(name).append(": ").append(reason);
            continue;
        }
        read.push_back(entry);
    }
    if (file.bad())
        problems.push_back(path + ": cannot be read to its end");
    entries.swap(read);
    return problems.size() == before;
}

} // namespace Daemon
} // namespace ZRT
