// The PROXY protocol header's parser: any bytes, fed whole or in pieces of a size the input
// chooses, end in the same state with the same bytes taken, never one past the header (a text
// line's 107 bytes, a binary header's 16 and its block's length); a client is named only by a
// finished header, as an IPv4 or IPv6 address; a settled parser takes nothing more.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "proxy/core/CProxyHeader.h"

using ZRT::Proxy::CProxyHeader;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    const size_t step = 1 + data[0] % 16;
    const std::vector<unsigned char> bytes(data + 1, data + size); // exact size: ASan sees overreads
    CProxyHeader whole;
    const size_t taken = whole.Feed(bytes.data(), bytes.size());
    CProxyHeader pieces;
    size_t takenInPieces = 0;
    for (size_t at = 0; at < bytes.size(); at += step)
        takenInPieces += pieces.Feed(bytes.data() + at, std::min(step, bytes.size() - at));
    const CProxyHeader::EState state = whole.GetState();
    if (takenInPieces != taken || pieces.GetState() != state || pieces.NamesClient() != whole.NamesClient())
        std::abort();
    if (taken > bytes.size() || (state == CProxyHeader::EState::Incomplete && taken != bytes.size()))
        std::abort();
    const bool binary = bytes[0] == '\r';
    if (!binary && taken > CProxyHeader::TEXT_MAX)
        std::abort();
    if (binary && state == CProxyHeader::EState::Done && taken != 16u + ((bytes[14] << 8) | bytes[15]))
        std::abort();
    const sockaddr_storage& client = whole.GetClient();
    if (whole.NamesClient() && ((client.ss_family != AF_INET && client.ss_family != AF_INET6) ||
                                std::memcmp(&client, &pieces.GetClient(), sizeof(client)) != 0))
        std::abort();
    if (state != CProxyHeader::EState::Incomplete && whole.Feed(bytes.data(), bytes.size()) != 0)
        std::abort();
    return 0;
}
