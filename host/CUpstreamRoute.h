#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <vector>

namespace ZRT {
namespace Host {

// Where the direct host's TCP connections go when a parent proxy carries them: the upstream's
// protocol, address and credentials (from "socks5://[user:pass@]host:port",
// "socks5h://[user:pass@]host:port" or "http://[user:pass@]host:port"), and the blocks of
// destinations connected directly instead. With socks5h the upstream resolves names (they reach
// it in the domain form). The upstream is given by its numeric address: reaching it needs no
// resolver.
//
// Threads: set up on the controlling thread (the options); read-only afterwards, by any thread.
class CUpstreamRoute {
public:
    enum class EProtocol { None, Socks5, Http };
    // RFC 1929 carries each of user and password in at most this many bytes.
    static constexpr size_t CREDENTIAL_LIMIT = 255;

    // False with a reason, and the route unchanged, for anything but such a URL with a numeric
    // host (IPv6 in brackets) and a port; user and password may be percent-encoded.
    bool SetUrl(const std::string& url, std::string& error);
    void ClearUrl();
    // A block (CIDR, or one address) whose destinations are connected directly; false with a
    // reason for anything else, host bits below the prefix included.
    bool AddBypass(const std::string& block, std::string& error);
    void ClearBypass() { m_bypass.clear(); }

    // True when a connection to destination goes through the upstream.
    bool Carries(const sockaddr_storage& destination) const;

    EProtocol GetProtocol() const { return m_protocol; }
    // socks5h: names go to the upstream unresolved.
    bool ResolvesNames() const { return m_remoteNames; }
    const sockaddr_storage& GetAddress() const { return m_address; }
    socklen_t GetAddressLength() const { return m_addressLength; }
    bool HasCredentials() const { return !m_user.empty(); }
    const std::string& GetUser() const { return m_user; }
    const std::string& GetPassword() const { return m_password; }

private:
    struct SBlock {
        int family = AF_UNSPEC;
        uint8_t bytes[16] = {};
        int prefix = 0;
    };

    static bool TakeCredentials(std::string& rest, std::string& user, std::string& password);
    static bool ParseBlock(const std::string& text, SBlock& block);
    static bool Contains(const SBlock& block, const sockaddr_storage& address);

    EProtocol m_protocol = EProtocol::None;
    bool m_remoteNames = false;
    sockaddr_storage m_address{};
    socklen_t m_addressLength = 0;
    std::string m_user;
    std::string m_password;
    std::vector<SBlock> m_bypass;
};

} // namespace Host
} // namespace ZRT
