#pragma once

#include <atomic>
#include <chrono>
#include <string>

#include "proxy/core/CProxyStats.h"
#include "proxy/core/IProxyObserver.h"

namespace ZRT {
namespace Proxy {

// What one connection served, for the proxy's counters and its observer: the protocol, the user,
// the destination, the outcome, the bytes each way, and one record per answered request of a
// persistent HTTP connection. Every operation runs on the connection's thread, except the byte
// counts, which a handler's datagram relay may add on a host's thread.
class CConnectionRecord {
public:
    using Clock = std::chrono::steady_clock;

    CConnectionRecord(CProxyStats& stats, IProxyObserver* observer) : m_stats(stats), m_observer(observer) {}

    void SetClient(const std::string& client) { m_client = client; }
    // The handler's protocol family, counted; the record names it until the handler says more.
    void SetFamily(const std::string& family);
    // What the handler serves (connect, udp, bind, ...) and where to, as the client named it.
    void Describe(const char* protocol, const std::string& destination);
    void SetUser(const std::string& user) { m_user = user.empty() ? "-" : user; }
    // The first judgement stands; each refusal is counted once.
    void SetOutcome(EOutcome outcome);
    // A served exchange that fell silent ends as a time-out, whatever was judged before.
    void SetTimedOut();

    void CountToHost(uint64_t bytes);
    void CountToClient(uint64_t bytes);
    // A datagram relayed for the client, with its payload bytes.
    void CountDatagram(bool toHost, uint64_t bytes);

    // One request answered with status: recorded on its own, and the next starts afresh.
    void FinishRequest(const std::string& method, int status);
    // The connection ended; requestComplete: the client's request was ever whole.
    void Report(bool requestComplete);

private:
    SConnectionRecord Make() const;

    CProxyStats& m_stats;
    IProxyObserver* const m_observer;
    std::string m_client;
    std::string m_protocol = "-";
    std::string m_destination = "-";
    std::string m_user = "-";
    EOutcome m_outcome = EOutcome::Ok;
    bool m_outcomeSet = false;
    Clock::time_point m_start = Clock::now();
    unsigned m_requestsRecorded = 0;
    uint64_t m_recordedToHost = 0;
    uint64_t m_recordedToClient = 0;
    std::atomic<uint64_t> m_toHost{0};
    std::atomic<uint64_t> m_toClient{0};
};

} // namespace Proxy
} // namespace ZRT
