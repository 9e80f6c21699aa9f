#include "proxy/core/CConnectionProtocolFactory.h"

// Until both handlers are in the tree, a missing one yields no handler (tests install their own).
#if __has_include("proxy/socks5/CConnectionProtocol_SOCKS5.h") && __has_include("proxy/socks5/CConnectionProtocol_SOCKS5.cpp")
#include "proxy/socks5/CConnectionProtocol_SOCKS5.h"
#define ZRT_HAVE_SOCKS5_HANDLER 1
#endif
#if __has_include("proxy/httpproxy/CConnectionProtocol_HTTP.h") && __has_include("proxy/httpproxy/CConnectionProtocol_HTTP.cpp")
#include "proxy/httpproxy/CConnectionProtocol_HTTP.h"
#define ZRT_HAVE_HTTP_HANDLER 1
#endif

namespace ZRT {
namespace Proxy {

namespace {
// Every SOCKS version 5 client opens with its version byte.
constexpr unsigned char SOCKS5_VERSION = 5;
}

CConnectionProtocolFactory* CConnectionProtocolFactory::GetInstance()
{
    static CConnectionProtocolFactory instance;
    return &instance;
}

IConnectionProtocol* CConnectionProtocolFactory::CreateProtocol(IProxyConnection& connection, const char* data,
                                                                int length)
{
    if (!data || length <= 0)
        return nullptr;
    Creator creator;
    {
        std::lock_guard<std::mutex> hold(m_testMutex);
        creator = m_testCreator;
    }
    if (creator)
        return creator(connection, data, length);
    return CreateBuiltIn(connection, data);
}

IConnectionProtocol* CConnectionProtocolFactory::CreateBuiltIn(IProxyConnection& connection, const char* data)
{
    if (static_cast<unsigned char>(data[0]) == SOCKS5_VERSION) {
#ifdef ZRT_HAVE_SOCKS5_HANDLER
        return new CConnectionProtocol_SOCKS5(connection);
#else
        return nullptr;
#endif
    }
#ifdef ZRT_HAVE_HTTP_HANDLER
    return new CConnectionProtocol_HTTP(connection);
#else
    (void)connection;
    return nullptr;
#endif
}

void CConnectionProtocolFactory::SetCreatorForTesting(Creator creator)
{
    std::lock_guard<std::mutex> hold(m_testMutex);
    m_testCreator = std::move(creator);
}

} // namespace Proxy
} // namespace ZRT
