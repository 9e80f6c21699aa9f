// An arbitrary client stream to the SOCKS5 handler over fake host services. The first byte picks
// which services exist (datagrams, a BIND listener), whether a host answers or a BIND peer
// connects, and whether the connection terminates the handler inside DisconnectClient or after
// it; crashes, leaks and sanitizer reports are the findings.
#include <cstddef>
#include <cstdint>

#include "SocksStreamDriver.h"
#include "fakes/FakeDatagramHandler.h"
#include "proxy/socks5/CConnectionProtocol_SOCKS5.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 3)
        return 0;
    const uint8_t flags = data[0];
    ZRT::Testing::FakeProxyConnection connection;
    ZRT::Testing::FakeDatagramHandler datagrams;
    if (flags & 1)
        connection.SetDatagramHandler(&datagrams);
    connection.SetTerminatesLater((flags & 128) != 0);
    FuzzDriver::Drive<ZRT::Proxy::CConnectionProtocol_SOCKS5>(connection, flags, data[1], data + 2, size - 2);
    return 0;
}
