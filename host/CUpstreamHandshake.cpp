#include "host/CUpstreamHandshake.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "transport/CSocketUtils.h"

namespace ZRT {
namespace Host {

namespace {
constexpr unsigned char SOCKS_VERSION = 5;
constexpr unsigned char METHOD_NONE = 0;
constexpr unsigned char METHOD_LOGIN = 2;
constexpr unsigned char LOGIN_VERSION = 1;

std::string Base64(const std::string& text)
{
    static const char DIGITS[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string encoded;
    for (size_t i = 0; i < text.size(); i += 3) {
        const size_t left = text.size() - i;
        uint32_t group = static_cast<uint32_t>(static_cast<unsigned char>(text[i])) << 16;
        if (left > 1)
            group |= static_cast<uint32_t>(static_cast<unsigned char>(text[i + 1])) << 8;
        if (left > 2)
            group |= static_cast<unsigned char>(text[i + 2]);
        encoded += DIGITS[(group >> 18) & 63];
        encoded += DIGITS[(group >> 12) & 63];
        encoded += left > 1 ? DIGITS[(group >> 6) & 63] : '=';
        encoded += left > 2 ? DIGITS[group & 63] : '=';
    }
    return encoded;
}

// The errno value a SOCKS5 refusal stands for (RFC 1928's reply field).
int FailureOfSocksReply(unsigned char reply)
{
    switch (reply) {
    case 2:
        return EACCES; // not allowed by the upstream's rules
    case 3:
        return ENETUNREACH;
    case 4:
        return EHOSTUNREACH;
    case 6:
        return ETIMEDOUT;
    default:
        return ECONNREFUSED;
    }
}

int FailureOfHttpStatus(int status)
{
    if (status == 403 || status == 407)
        return EACCES;
    return status == 504 ? ETIMEDOUT : ECONNREFUSED;
}

uint16_t PortOf(const sockaddr_storage& address)
{
    return address.ss_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6&>(address).sin6_port
                                         : reinterpret_cast<const sockaddr_in&>(address).sin_port;
}
} // namespace

CUpstreamHandshake::CUpstreamHandshake(const CUpstreamRoute& route, const sockaddr_storage& destination,
                                       const std::string& name, ECommand command)
    : m_protocol(route.GetProtocol()), m_user(route.GetUser()), m_password(route.GetPassword()),
      m_destination(destination), m_name(name), m_command(command), m_step(EStep::Method)
{
    if (m_protocol == CUpstreamRoute::EProtocol::Http) {
        QueueHttpConnect();
        return;
    }
    // No login, and user/password too when there are credentials: the upstream chooses.
    m_output = m_user.empty() ? std::string{char(SOCKS_VERSION), 1, char(METHOD_NONE)}
                              : std::string{char(SOCKS_VERSION), 2, char(METHOD_NONE), char(METHOD_LOGIN)};
}

short CUpstreamHandshake::Run(int socket)
{
    unsigned char buffer[HEAD_LIMIT];
    for (;;) {
        if (m_step == EStep::Done || m_step == EStep::Failed)
            return 0;
        if (!Flush(socket))
            return m_step == EStep::Failed ? 0 : POLLOUT;
        const size_t room = m_protocol == CUpstreamRoute::EProtocol::Http ? HEAD_LIMIT - m_input.size()
                                                                          : ReplyLength() - m_input.size();
        const ssize_t count = recv(socket, buffer, room, MSG_PEEK);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0 && CSocketUtils::IsWouldBlock(errno))
            return POLLIN;
        if (count <= 0) {
            Fail(count == 0 ? ECONNRESET : errno); // the upstream went without an answer
            continue;
        }
        // Only the reply's bytes leave the socket.
        const size_t taken = Take(buffer, static_cast<size_t>(count));
        if (taken > 0 && recv(socket, buffer, taken, 0) != static_cast<ssize_t>(taken))
            Fail(EIO);
    }
}

bool CUpstreamHandshake::Flush(int socket)
{
    if (m_sent == m_output.size())
        return true;
    const ssize_t sent = CSocketUtils::SendSome(socket, m_output.data() + m_sent, m_output.size() - m_sent);
    if (sent < 0) {
        Fail(errno);
        return false;
    }
    m_sent += static_cast<size_t>(sent);
    return m_sent == m_output.size();
}

size_t CUpstreamHandshake::Take(const unsigned char* data, size_t size)
{
    if (m_protocol == CUpstreamRoute::EProtocol::Http)
        return TakeHead(data, size);
    const size_t length = ReplyLength();
    const size_t taken = std::min(size, length - m_input.size());
    m_input.append(reinterpret_cast<const char*>(data), taken);
    // A refusal is a refusal however much of its reply follows (some upstreams close at once).
    const bool refused = m_step == EStep::Connect && m_input.size() >= 2 && m_input[1] != 0;
    if (refused || m_input.size() == ReplyLength())
        OnReply();
    return taken;
}

size_t CUpstreamHandshake::TakeHead(const unsigned char* data, size_t size)
{
    const size_t before = m_input.size();
    m_input.append(reinterpret_cast<const char*>(data), size);
    const size_t end = m_input.find("\r\n\r\n", before >= 3 ? before - 3 : 0);
    if (end == std::string::npos) {
        if (m_input.size() >= HEAD_LIMIT)
            Fail(EPROTO);
        return size;
    }
    m_input.resize(end + 4);
    OnReply();
    return end + 4 - before;
}

size_t CUpstreamHandshake::ReplyLength() const
{
    if (m_step != EStep::Connect || m_input.size() < 5)
        return m_step == EStep::Connect ? 5 : 2;
    // VER REP RSV ATYP, the bound address (by its type) and port.
    switch (static_cast<unsigned char>(m_input[3])) {
    case 1:
        return 4 + 4 + 2;
    case 4:
        return 4 + 16 + 2;
    case 3:
        return 4 + 1 + static_cast<unsigned char>(m_input[4]) + 2;
    default:
        return m_input.size(); // no such type: taken as whole, and refused
    }
}

void CUpstreamHandshake::OnReply()
{
    switch (m_step) {
    case EStep::Method:
        OnMethod();
        break;
    case EStep::Login:
        // RFC 1929: any status but 0 refuses.
        if (m_input[1] != 0)
            Fail(EACCES);
        else
            QueueSocksConnect();
        break;
    case EStep::Connect:
        if (m_protocol == CUpstreamRoute::EProtocol::Http)
            OnHttpConnect();
        else
            OnSocksConnect();
        break;
    case EStep::Done:
    case EStep::Failed:
        break;
    }
    m_input.clear();
}

void CUpstreamHandshake::OnMethod()
{
    const auto method = static_cast<unsigned char>(m_input[1]);
    if (m_input[0] != SOCKS_VERSION) {
        Fail(EPROTO);
    } else if (method == METHOD_NONE) {
        QueueSocksConnect();
    } else if (method == METHOD_LOGIN && !m_user.empty()) {
        m_output = char(LOGIN_VERSION) + std::string(1, char(m_user.size())) + m_user +
                   std::string(1, char(m_password.size())) + m_password;
        m_sent = 0;
        m_step = EStep::Login;
    } else {
        Fail(EACCES); // it wants a login we do not have (X'FF'), or one we do not speak
    }
}

void CUpstreamHandshake::OnSocksConnect()
{
    // A reply shorter than the shortest whole one named a bound address of no known type.
    if (m_input[0] != SOCKS_VERSION || (m_input[1] == 0 && m_input.size() < 10))
        Fail(EPROTO);
    else if (m_input[1] != 0)
        Fail(FailureOfSocksReply(static_cast<unsigned char>(m_input[1])));
    else
        TakeBound();
}

void CUpstreamHandshake::TakeBound()
{
    m_step = EStep::Done;
    m_bound = sockaddr_storage{};
    const auto* block = reinterpret_cast<const unsigned char*>(m_input.data()) + 4;
    if (m_input[3] == 1) {
        auto& v4 = reinterpret_cast<sockaddr_in&>(m_bound);
        v4.sin_family = AF_INET;
        std::memcpy(&v4.sin_addr, block, 4);
        std::memcpy(&v4.sin_port, block + 4, 2);
    } else if (m_input[3] == 4) {
        auto& v6 = reinterpret_cast<sockaddr_in6&>(m_bound);
        v6.sin6_family = AF_INET6;
        std::memcpy(&v6.sin6_addr, block, 16);
        std::memcpy(&v6.sin6_port, block + 16, 2);
    }
}

void CUpstreamHandshake::OnHttpConnect()
{
    // "HTTP/1.x SSS ...": any 2xx opens the tunnel.
    const std::string& head = m_input;
    if (head.compare(0, 7, "HTTP/1.") != 0 || head.size() < 12 || head[8] != ' ' ||
        !std::all_of(head.begin() + 9, head.begin() + 12, [](char c) { return c >= '0' && c <= '9'; })) {
        Fail(EPROTO);
        return;
    }
    const int status = std::stoi(head.substr(9, 3));
    if (status / 100 == 2)
        m_step = EStep::Done;
    else
        Fail(FailureOfHttpStatus(status));
}

void CUpstreamHandshake::QueueSocksConnect()
{
    std::string request{char(SOCKS_VERSION), char(m_command), 0};
    if (!m_name.empty()) {
        if (m_name.size() > 255) {
            Fail(EHOSTUNREACH); // no SOCKS5 request can carry it
            return;
        }
        request += char(3);
        request += char(m_name.size());
        request += m_name;
    } else if (m_destination.ss_family == AF_INET6) {
        request += char(4);
        const auto& address = reinterpret_cast<const sockaddr_in6&>(m_destination).sin6_addr;
        request.append(reinterpret_cast<const char*>(&address), 16);
    } else {
        request += char(1);
        const auto& address = reinterpret_cast<const sockaddr_in&>(m_destination).sin_addr;
        request.append(reinterpret_cast<const char*>(&address), 4);
    }
    const uint16_t port = PortOf(m_destination); // network order already
    request.append(reinterpret_cast<const char*>(&port), 2);
    m_output = request;
    m_sent = 0;
    m_step = EStep::Connect;
}

void CUpstreamHandshake::QueueHttpConnect()
{
    char text[INET6_ADDRSTRLEN] = {};
    const bool v6 = m_destination.ss_family == AF_INET6;
    const void* address = v6 ? static_cast<const void*>(&reinterpret_cast<const sockaddr_in6&>(m_destination).sin6_addr)
                             : static_cast<const void*>(&reinterpret_cast<const sockaddr_in&>(m_destination).sin_addr);
    inet_ntop(v6 ? AF_INET6 : AF_INET, address, text, sizeof(text));
    const std::string target =
        CSocketUtils::FormatEndpoint(m_name.empty() ? std::string(text) : m_name, ntohs(PortOf(m_destination)));
    m_output = "CONNECT " + target + " HTTP/1.1\r\nHost: " + target + "\r\n";
    if (!m_user.empty())
        m_output += "Proxy-Authorization: Basic " + Base64(m_user + ":" + m_password) + "\r\n";
    m_output += "\r\n";
    m_sent = 0;
    m_step = EStep::Connect;
}

void CUpstreamHandshake::Fail(int error)
{
    m_step = EStep::Failed;
    m_failure = error != 0 ? error : EIO;
}

} // namespace Host
} // namespace ZRT
