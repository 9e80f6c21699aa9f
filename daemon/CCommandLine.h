#pragma once

#include <string>

namespace ZRT {
namespace Daemon {

// The daemon's options: zrt-proxy [--port N] [--listen ADDR] [--dns-server LIST]
// [--bind-timeout SECONDS] [--help] [--version].
class CCommandLine {
public:
    static constexpr int DEFAULT_PORT = 1080;

    // False on a bad argument; GetError() then says which, in one line.
    bool Parse(int argc, const char* const* argv);

    int GetPort() const { return m_port; }
    const std::string& GetListenAddress() const { return m_listenAddress; }
    bool IsIPv6() const;
    const std::string& GetDnsServers() const { return m_dnsServers; }
    int GetBindTimeoutSeconds() const { return m_bindTimeout; }
    bool WantsHelp() const { return m_help; }
    bool WantsVersion() const { return m_version; }
    const std::string& GetError() const { return m_error; }

    static std::string Usage();

private:
    bool Fail(const std::string& error);
    bool SetPort(const std::string& text);
    bool SetListenAddress(const std::string& text);
    bool SetDnsServers(const std::string& text);
    bool SetBindTimeout(const std::string& text);
    bool SetOption(const std::string& name, const std::string& value);

    int m_port = DEFAULT_PORT;
    std::string m_listenAddress = "127.0.0.1";
    std::string m_dnsServers;
    int m_bindTimeout = 120;
    bool m_help = false;
    bool m_version = false;
    std::string m_error;
};

} // namespace Daemon
} // namespace ZRT
