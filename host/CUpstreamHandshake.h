#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "host/CUpstreamRoute.h"

namespace ZRT {
namespace Host {

// The client side of one upstream handshake on a connected, non-blocking socket: SOCKS5 (the
// method choice, the RFC 1929 login, CONNECT or UDP ASSOCIATE) or HTTP CONNECT, asking for the
// destination by its numeric address, or by the name given (SOCKS5's domain form). Each Run goes as far as the socket allows. It never takes a byte past the
// upstream's last reply (it peeks, then takes what belongs to the reply), so what the upstream
// sends right behind it stays in the socket, the first bytes of the stream. Bounded: requests
// and SOCKS5 replies are a few hundred bytes, an HTTP answer's head at most HEAD_LIMIT.
//
// Threads: one at a time (the transport loop that drives an upstream connect, or the caller of
// a blocking Connect).
class CUpstreamHandshake {
public:
    static constexpr size_t HEAD_LIMIT = 8192;

    // What the handshake waits for: the upstream's answer to what was (or is being) sent.
    enum class EStep {
        Method,  // SOCKS5: the greeting offers no login (and user/password with credentials)
        Login,   // SOCKS5: user and password were sent
        Connect, // the CONNECT request (SOCKS5 or HTTP) was sent
        Done,    // the upstream connected us: the socket carries the stream
        Failed   // GetFailure says why
    };

    enum class ECommand { Connect = 1, UdpAssociate = 3 };

    // name: non-empty for a destination the upstream resolves (destination then gives the port).
    // UdpAssociate: destination is where the datagrams will come from (SOCKS5 only).
    CUpstreamHandshake(const CUpstreamRoute& route, const sockaddr_storage& destination,
                       const std::string& name = std::string(), ECommand command = ECommand::Connect);

    // Moves the handshake on; returns what the socket must become for it to go on (POLLIN or
    // POLLOUT), or 0 once it is Done or Failed.
    short Run(int socket);
    EStep GetStep() const { return m_step; }
    // An errno value for a failed handshake: the upstream's refusal as its reply tells it
    // (ECONNREFUSED, ENETUNREACH, EHOSTUNREACH, ETIMEDOUT, EACCES for a login or a rule), EPROTO
    // for an answer that is not the protocol's, or the socket's error.
    int GetFailure() const { return m_failure; }
    // Once Done over SOCKS5: the address the upstream's reply names (for UDP ASSOCIATE, its relay;
    // AF_UNSPEC when it named one by name).
    const sockaddr_storage& GetBound() const { return m_bound; }

private:
    // Sends what is queued; false when the socket takes no more now (or failed).
    bool Flush(int socket);
    // Takes reply bytes (at most those of the reply under way) and acts on a whole reply; the
    // count taken.
    size_t Take(const unsigned char* data, size_t size);
    size_t TakeHead(const unsigned char* data, size_t size);
    // The length of the SOCKS5 reply under way as far as its first bytes tell.
    size_t ReplyLength() const;
    void OnReply();
    void OnMethod();
    void OnSocksConnect();
    void TakeBound();
    void OnHttpConnect();
    void QueueSocksConnect();
    void QueueHttpConnect();
    void Fail(int error);

    const CUpstreamRoute::EProtocol m_protocol;
    const std::string m_user;
    const std::string m_password;
    const sockaddr_storage m_destination;
    const std::string m_name;
    const ECommand m_command;
    sockaddr_storage m_bound{};
    EStep m_step;
    std::string m_output; // queued for the upstream, from m_sent on
    size_t m_sent = 0;
    std::string m_input; // the reply under way
    int m_failure = 0;
};

} // namespace Host
} // namespace ZRT
