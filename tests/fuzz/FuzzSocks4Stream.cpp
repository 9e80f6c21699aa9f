// An arbitrary client stream to the SOCKS4/4A handler over fake host services. The first byte
// picks whether the proxy has users (and lets SOCKS4 in anyway), whether a BIND can listen and a
// host answers, and whether a BIND peer connects or a timer fires; crashes, leaks and sanitizer
// reports are the findings.
#include <cstddef>
#include <cstdint>

#include "SocksStreamDriver.h"
#include "proxy/socks4/CConnectionProtocol_SOCKS4.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 3)
        return 0;
    const uint8_t flags = data[0];
    ZRT::Testing::FakeProxyConnection connection;
    if (flags & 1)
        connection.Settings().users = {{"alice", "pw"}};
    connection.Settings().socks4WithUsers = (flags & 128) != 0;
    FuzzDriver::Drive<ZRT::Proxy::CConnectionProtocol_SOCKS4>(connection, flags, data[1], data + 2, size - 2);
    return 0;
}
