#pragma once

#include <string>
#include <vector>

#include "daemon/CConfigFile.h"

namespace ZRT {
namespace Daemon {

// The daemon's command line: --help, --version, --check-config, --hash-password, --config FILE,
// and the library's settings as long options (--NAME VALUE or --NAME=VALUE, names from
// zrt_option_name). Values are checked by the library when the daemon applies them, so the
// daemon learns every new setting without a change here.
//
// Threads: the daemon's main thread.
class CCommandLine {
public:
    // False on an unknown option or a missing value; GetError() then says which, in one line.
    bool Parse(int argc, const char* const* argv);

    // The settings in the order given; origin "--NAME".
    const std::vector<CConfigFile::SEntry>& GetSettings() const { return m_settings; }
    const std::string& GetConfigFile() const { return m_configFile; }
    bool WantsHelp() const { return m_help; }
    bool WantsVersion() const { return m_version; }
    // Check the settings and exit, instead of serving.
    bool WantsCheck() const { return m_check; }
    // Print a hash of the password on standard input and exit.
    bool WantsHash() const { return m_hash; }
    const std::string& GetError() const { return m_error; }

    // Every option, one per line, from the library's own descriptions; where the daemon has a
    // default of its own (defaults, CDaemonOptions::Defaults), the line states that one.
    static std::string Usage(const std::vector<CConfigFile::SEntry>& defaults);

private:
    bool Fail(const std::string& error);

    std::vector<CConfigFile::SEntry> m_settings;
    std::string m_configFile;
    bool m_help = false;
    bool m_version = false;
    bool m_check = false;
    bool m_hash = false;
    std::string m_error;
};

} // namespace Daemon
} // namespace ZRT
