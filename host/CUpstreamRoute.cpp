#include "host/CUpstreamRoute.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>

#include "transport/CHexDigit.h"
#include "transport/COptionText.h"

namespace ZRT {
namespace Host {

namespace {
const char FORM[] = "is not socks5://[USER:PASSWORD@]ADDR:PORT, socks5h://... or http://[USER:PASSWORD@]ADDR:PORT";

bool PercentDecode(const std::string& text, std::string& decoded)
{
    decoded.clear();
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded += text[i];
            continue;
        }
        const int high = i + 2 < text.size() ? CHexDigit::Value(static_cast<unsigned char>(text[i + 1])) : -1;
        const int low = high >= 0 ? CHexDigit::Value(static_cast<unsigned char>(text[i + 2])) : -1;
        if (low < 0)
            return false;
        decoded += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return true;
}

// "ADDR:PORT" or "[IPv6]:PORT" into address; host gets the address part for messages.
bool ParseEndpoint(const std::string& text, std::string& host, sockaddr_storage& address, socklen_t& length)
{
    std::string port;
    if (!text.empty() && text[0] == '[') {
        const size_t close = text.find(']');
        if (close == std::string::npos || close + 1 >= text.size() || text[close + 1] != ':')
            return false;
        host = text.substr(1, close - 1);
        port = text.substr(close + 2);
    } else {
        const size_t colon = text.rfind(':');
        if (colon == std::string::npos)
            return false;
        host = text.substr(0, colon);
        port = text.substr(colon + 1);
    }
    long number = 0;
    if (!COptionText::ParseNumber(port, 1, 65535, number))
        return false;
    address = sockaddr_storage{};
    auto* v4 = reinterpret_cast<sockaddr_in*>(&address);
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&address);
    if (text[0] != '[' && inet_pton(AF_INET, host.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(static_cast<uint16_t>(number));
        length = sizeof(sockaddr_in);
        return true;
    }
    if (text[0] == '[' && inet_pton(AF_INET6, host.c_str(), &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(static_cast<uint16_t>(number));
        length = sizeof(sockaddr_in6);
        return true;
    }
    return false;
}
} // namespace

// Takes "USER:PASSWORD@" off the front of rest, percent-decoded; true when there is none.
bool CUpstreamRoute::TakeCredentials(std::string& rest, std::string& user, std::string& password)
{
    const size_t at = rest.rfind('@');
    if (at == std::string::npos)
        return true;
    const std::string userInfo = rest.substr(0, at);
    const size_t colon = userInfo.find(':');
    if (colon == std::string::npos || colon == 0 || !PercentDecode(userInfo.substr(0, colon), user) ||
        !PercentDecode(userInfo.substr(colon + 1), password) || user.size() > CREDENTIAL_LIMIT ||
        password.empty() || password.size() > CREDENTIAL_LIMIT)
        return false;
    rest = rest.substr(at + 1);
    return true;
}

bool CUpstreamRoute::SetUrl(const std::string& url, std::string& error)
{
    EProtocol protocol = EProtocol::None;
    std::string rest;
    const bool remoteNames = url.compare(0, 10, "socks5h://") == 0;
    if (url.compare(0, 9, "socks5://") == 0 || remoteNames) {
        protocol = EProtocol::Socks5;
        rest = url.substr(remoteNames ? 10 : 9);
    } else if (url.compare(0, 7, "http://") == 0) {
        protocol = EProtocol::Http;
        rest = url.substr(7);
    } else {
        error = "'" + url + "' " + FORM;
        return false;
    }
    if (!rest.empty() && rest.back() == '/')
        rest.pop_back();
    std::string user;
    std::string password;
    if (!TakeCredentials(rest, user, password)) {
        error = "'" + url + "': the credentials are not USER:PASSWORD, each of 1 to 255 bytes";
        return false;
    }
    std::string host;
    sockaddr_storage address{};
    socklen_t length = 0;
    if (!ParseEndpoint(rest, host, address, length)) {
        error = host.empty() || host.find_first_not_of("0123456789abcdefABCDEF.:") == std::string::npos
                    ? "'" + url + "' " + FORM
                    : "'" + host + "' is not a numeric address: give the upstream by its address (IPv6 in "
                                   "brackets), which needs no resolver";
        return false;
    }
    m_protocol = protocol;
    m_remoteNames = remoteNames;
    m_address = address;
    m_addressLength = length;
    m_user = user;
    m_password = password;
    return true;
}

void CUpstreamRoute::ClearUrl()
{
    m_protocol = EProtocol::None;
    m_remoteNames = false;
    m_address = sockaddr_storage{};
    m_addressLength = 0;
    m_user.clear();
    m_password.clear();
}

bool CUpstreamRoute::AddBypass(const std::string& text, std::string& error)
{
    SBlock block;
    if (!ParseBlock(text, block)) {
        error = "'" + text + "' is not an address block such as 10.0.0.0/8 or 2001:db8::/32 (no host bits below "
                             "the prefix)";
        return false;
    }
    m_bypass.push_back(block);
    return true;
}

bool CUpstreamRoute::Carries(const sockaddr_storage& destination) const
{
    if (m_protocol == EProtocol::None)
        return false;
    for (const SBlock& block : m_bypass) {
        if (Contains(block, destination))
            return false;
    }
    return true;
}

bool CUpstreamRoute::ParseBlock(const std::string& text, SBlock& block)
{
    const size_t slash = text.find('/');
    const std::string address = text.substr(0, slash);
    block.family = address.find(':') == std::string::npos ? AF_INET : AF_INET6;
    const int bits = block.family == AF_INET ? 32 : 128;
    if (inet_pton(block.family, address.c_str(), block.bytes) != 1)
        return false;
    long prefix = bits;
    if (slash != std::string::npos && !COptionText::ParseNumber(text.substr(slash + 1), 0, bits, prefix))
        return false;
    block.prefix = static_cast<int>(prefix);
    // Host bits set below the prefix are a typing error more often than not.
    for (int bit = block.prefix; bit < bits; ++bit) {
        if (block.bytes[bit / 8] & (0x80 >> (bit % 8)))
            return false;
    }
    return true;
}

bool CUpstreamRoute::Contains(const SBlock& block, const sockaddr_storage& address)
{
    const uint8_t* bytes = nullptr;
    if (address.ss_family == AF_INET && block.family == AF_INET) {
        bytes = reinterpret_cast<const uint8_t*>(&reinterpret_cast<const sockaddr_in&>(address).sin_addr);
    } else if (address.ss_family == AF_INET6) {
        const auto& v6 = reinterpret_cast<const sockaddr_in6&>(address).sin6_addr;
        // An IPv4 address written as IPv6 (::ffff:a.b.c.d) is judged as IPv4.
        const bool mapped = IN6_IS_ADDR_V4MAPPED(&v6);
        if ((block.family == AF_INET) != mapped)
            return false;
        bytes = reinterpret_cast<const uint8_t*>(&v6) + (mapped ? 12 : 0);
    } else {
        return false;
    }
    const int whole = block.prefix / 8;
    const int rest = block.prefix % 8;
    if (std::memcmp(bytes, block.bytes, static_cast<size_t>(whole)) != 0)
        return false;
    const uint8_t mask = static_cast<uint8_t>(0xff00 >> rest);
    return rest == 0 || (bytes[whole] & mask) == block.bytes[whole];
}

} // namespace Host
} // namespace ZRT
