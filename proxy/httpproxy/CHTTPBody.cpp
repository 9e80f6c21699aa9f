#include "proxy/httpproxy/CHTTPBody.h"

#include <algorithm>

namespace ZRT {
namespace Proxy {

using EBody = CHTTPFraming::EBody;

void CHTTPBody::Begin(EBody kind, uint64_t length, bool dataOnly)
{
    m_kind = kind;
    m_left = kind == EBody::Length ? length : 0;
    m_dataOnly = dataOnly;
    m_chunked.Reset();
}

bool CHTTPBody::IsDone() const
{
    switch (m_kind) {
    case EBody::None:
        return true;
    case EBody::Length:
        return m_left == 0;
    case EBody::Chunked:
        return m_chunked.IsDone();
    case EBody::UntilClose:
        return false;
    }
    return true;
}

uint64_t CHTTPBody::GetRelayAllowance() const
{
    switch (m_kind) {
    case EBody::None:
        return 0;
    case EBody::Length:
        return m_left;
    case EBody::Chunked:
        return m_chunked.GetDataLeft();
    case EBody::UntilClose:
        return ~0ull;
    }
    return 0;
}

void CHTTPBody::Relayed(uint64_t count)
{
    if (m_kind == EBody::Length)
        m_left -= std::min(count, m_left);
    else if (m_kind == EBody::Chunked)
        m_chunked.SkipData(count);
}

bool CHTTPBody::Relay(const char* data, size_t length, size_t& taken, const Send& send)
{
    taken = 0;
    switch (m_kind) {
    case EBody::None:
        return true;
    case EBody::Length:
        taken = static_cast<size_t>(std::min<uint64_t>(length, m_left));
        m_left -= taken;
        break;
    case EBody::UntilClose:
        taken = length;
        break;
    case EBody::Chunked:
        return RelayChunked(data, length, taken, send);
    }
    if (taken > 0)
        send(data, taken);
    return true;
}

bool CHTTPBody::RelayChunked(const char* data, size_t length, size_t& taken, const Send& send)
{
    const auto* bytes = reinterpret_cast<const unsigned char*>(data);
    size_t pending = 0; // bytes not sent yet, from `taken - pending`
    while (taken < length && !m_chunked.IsDone() && !m_chunked.IsFailed()) {
        const CChunkedBody::SRun run = m_chunked.Next(bytes + taken, length - taken);
        if (run.length == 0)
            break;
        const bool sent = !m_dataOnly || run.part == CChunkedBody::EPart::Data;
        if (!sent && pending > 0) {
            send(data + taken - pending, pending);
            pending = 0;
        }
        taken += run.length;
        pending = sent ? pending + run.length : 0;
    }
    if (pending > 0)
        send(data + taken - pending, pending);
    return !m_chunked.IsFailed();
}

} // namespace Proxy
} // namespace ZRT
