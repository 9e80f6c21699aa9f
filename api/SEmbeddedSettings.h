#pragma once

#include <sys/socket.h>

#include <string>

#include "host/SDirectHostSettings.h"
#include "proxy/core/SProxySettings.h"

namespace ZRT {
namespace Api {

// Every setting of a proxy run through the C interface: what the options table writes and
// CEmbeddedProxy reads at start.
struct SEmbeddedSettings {
    static constexpr int DEFAULT_PORT = 1080;

    std::string listen = "127.0.0.1";
    int port = DEFAULT_PORT;
    // A burst of clients must not overflow the listen queue (a refused SYN costs a client 1 s).
    int listenBacklog = SOMAXCONN;
    Proxy::SProxySettings proxy;
    Host::SDirectHostSettings host;
};

} // namespace Api
} // namespace ZRT
