#include "daemon/CCommandLine.h"

#include <arpa/inet.h>

#include <cstdlib>

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
        if (argument != "--port" && argument != "--listen" && argument != "--dns-server" &&
            argument != "--bind-timeout")
            return Fail("unknown option '" + std::string(argv[i]) + "' (see --help)");
        if (!hasValue) {
            if (i + 1 >= argc)
                return Fail("option '" + argument + "' needs a value");
            value = argv[++i];
        }
        if (!SetOption(argument.substr(2), value))
            return false;
    }
    return true;
}

bool CCommandLine::IsIPv6() const
{
    return m_listenAddress.find(':') != std::string::npos;
}

std::string CCommandLine::Usage()
{
    return "Usage: zrt-proxy [--port N] [--listen ADDR] [--dns-server LIST] [--bind-timeout S] [--help] [--version]\n"
           "SOCKS5 and HTTP proxy on one port, connecting directly from this machine.\n"
           "  --port N            TCP port to listen on (default 1080; 0 picks a free one)\n"
           "  --listen ADDR       numeric IPv4 or IPv6 address to listen on (default 127.0.0.1)\n"
           "  --dns-server LIST   DNS servers to ask, ADDR[:PORT] separated by commas\n"
           "                      (default: those of /etc/resolv.conf)\n"
           "  --bind-timeout S    seconds a SOCKS5 BIND waits for its peer (default 120)\n"
           "  --help              show this text\n"
           "  --version           show the version\n"
           "SIGINT, SIGTERM or SIGHUP stops the proxy.\n";
}

bool CCommandLine::SetOption(const std::string& name, const std::string& value)
{
    if (name == "port")
        return SetPort(value);
    if (name == "listen")
        return SetListenAddress(value);
    if (name == "dns-server")
        return SetDnsServers(value);
    if (name == "bind-timeout")
        return SetBindTimeout(value);
    return Fail("unknown option '--" + name + "' (see --help)");
}

bool CCommandLine::SetDnsServers(const std::string& text)
{
    if (text.empty() || text.find_first_not_of("0123456789abcdefABCDEF.:[],") != std::string::npos)
        return Fail("invalid DNS server list '" + text + "' (ADDR[:PORT], separated by commas)");
    m_dnsServers = text;
    return true;
}

bool CCommandLine::SetBindTimeout(const std::string& text)
{
    if (text.empty() || text.size() > 6 || text.find_first_not_of("0123456789") != std::string::npos ||
        std::strtol(text.c_str(), nullptr, 10) == 0)
        return Fail("invalid bind timeout '" + text + "' (seconds, 1 or more)");
    m_bindTimeout = static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
    return true;
}

bool CCommandLine::Fail(const std::string& error)
{
    m_error = error;
    return false;
}

bool CCommandLine::SetPort(const std::string& text)
{
    if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos ||
        std::strtol(text.c_str(), nullptr, 10) > 65535)
        return Fail("invalid port '" + text + "' (0 to 65535)");
    m_port = static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
    return true;
}

bool CCommandLine::SetListenAddress(const std::string& text)
{
    std::string address = text;
    if (address.size() > 2 && address.front() == '[' && address.back() == ']')
        address = address.substr(1, address.size() - 2);
    unsigned char bytes[16];
    if (inet_pton(AF_INET, address.c_str(), bytes) != 1 && inet_pton(AF_INET6, address.c_str(), bytes) != 1)
        return Fail("invalid listen address '" + text + "' (a numeric IPv4 or IPv6 address)");
    m_listenAddress = address;
    return true;
}

} // namespace Daemon
} // namespace ZRT
