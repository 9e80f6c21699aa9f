#pragma once

#include <string>
#include <vector>

namespace ZRT {
namespace Daemon {

// The daemon's configuration file: one "name value" per line, the names of the long options;
// blank lines and lines starting with # are skipped. The value is the rest of the line with
// the spaces around it removed, so it may hold spaces itself (a password).
class CConfigFile {
public:
    struct SEntry {
        std::string name;
        std::string value;
        std::string origin; // FILE:LINE, for messages
    };

    // Every entry in order; false with the reason ("FILE:LINE: ..." for a line without a value,
    // or why the file cannot be read). Names are not checked here.
    static bool Read(const std::string& path, std::vector<SEntry>& entries, std::string& error);
};

} // namespace Daemon
} // namespace ZRT
