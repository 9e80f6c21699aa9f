#include "proxy/core/CConnectionRecord.h"

namespace ZRT {
namespace Proxy {

namespace {
// The counter of a refusal, or COUNTER_COUNT for outcomes counted elsewhere (or not at all).
CProxyStats::ECounter RefusalCounter(EOutcome outcome)
{
    switch (outcome) {
    case EOutcome::BadRequest:
        return CProxyStats::REFUSED_BAD_REQUEST;
    case EOutcome::NoDestination:
        return CProxyStats::REFUSED_NO_DESTINATION;
    case EOutcome::NotAllowed:
        return CProxyStats::REFUSED_NOT_ALLOWED;
    case EOutcome::Denied:
        return CProxyStats::REFUSED_DENIED;
    case EOutcome::Unreachable:
        return CProxyStats::REFUSED_UNREACHABLE;
    case EOutcome::AuthFailed:
        return CProxyStats::REFUSED_AUTH_FAILED;
    case EOutcome::Timeout:
        return CProxyStats::TIMED_OUT;
    case EOutcome::Ok:
    case EOutcome::OverLimit: // counted at accept
    case EOutcome::NoRequest:
        break;
    }
    return CProxyStats::COUNTER_COUNT;
}
} // namespace

void CConnectionRecord::SetOutcome(EOutcome outcome)
{
    if (m_outcomeSet)
        return;
    m_outcomeSet = true;
    m_outcome = outcome;
    const CProxyStats::ECounter counter = RefusalCounter(outcome);
    if (counter != CProxyStats::COUNTER_COUNT)
        m_stats.Add(counter);
}

void CConnectionRecord::SetTimedOut()
{
    m_outcomeSet = false;
    SetOutcome(EOutcome::Timeout);
}

void CConnectionRecord::CountToHost(uint64_t bytes)
{
    m_toHost.fetch_add(bytes, std::memory_order_relaxed);
    m_stats.Add(CProxyStats::BYTES_CLIENT_TO_HOST, bytes);
}

void CConnectionRecord::CountToClient(uint64_t bytes)
{
    m_toClient.fetch_add(bytes, std::memory_order_relaxed);
    m_stats.Add(CProxyStats::BYTES_HOST_TO_CLIENT, bytes);
}

void CConnectionRecord::SetFamily(const std::string& family)
{
    m_protocol = family.empty() ? "-" : family;
    if (family == "socks5")
        m_stats.Add(CProxyStats::SOCKS5_TOTAL);
    else if (family == "http")
        m_stats.Add(CProxyStats::HTTP_TOTAL);
    else if (family == "socks4")
        m_stats.Add(CProxyStats::SOCKS4_TOTAL);
}

void CConnectionRecord::Describe(const char* protocol, const std::string& destination)
{
    m_protocol = protocol && *protocol ? protocol : "-";
    m_destination = destination.empty() ? "-" : destination;
}

void CConnectionRecord::CountDatagram(bool toHost, uint64_t bytes)
{
    m_stats.Add(toHost ? CProxyStats::UDP_DATAGRAMS_CLIENT_TO_HOST : CProxyStats::UDP_DATAGRAMS_HOST_TO_CLIENT);
    if (toHost)
        CountToHost(bytes);
    else
        CountToClient(bytes);
}

SConnectionRecord CConnectionRecord::Make() const
{
    SConnectionRecord record;
    record.client = m_client;
    record.protocol = m_protocol;
    record.user = m_user;
    record.destination = m_destination;
    record.outcome = m_outcome;
    record.bytesClientToHost = m_toHost.load(std::memory_order_relaxed) - m_recordedToHost;
    record.bytesHostToClient = m_toClient.load(std::memory_order_relaxed) - m_recordedToClient;
    record.durationMs = static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - m_start).count());
    return record;
}

void CConnectionRecord::FinishRequest(const std::string& method, int status)
{
    SConnectionRecord record = Make();
    record.method = method.empty() ? "-" : method;
    record.status = status;
    if (!m_outcomeSet)
        record.outcome = EOutcome::Ok;
    ++m_requestsRecorded;
    m_recordedToHost += record.bytesClientToHost;
    m_recordedToClient += record.bytesHostToClient;
    m_start = Clock::now();
    m_outcomeSet = false;
    m_outcome = EOutcome::Ok;
    m_stats.Add(CProxyStats::HTTP_REQUESTS_TOTAL);
    if (m_observer)
        m_observer->OnRequestFinished(record);
}

void CConnectionRecord::Report(bool requestComplete)
{
    // A client that went before its request was whole was never served.
    if (!m_outcomeSet && !requestComplete)
        m_outcome = EOutcome::NoRequest;
    // Requests recorded on their own said it all, unless the last one failed unanswered.
    if (!m_observer || (m_requestsRecorded > 0 && !m_outcomeSet))
        return;
    m_observer->OnConnectionFinished(Make());
}

} // namespace Proxy
} // namespace ZRT
