#pragma once

#include <string>

namespace ZRT {
namespace Daemon {

// The daemon's options: zrt-proxy [--port N] [--listen ADDR] [--help] [--version].
class CCommandLine {
public:
    static constexpr int DEFAULT_PORT = 1080;

    // False on a bad argument; GetError() then says which, in one line.
    bool Parse(int argc, const char* const* argv);

    int GetPort() const { return m_port; }
    const std::string& GetListenAddress() const { return m_listenAddress; }
    bool IsIPv6() const;
    bool WantsHelp() const { return m_help; }
    bool WantsVersion() const { return m_version; }
    const std::string& GetError() const { return m_error; }

    static std::string Usage();

private:
    bool Fail(const std::string& error);
    bool SetPort(const std::string& text);
    bool SetListenAddress(const std::string& text);

    int m_port = DEFAULT_PORT;
    std::string m_listenAddress = "127.0.0.1";
    bool m_help = false;
    bool m_version = false;
    std::string m_error;
};

} // namespace Daemon
} // namespace ZRT
