#pragma once

#include <sys/socket.h>

#include <map>
#include <string>
#include <vector>

#include "host/SDirectHostSettings.h"
#include "proxy/core/SProxySettings.h"

namespace ZRT {
namespace Api {

// Every setting of a proxy run through the C interface: what the options table writes and
// CEmbeddedProxy reads at start (and, for the live ones, at reload).
struct SEmbeddedSettings {
    static constexpr int DEFAULT_PORT = 1080;
    static constexpr const char* DEFAULT_LISTEN = "127.0.0.1";
    // Most listen addresses (CProxyServer::MAX_LISTEN_SOCKETS).
    static constexpr size_t MAX_LISTEN = 16;

    // Numeric addresses to listen on, one socket each; empty: DEFAULT_LISTEN.
    std::vector<std::string> listen;
    int port = DEFAULT_PORT;
    // A burst of clients must not overflow the listen queue (a refused SYN costs a client 1 s).
    int listenBacklog = SOMAXCONN;
    // proxy.users is made at start from the two sources below.
    Proxy::SProxySettings proxy;
    Host::SDirectHostSettings host;

    // Users given one by one (auth), and the file of more (auth-file, read at start and reload).
    std::map<std::string, std::string> users;
    std::string usersFile;
    // "auth none": no users, on purpose. A reload may drop every user only with it.
    bool authNone = false;
    // Where finished connections are logged: a file, "-" for standard output, "" for nowhere.
    std::string accessLog;
    // Lines above this level do not reach the log callback.
    int logLevel = 4; // ZRT_LOG_DEBUG: everything
    // The Prometheus listener: "" for none, else a numeric address and a port.
    std::string metricsAddress;
    int metricsPort = 0;
    // CIDR blocks of the scrapers let in; none for loopback only.
    std::vector<std::string> metricsAllow;

    std::vector<std::string> ListenAddresses() const
    {
        return listen.empty() ? std::vector<std::string>{DEFAULT_LISTEN} : listen;
    }
};

} // namespace Api
} // namespace ZRT
