#include "daemon/CCommandLine.h"

#include "zrtproxy/zrtproxy.h"

namespace ZRT {
namespace Daemon {

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
        if (argument == "--help" || argument == "-h") {
            m_help = true;
            continue;
        }
        if (argument == "--version") {
            m_version = true;
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

std::string CCommandLine::Usage()
{
    std::string usage = "Usage: zrt-proxy [--config FILE] [--OPTION VALUE]... [--help] [--version]\n"
                        "SOCKS5 and HTTP proxy on one port, connecting directly from this machine.\n\n"
                        "  --config FILE                 read options from FILE: one 'name value' per line,\n"
                        "                                # for comments; options given here override it\n";
    for (int i = 0; const char* name = zrt_option_name(i); ++i) {
        std::string left = "  --" + std::string(name) + " " + zrt_option_value(name);
        left.resize(left.size() < 32 ? 32 : left.size() + 1, ' ');
        std::string notes;
        if (zrt_option_flags(name) & ZRT_OPTION_REPEATABLE)
            notes = " [repeatable]";
        usage.append(left).append(zrt_option_description(name)).append(notes).append("\n");
    }
    usage += "  --help                        show this text\n"
             "  --version                     show the version\n\n"
             "The daemon's own defaults: handshake-timeout 30, log-level warning, max-clients from the\n"
             "descriptor limit. SIGHUP reads the configuration and the users file again and applies what\n"
             "may change while running to new connections (and reopens the access log); SIGINT or\n"
             "SIGTERM stops the proxy.\n";
    return usage;
}

bool CCommandLine::Fail(const std::string& error)
{
    m_error = error;
    return false;
}

} // namespace Daemon
} // namespace ZRT
