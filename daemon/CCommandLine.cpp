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
        if (name.empty() || !zrt_option_value(name.c_str()))
            return Fail("unknown option '" + std::string(argv[i]) + "' (see --help)");
        if (!hasValue) {
            if (i + 1 >= argc)
                return Fail("option '" + argument + "' needs a value");
            value = argv[++i];
        }
        m_settings.emplace_back(name, value);
    }
    return true;
}

std::string CCommandLine::GetValue(const std::string& name, const std::string& fallback) const
{
    std::string value = fallback;
    for (const auto& setting : m_settings) {
        if (setting.first == name)
            value = setting.second;
    }
    return value;
}

std::string CCommandLine::Usage()
{
    std::string usage = "Usage: zrt-proxy [OPTION VALUE]... [--help] [--version]\n"
                        "SOCKS5 and HTTP proxy on one port, connecting directly from this machine.\n";
    for (int i = 0; const char* name = zrt_option_name(i); ++i) {
        std::string left = "  --" + std::string(name) + " " + zrt_option_value(name);
        left.resize(left.size() < 28 ? 28 : left.size() + 1, ' ');
        usage += left + zrt_option_description(name) + "\n";
    }
    usage += "  --help                    show this text\n"
             "  --version                 show the version\n"
             "SIGINT, SIGTERM or SIGHUP stops the proxy.\n";
    return usage;
}

bool CCommandLine::Fail(const std::string& error)
{
    m_error = error;
    return false;
}

} // namespace Daemon
} // namespace ZRT
