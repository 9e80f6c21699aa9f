#pragma once

#include <string>
#include <vector>

namespace ZRT {
namespace Daemon {

// The daemon's configuration file: one "name value" per line, the names of the long options.
// Blank lines are skipped; '#' starts a comment at the start of a line or after a space or tab
// ("pw#1" keeps its '#'). The value is the rest of the line without the spaces around it, so it
// may hold spaces itself, or a text in double quotes, which may hold anything ('#', spaces at
// its ends) with \" for a quote and \\ for a backslash.
//
// Threads: the daemon's main thread; no state.
class CConfigFile {
public:
    struct SEntry {
        std::string name;
        std::string value;
        std::string origin; // FILE:LINE, for messages
    };

    // Every good entry in order; false with a problem per bad line ("FILE:LINE: reason"), or one
    // ("FILE: reason") when the file cannot be read or is not a regular file. Names are not
    // checked here.
    static bool Read(const std::string& path, std::vector<SEntry>& entries, std::vector<std::string>& problems);
    // The value after the name on one line (comment removed, quotes resolved); false with the
    // reason for an unterminated quote, an unknown escape, text after the closing quote, or no
    // value at all.
    static bool ParseValue(const std::string& text, std::string& value, std::string& reason);
};

} // namespace Daemon
} // namespace ZRT
