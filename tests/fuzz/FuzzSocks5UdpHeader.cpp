// The SOCKS header of client datagrams: arbitrary bytes either are dropped or yield a payload
// offset inside the datagram that agrees with the header's own fields, and a numeric address
// whose port is the header's.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include <string>

#include "proxy/socks5/CSocks5UdpRelay.h"
#include "proxy/socks5/CSocksAddress.h"

using namespace ZRT;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::vector<unsigned char> datagram(data, data + size); // exact size: ASan sees overreads
    unsigned int header = 0;
    if (!Proxy::CSocks5UdpRelay::ParseHeader(datagram.data(), datagram.size(), header))
        return 0;
    const unsigned char atyp = datagram[3];
    const unsigned int expected = atyp == 1 ? 10u : atyp == 4 ? 22u : 7u + datagram[4];
    if (datagram[0] != 0 || datagram[1] != 0 || header != expected || header > datagram.size())
        std::abort();
    if (atyp == 3) {
        const std::string key = Proxy::CSocksAddress::DomainKey(datagram.data() + 3);
        if (key.size() != datagram[4] + 1 + std::to_string((datagram[header - 2] << 8) | datagram[header - 1]).size())
            std::abort();
        return 0;
    }
    const auto destination = Proxy::CSocksAddress::DecodeNumeric(datagram.data() + 3);
    const unsigned int port = (datagram[header - 2] << 8) | datagram[header - 1];
    if (!destination || destination->GetPortNumber() != port)
        std::abort();
    return 0;
}
