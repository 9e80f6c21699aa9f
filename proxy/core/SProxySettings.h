#pragma once

namespace ZRT {
namespace Proxy {

// Settings of one proxy that its connections and handlers read; fixed while the proxy runs.
struct SProxySettings {
    // How long a SOCKS5 BIND waits for its peer before it gives up (REP 1).
    int bindWaitMs = 120000;
    // How long a handler waits for a name lookup before it treats the name as unresolvable.
    int lookupLimitMs = 30000;
    // How long opening a host link may take before it counts as failed.
    int connectTimeoutMs = 10000;
};

} // namespace Proxy
} // namespace ZRT
