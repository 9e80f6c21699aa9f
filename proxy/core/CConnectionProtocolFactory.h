#pragma once

#include <functional>
#include <mutex>

#include "proxy/core/IConnectionProtocol.h"
#include "proxy/core/IProxyConnection.h"
#include "runtime/Export.h"

namespace ZRT {
namespace Proxy {

// Picks the protocol handler for a new client from the first byte it sent: 5 (the SOCKS
// version 5 greeting) gives the SOCKS5 handler, anything else the HTTP proxy handler.
// A process-wide singleton; CreateProtocol keeps no state and is called from many threads.
class ZRT_EXPORT CConnectionProtocolFactory {
public:
    using Creator = std::function<IConnectionProtocol*(IProxyConnection& connection, const char* data, int length)>;

    static CConnectionProtocolFactory* GetInstance();

    // A new handler owned by the caller, or null for an empty first chunk.
    IConnectionProtocol* CreateProtocol(IProxyConnection& connection, const char* data, int length);

    // For tests only: replaces the built-in choice with creator (called for non-empty chunks only);
    // an empty creator restores the built-in choice.
    void SetCreatorForTesting(Creator creator);

private:
    CConnectionProtocolFactory() = default;
    static IConnectionProtocol* CreateBuiltIn(IProxyConnection& connection, const char* data);

    std::mutex m_testMutex;
    Creator m_testCreator;
};

} // namespace Proxy
} // namespace ZRT
