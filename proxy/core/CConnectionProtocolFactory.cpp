#include "proxy/core/CConnectionProtocolFactory.h"

#include "proxy/httpproxy/CConnectionProtocol_HTTP.h"
#include "proxy/socks5/CConnectionProtocol_SOCKS5.h"

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
    if (static_cast<unsigned char>(data[0]) == SOCKS5_VERSION)
        return new CConnectionProtocol_SOCKS5(connection);
    return new CConnectionProtocol_HTTP(connection);
}

} // namespace Proxy
} // namespace ZRT
