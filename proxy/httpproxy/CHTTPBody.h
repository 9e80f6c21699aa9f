#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "proxy/http/CChunkedBody.h"
#include "proxy/http/CHTTPFraming.h"
#include "runtime/Export.h"

namespace ZRT {
namespace Proxy {

// One message body as it passes the proxy, framed as its head said: it tells how many of the
// bytes that follow belong to it (what comes after is the next message's, or an error), hands them
// on unchanged (or, for an HTTP/1.0 peer, only a chunked body's data), and says when it is over.
// The connection's fast path may move up to GetRelayAllowance bytes without it, then reports
// them with Relayed.
//
// Used on the connection's thread only.
class ZRT_EXPORT CHTTPBody {
public:
    using Send = std::function<void(const char* data, size_t length)>;

    // dataOnly: a chunked body is passed on without its framing (the receiver then knows its end
    // by the connection's close).
    void Begin(CHTTPFraming::EBody kind, uint64_t length, bool dataOnly = false);
    // The body's bytes at the front of data[0, length) go to send; taken says how many belong to
    // the body. False for a chunked body whose framing is malformed.
    bool Relay(const char* data, size_t length, size_t& taken, const Send& send);
    bool IsDone() const;
    bool RunsUntilClose() const { return m_kind == CHTTPFraming::EBody::UntilClose; }
    bool IsChunked() const { return m_kind == CHTTPFraming::EBody::Chunked; }
    // Bytes that may go on unchanged without being looked at: the rest of a length, of a chunk's
    // data, or every byte of a body that runs until the close.
    uint64_t GetRelayAllowance() const;
    void Relayed(uint64_t count);

private:
    bool RelayChunked(const char* data, size_t length, size_t& taken, const Send& send);

    CHTTPFraming::EBody m_kind = CHTTPFraming::EBody::None;
    uint64_t m_left = 0;
    bool m_dataOnly = false;
    CChunkedBody m_chunked;
};

} // namespace Proxy
} // namespace ZRT
