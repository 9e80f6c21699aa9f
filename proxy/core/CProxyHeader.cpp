#include "proxy/core/CProxyHeader.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "transport/CSocketUtils.h"

namespace ZRT {
namespace Proxy {

namespace {
const unsigned char SIGNATURE[12] = {0x0D, 0x0A, 0x0D, 0x0A, 0x00, 0x0D, 0x0A, 0x51, 0x55, 0x49, 0x54, 0x0A};
const char TEXT_PREFIX[] = "PROXY ";
constexpr size_t TEXT_PREFIX_LENGTH = sizeof(TEXT_PREFIX) - 1;
constexpr int BINARY_INET = 1;
constexpr int BINARY_INET6 = 2;

// Version 2: the address block bytes that a header naming its client needs (two addresses, two
// ports), or 0 when it names none (LOCAL, an unspecified transport or family, UNIX).
size_t NamedAddressSize(const unsigned char* fixed)
{
    const bool proxy = (fixed[12] & 0x0F) == 1;
    const int family = fixed[13] >> 4;
    if (!proxy || (fixed[13] & 0x0F) == 0)
        return 0;
    return family == BINARY_INET ? 12 : family == BINARY_INET6 ? 36 : 0;
}

// A decimal port without heading zeroes.
bool ParsePort(const char* text, uint16_t& port)
{
    const size_t length = std::strlen(text);
    if (length == 0 || length > 5 || (text[0] == '0' && length > 1) || std::strspn(text, "0123456789") != length)
        return false;
    const unsigned long value = std::strtoul(text, nullptr, 10);
    port = static_cast<uint16_t>(value);
    return value <= 65535;
}

// Four decimal numbers without heading zeroes (inet_pton refuses octal look-alikes), or IPv6 text.
bool ParseAddress(int family, const char* text, unsigned char* address)
{
    return inet_pton(family, text, address) == 1;
}

void SetAddress(sockaddr_storage& client, int family, const unsigned char* address, uint16_t port)
{
    client = sockaddr_storage{};
    if (family == AF_INET) {
        auto& v4 = reinterpret_cast<sockaddr_in&>(client);
        v4.sin_family = AF_INET;
        std::memcpy(&v4.sin_addr, address, 4);
        v4.sin_port = htons(port);
        return;
    }
    auto& v6 = reinterpret_cast<sockaddr_in6&>(client);
    v6.sin6_family = AF_INET6;
    std::memcpy(&v6.sin6_addr, address, 16);
    v6.sin6_port = htons(port);
}
} // namespace

size_t CProxyHeader::Feed(const unsigned char* data, size_t length)
{
    size_t taken = 0;
    while (taken < length && m_state == EState::Incomplete) {
        const unsigned char byte = data[taken++];
        if (m_count < sizeof(m_bytes))
            m_bytes[m_count] = byte;
        ++m_count;
        m_state = m_bytes[0] == SIGNATURE[0] ? BinaryByte() : TextByte(byte);
    }
    return taken;
}

CProxyHeader::EState CProxyHeader::Take(int socket)
{
    unsigned char bytes[512];
    while (m_state == EState::Incomplete) {
        const ssize_t peeked = recv(socket, bytes, sizeof(bytes), MSG_PEEK);
        if (peeked < 0 && errno == EINTR)
            continue;
        if (peeked < 0 && CSocketUtils::IsWouldBlock(errno))
            break;
        if (peeked <= 0) {
            m_state = EState::Malformed;
            break;
        }
        const size_t taken = Feed(bytes, static_cast<size_t>(peeked));
        // The same bytes again, now off the socket: only this thread reads it.
        if (recv(socket, bytes, taken, 0) != static_cast<ssize_t>(taken))
            m_state = EState::Malformed;
    }
    return m_state;
}

CProxyHeader::EState CProxyHeader::TextByte(unsigned char byte)
{
    const size_t at = m_count - 1;
    if (at < TEXT_PREFIX_LENGTH)
        return byte == static_cast<unsigned char>(TEXT_PREFIX[at]) ? EState::Incomplete : EState::Malformed;
    // CR only right before the LF that ends the line, and that LF only right after it.
    const bool afterCR = m_bytes[at - 1] == '\r';
    if (byte == '\n')
        return afterCR && ParseLine() ? EState::Done : EState::Malformed;
    return afterCR || m_count == TEXT_MAX ? EState::Malformed : EState::Incomplete;
}

bool CProxyHeader::ParseLine()
{
    // The line without its CRLF, cut into the fields between single spaces (an empty field is a
    // double space, which no field accepts).
    const size_t length = m_count - 2;
    if (std::memchr(m_bytes, '\0', length))
        return false;
    char line[TEXT_MAX];
    std::memcpy(line, m_bytes, length);
    line[length] = '\0';
    char* fields[7] = {};
    size_t count = 0;
    for (char* field = line; field && count < 7; ++count) {
        fields[count] = field;
        field = std::strchr(field, ' ');
        if (field)
            *field++ = '\0';
    }
    if (count < 2)
        return false;
    if (std::strcmp(fields[1], "UNKNOWN") == 0)
        return true; // the rest of the line is to be ignored, and the peer stands
    const int family = std::strcmp(fields[1], "TCP4") == 0 ? AF_INET
                       : std::strcmp(fields[1], "TCP6") == 0 ? AF_INET6
                                                             : AF_UNSPEC;
    unsigned char source[16];
    unsigned char destination[16];
    uint16_t sourcePort = 0;
    uint16_t destinationPort = 0;
    if (count != 6 || family == AF_UNSPEC || !ParseAddress(family, fields[2], source) ||
        !ParseAddress(family, fields[3], destination) || !ParsePort(fields[4], sourcePort) ||
        !ParsePort(fields[5], destinationPort))
        return false;
    SetAddress(m_client, family, source, sourcePort);
    return true;
}

CProxyHeader::EState CProxyHeader::BinaryByte()
{
    const size_t at = m_count - 1;
    if (at < sizeof(SIGNATURE))
        return m_bytes[at] == SIGNATURE[at] ? EState::Incomplete : EState::Malformed;
    if (at == 12) // version 2, LOCAL or PROXY
        return m_bytes[12] == 0x20 || m_bytes[12] == 0x21 ? EState::Incomplete : EState::Malformed;
    if (at == 13) // unspecified, IPv4, IPv6 or UNIX; over an unspecified transport, a stream or datagrams
        return (m_bytes[13] >> 4) <= 3 && (m_bytes[13] & 0x0F) <= 2 ? EState::Incomplete : EState::Malformed;
    if (at < BINARY_FIXED - 1)
        return EState::Incomplete;
    const size_t blockLength = (static_cast<size_t>(m_bytes[14]) << 8) | m_bytes[15];
    if (blockLength < NamedAddressSize(m_bytes))
        return EState::Malformed;
    if (m_count < BINARY_FIXED + blockLength)
        return EState::Incomplete; // TLVs and padding after the addresses are skipped
    ParseAddressBlock();
    return EState::Done;
}

void CProxyHeader::ParseAddressBlock()
{
    const unsigned char* block = m_bytes + BINARY_FIXED;
    const size_t size = NamedAddressSize(m_bytes);
    if (size == 0)
        return;
    const size_t addressSize = size == 12 ? 4 : 16;
    const unsigned char* port = block + 2 * addressSize;
    SetAddress(m_client, size == 12 ? AF_INET : AF_INET6, block, static_cast<uint16_t>((port[0] << 8) | port[1]));
}

} // namespace Proxy
} // namespace ZRT
