#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "proxy/core/IPasswordVerifier.h"

namespace ZRT {
namespace Proxy {

// Settings of one proxy that its connections and handlers read. Each connection keeps the
// settings that were current when it was accepted; a change while the proxy runs reaches the
// connections accepted afterwards.
struct SProxySettings {
    // How long a SOCKS BIND waits for its peer before it gives up (SOCKS5 REP 1, SOCKS4 91).
    int bindWaitMs = 120000;
    // How long a handler waits for a name lookup before it treats the name as unresolvable.
    int lookupLimitMs = 30000;
    // How long opening a host link may take before it counts as failed.
    int connectTimeoutMs = 10000;
    // Event threads that serve the clients, read at start; 0: half the CPUs (at least 1, at most 16).
    int eventThreads = 0;
    // Most threads asking a host whose connects may block at once (more wait in line), read at
    // start.
    int connectHelpers = 16;

    // Who may use the proxy, name -> password (or a hash the verifier below recognizes); empty:
    // nobody has to authenticate. When set, SOCKS5 clients must use username/password
    // authentication and HTTP clients must send Proxy-Authorization: Basic on their request.
    std::map<std::string, std::string> users;
    // Checks the users' entries that are hashes; null: every entry is the password itself.
    std::shared_ptr<const IPasswordVerifier> passwordVerifier;
    // SOCKS4 carries no password: while there are users, its clients are refused unless this is
    // set (then they are served without authentication).
    bool socks4WithUsers = false;
    // SOCKS5 replies say why a CONNECT failed: 4 a name that does not resolve or a host
    // unreachable, 3 a network unreachable, 5 refused, 6 a connect that took too long, 1 any other
    // failure. Off: 8 for a name that does not resolve and 5 for every failed connect.
    bool socks5PreciseReplies = false;
    // Client addresses allowed in, as CIDR blocks ("192.0.2.0/24", "2001:db8::/32", or one
    // address); empty: every client. Others are closed at accept, before a byte is read.
    std::vector<std::string> allow;
    // Load balancers that tell who their clients are with the PROXY protocol (version 1 or 2), as
    // CIDR blocks; empty: none. A client from these must start with such a header, and the client
    // it names is the connection's from then on (for the allow list, the per-source limit, logs
    // and handlers); the balancer itself is judged by max-clients alone. Elsewhere a header is
    // nothing special.
    std::vector<std::string> proxyProtocolFrom;
    // Most clients served at once; more are closed at accept. 0: no limit.
    int maxClients = 0;
    // Most clients from one address served at once, so that one address cannot take every
    // slot; more from it are closed at accept. 0: no limit.
    int maxClientsPerSource = 0;
    // A client that has not sent a complete request (SOCKS5 negotiation and command, or an HTTP
    // request header block) this long after it connected is closed. 0: no limit.
    int handshakeTimeoutMs = 0;
    // A connection that moved no byte either way this long is closed. 0: no limit.
    int idleTimeoutMs = 0;
    // HTTP clients: 0 serves one request per client connection (answered with
    // "Connection: close"); more keeps client connections open between requests for up to this
    // long, and idle origin connections as long, for the next request to the same destination.
    int httpKeepAliveMs = 0;
    // After the client has gone, what it sent is still written to a destination that reads it
    // for at most this long; then the link is closed. 0: no limit.
    int lingerTimeoutMs = 30000;

    // Destinations, as rules "CIDR[:PORT[-PORT]]" (IPv6 with a prefix, or in brackets, to carry
    // ports: "[::1]:80", "2001:db8::/32:443"), judged on the resolved address of every
    // destination (CONNECT, BIND peers, each UDP datagram, HTTP). A destination that a deny rule
    // matches is refused; with allow rules, one that no allow rule matches is refused too.
    std::vector<std::string> allowDestinations;
    std::vector<std::string> denyDestinations;
    // Ports of this machine that are never a destination, on any of its addresses, whatever the
    // rules say (the metrics listener's).
    std::vector<unsigned int> privatePorts;
};

} // namespace Proxy
} // namespace ZRT
