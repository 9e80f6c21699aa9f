#include "proxy/core/CConnectionProtocolFactory.h"

#include "proxy/httpproxy/CConnectionProtocol_HTTP.h"
#include "proxy/socks4/CConnectionProtocol_SOCKS4.h"
#include "proxy/socks5/CConnectionProtocol_SOCKS5.h"

namespace ZRT {
namespace Proxy {

namespace {
// Every SOCKS client opens with its version byte.
constexpr unsigned char SOCKS4_VERSION = 4;
constexpr unsigned char SOCKS5_VERSION = 5;
} // namespace

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
    const auto version = static_cast<unsigned char>(data[0]);
    if (version == SOCKS5_VERSION)
        return new CConnectionProtocol_SOCKS5(connection);
    if (version == SOCKS4_VERSION)
        return new CConnectionProtocol_SOCKS4(connection);
    return new CConnectionProtocol_HTTP(connection);
}

} // namespace Proxy
} // namespace ZRT
