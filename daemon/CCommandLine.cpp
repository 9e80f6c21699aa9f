#include "daemon/CCommandLine.h"

#include "daemon/CDaemonOptions.h"
#include "zrtproxy/zrtproxy.h"

namespace ZRT {
namespace Daemon {

namespace {
// Words of the daemon's own on an option, after the library's description.
std::string DaemonNote(const std::string& name)
{
    if (name == "auth")
        return "; on the command line it is visible to every user of this machine (ps): use auth-file";
    return std::string();
}

// The library's description with the daemon's default in place of the library's.
std::string Describe(const std::string& name, const std::vector<CConfigFile::SEntry>& defaults)
{
    std::string text = zrt_option_description(name.c_str());
    const std::string value = CDaemonOptions::ValueOf(defaults, name, "");
    const size_t start = text.rfind(" (default");
    if (!value.empty() && start != std::string::npos) {
        const std::string reason = CDaemonOptions::DefaultReason(name);
        text.replace(start, std::string::npos, " (default " + value + (reason.empty() ? "" : ", " + reason) + ")");
    }
    text += DaemonNote(name);
    if (zrt_option_flags(name.c_str()) & ZRT_OPTION_REPEATABLE)
        text += " [repeatable]";
    return text;
}
} // namespace

bool CCommandLine::Parse(int argc, const char* const* argv)
{
    for (int i = 1; i < argc; ++i) {
        std::string argument = argv[i];
        std::string value;
        bool hasValue = false;
        const size_t equals = argument.find('=');
        if (argument.compare(0, 2, "--") == 0 && equals != std::string::npos) {
            value = argument.substr(equals + 1);
            argument.resize(equals);
            hasValue = true;
        }
        bool* const flag = argument == "--help" || argument == "-h" ? &m_help
                           : argument == "--version"                ? &m_version
                           : argument == "--check-config"           ? &m_check
                           : argument == "--hash-password"          ? &m_hash
                                                                    : nullptr;
        if (flag) {
            if (hasValue)
                return Fail("option '" + argument + "' takes no value");
            *flag = true;
            continue;
        }
        const std::string name = argument.compare(0, 2, "--") == 0 ? argument.substr(2) : std::string();
        if (name != "config" && (name.empty() || !zrt_option_value(name.c_str())))
            return Fail("unknown option '" + std::string(argv[i]) + "' (see --help)");
        if (!hasValue) {
            if (i + 1 >= argc)
                return Fail("option '" + argument + "' needs a value");
            value = argv[++i];
        }
        if (name == "config")
            m_configFile = value;
        else
            m_settings.push_back({name, value, argument});
    }
    return true;
}

std::string CCommandLine::Usage(const std::vector<CConfigFile::SEntry>& defaults)
{
    std::string usage = "Usage: zrt-proxy [--config FILE] [--OPTION VALUE]... [--check-config]\n"
                        "       zrt-proxy --hash-password < PASSWORD-LINE\n"
                        "SOCKS and HTTP proxy, connecting directly from this machine.\n\n"
                        "  --config FILE                 read options from FILE: one 'name value' per line, # for\n"
                        "                                comments, \"...\" around a value with # or outer spaces;\n"
                        "                                options given here override the file's\n"
                        "  --check-config                check the configuration file and the options (users file\n"
                        "                                included), print every problem and exit: 0 when none\n"
                        "  --hash-password               read a password line from standard input and print a\n"
                        "                                crypt(3) hash of it for auth USER:HASH or the users file\n";
    for (int i = 0; const char* name = zrt_option_name(i); ++i) {
        std::string left = "  --" + std::string(name) + " " + zrt_option_value(name);
        left.resize(left.size() < 32 ? 32 : left.size() + 1, ' ');
        usage.append(left).append(Describe(name, defaults)).append("\n");
    }
    usage += "  --help                        show this text\n"
             "  --version                     show the version\n\n"
             "SIGHUP reads the configuration and the users file again and applies what may change while\n"
             "running to new connections (and reopens the access log); a file with a problem, or one that\n"
             "would drop every user without 'auth none', changes nothing. SIGINT or SIGTERM stops the proxy.\n";
    return usage;
}

bool CCommandLine::Fail(const std::string& error)
{
    m_error = error;
    return false;
}

} // namespace Daemon
} // namespace ZRT
