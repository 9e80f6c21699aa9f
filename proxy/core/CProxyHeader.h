#pragma once

#include <sys/socket.h>

#include <cstddef>

namespace ZRT {
namespace Proxy {

// The PROXY protocol header a load balancer puts before its client's bytes, to say who the client
// is: version 1 (a text line, "PROXY TCP4 SRC DST SPORT DPORT\r\n", at most 107 bytes) or version
// 2 (binary: 16 bytes, then an address block of up to 65,535 bytes, whose TLVs are skipped).
// Bytes may come in any pieces; the parser takes them one by one up to the header's last byte and
// never one past it, so what follows stays for the protocol handler. Its only memory is a fixed
// buffer: the text line, or the start of a binary header (its addresses; the rest is counted).
//
// Threads: one at a time (a connection's thread).
class CProxyHeader {
public:
    enum class EState { Incomplete, Done, Malformed };

    static constexpr size_t TEXT_MAX = 107;   // a version 1 line with its CRLF
    static constexpr size_t BINARY_FIXED = 16; // version 2 before its address block

    // Takes the bytes that belong to the header (every one while it is incomplete); the count taken.
    size_t Feed(const unsigned char* data, size_t length);
    // Reads the header from a non-blocking socket, taking nothing past it: bytes are peeked at,
    // and only those the parser took are read. An end or a failure of the socket is Malformed.
    EState Take(int socket);
    EState GetState() const { return m_state; }

    // Done: whether the header names the client (PROXY over TCP/UDP on IPv4 or IPv6; not LOCAL,
    // UNKNOWN, unspecified or UNIX, after which the connection's own peer stands), and its address.
    bool NamesClient() const { return m_state == EState::Done && m_client.ss_family != AF_UNSPEC; }
    const sockaddr_storage& GetClient() const { return m_client; }

private:
    EState TextByte(unsigned char byte);
    EState BinaryByte();
    bool ParseLine();
    void ParseAddressBlock();

    EState m_state = EState::Incomplete;
    // The header's bytes so far: all of a text line, the binary part's first bytes.
    unsigned char m_bytes[TEXT_MAX] = {};
    size_t m_count = 0; // bytes taken
    sockaddr_storage m_client{};
};

} // namespace Proxy
} // namespace ZRT
