#pragma once

#include <string>
#include <utility>
#include <vector>

namespace ZRT {
namespace Daemon {

// The daemon's command line: --help, --version, and the library's settings as long options
// (--NAME VALUE or --NAME=VALUE, names from zrt_option_name). Values are checked by the library
// when the daemon applies them, so the daemon learns every new setting without a change here.
class CCommandLine {
public:
    // False on an unknown option or a missing value; GetError() then says which, in one line.
    bool Parse(int argc, const char* const* argv);

    // The settings in the order given.
    const std::vector<std::pair<std::string, std::string>>& GetSettings() const { return m_settings; }
    // The last value given for a setting, or fallback.
    std::string GetValue(const std::string& name, const std::string& fallback) const;
    bool WantsHelp() const { return m_help; }
    bool WantsVersion() const { return m_version; }
    const std::string& GetError() const { return m_error; }

    // Every option, one per line, from the library's own descriptions.
    static std::string Usage();

private:
    bool Fail(const std::string& error);

    std::vector<std::pair<std::string, std::string>> m_settings;
    bool m_help = false;
    bool m_version = false;
    std::string m_error;
};

} // namespace Daemon
} // namespace ZRT
