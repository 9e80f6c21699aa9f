// Follows arbitrary bytes as a chunked body: whole, in pieces at sizes taken from the input, and
// in pieces with the data of each chunk skipped unseen. Every way must label each byte alike
// (framing or data) and stop at the same byte, done or failed.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "proxy/http/CChunkedBody.h"

using ZRT::Proxy::CChunkedBody;

namespace {

void Check(bool condition)
{
    if (!condition)
        std::abort();
}

// 'F' per framing byte, 'D' per data byte, then '.' done, '!' failed or '?' wanting more.
std::string Follow(const uint8_t* data, size_t size, const uint8_t* seeds, size_t seedCount, bool skipData)
{
    CChunkedBody body;
    std::string parts;
    size_t at = 0;
    for (size_t i = 0; at < size && !body.IsDone() && !body.IsFailed(); ++i) {
        const size_t piece = seedCount ? (seeds[i % seedCount] % 61) + 1 : size;
        const size_t end = piece < size - at ? at + piece : size;
        std::vector<unsigned char> copy(data + at, data + end); // exact size: ASan sees overreads
        size_t pos = 0;
        while (pos < copy.size() && !body.IsDone() && !body.IsFailed()) {
            const uint64_t left = body.GetDataLeft();
            if (skipData && left > 0) {
                const size_t skip = left < copy.size() - pos ? static_cast<size_t>(left) : copy.size() - pos;
                body.SkipData(skip);
                parts.append(skip, 'D');
                pos += skip;
                continue;
            }
            const CChunkedBody::SRun run = body.Next(copy.data() + pos, copy.size() - pos);
            Check(run.length <= copy.size() - pos);
            Check(run.length > 0 || body.IsFailed());
            parts.append(run.length, run.part == CChunkedBody::EPart::Data ? 'D' : 'F');
            pos += run.length;
        }
        at += pos;
    }
    parts += body.IsDone() ? '.' : body.IsFailed() ? '!' : '?';
    return parts;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 4)
        return 0;
    const uint8_t* seeds = data;
    data += 4;
    size -= 4;
    const std::string whole = Follow(data, size, nullptr, 0, false);
    Check(Follow(data, size, seeds, 4, false) == whole);
    Check(Follow(data, size, seeds, 4, true) == whole);
    Check(Follow(data, size, seeds, 1, true) == whole);
    // Once done, the last framing bytes were the CRLF of the empty line.
    if (whole.back() == '.')
        Check(whole.size() >= 6 && data[whole.size() - 3] == '\r' && data[whole.size() - 2] == '\n');
    return 0;
}
