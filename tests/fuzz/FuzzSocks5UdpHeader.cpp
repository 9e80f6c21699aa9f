// The SOCKS header of client datagrams: arbitrary bytes either are dropped or yield a destination
// and a payload offset inside the datagram that agrees with the header's own fields.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "fakes/FakeResolver.h"
#include "proxy/address/CAddressManager.h"
#include "proxy/socks5/CConnectionProtocol_SOCKS5.h"

using namespace ZRT;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static Testing::FakeResolver resolver; // numeric names resolve at once, others fail at once
    static const bool started = Proxy::CAddressManager::GetInstance()->Init(&resolver);
    (void)started;

    const std::vector<unsigned char> datagram(data, data + size); // exact size: ASan sees overreads
    unsigned int header = 0;
    auto destination = Proxy::CConnectionProtocol_SOCKS5::ParseUdpRequest(datagram.data(), datagram.size(), header);
    if (!destination)
        return 0;
    const unsigned char atyp = datagram[3];
    const unsigned int expected = atyp == 1 ? 10u : atyp == 4 ? 22u : 7u + datagram[4];
    if (datagram[0] != 0 || datagram[1] != 0 || header != expected || header > datagram.size())
        std::abort();
    const unsigned int port = (datagram[header - 2] << 8) | datagram[header - 1];
    if (destination->GetPortNumber() != port)
        std::abort();
    return 0;
}
