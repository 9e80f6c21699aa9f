#include "proxy/core/CHostConnector.h"

#include <errno.h>
#include <netinet/in.h>

#include <mutex>


namespace ZRT {
namespace Proxy {

// Where a helper thread leaves its answer. Shared by the connector and the helper, so either may
// go first.
struct CHostConnector::SHandOff {
    // Guards everything below; `wake` is called under it, so that once Cancel returns no wake-up
    // runs or will come.
    std::mutex mutex;
    bool cancelled = false;
    bool answered = false;
    uint64_t wanted = 0;  // the attempt the connector waits for
    uint64_t attempt = 0; // the one answered
    LinkPtr link;
    std::function<void()> wake;
};

CHostConnector::CHostConnector(IZRTMultiPointLayer* layer, const CTCPIPAddress& client, CConnectHelpers& helpers,
                               CHostLink& link, std::function<void()> wake, Outcome outcome)
    : m_layer(layer), m_client(client), m_helpers(helpers), m_link(link), m_wake(std::move(wake)),
      m_outcome(std::move(outcome))
{
}

CHostConnector::~CHostConnector()
{
    Cancel();
}

bool CHostConnector::Begin(const AddressPtr& destination, int timeoutMs, const Allowed& allowed)
{
    const CHostLink::EState state = m_link.GetState();
    if (!destination || !m_layer || state == CHostLink::EState::Connecting || state == CHostLink::EState::Open)
        return false;
    m_link.Drop(); // a link that closed and was not handed over
    m_deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    m_candidates = OtherAddresses(*destination, allowed);
    m_failure = 0;
    Attempt(destination);
    const bool failed = m_link.GetState() == CHostLink::EState::None && !Retry();
    // The owner hears of an outcome known now only after this returns.
    if (failed || m_link.GetState() == CHostLink::EState::Open) {
        m_settled = !failed;
        m_wake();
    }
    return true;
}

void CHostConnector::Attempt(const AddressPtr& address)
{
    const Clock::time_point now = Clock::now();
    m_attemptDeadline = now + (m_deadline - now) / static_cast<int>(1 + m_candidates.size());
    ++m_attempt;
    if (!m_layer->ConnectsWithoutBlocking()) {
        if (Launch(address)) {
            m_link.AwaitLink();
            return;
        }
    } else if (Install(m_layer->BeginConnect(*address, m_client))) {
        return;
    }
    m_failure = ECONNREFUSED;
}

bool CHostConnector::Install(const LinkPtr& link)
{
    return link && m_link.Install(link, link->IsConnecting() ? CHostLink::EState::Connecting : CHostLink::EState::Open);
}

bool CHostConnector::Retry()
{
    while (!m_candidates.empty() && Clock::now() < m_deadline) {
        const AddressPtr next = m_candidates.front();
        m_candidates.pop_front();
        Attempt(next);
        if (m_link.GetState() != CHostLink::EState::None)
            return true;
    }
    m_candidates.clear();
    return false;
}

void CHostConnector::EndAttempt(bool connected)
{
    if (connected) {
        Settle(true);
        return;
    }
    const int failure = m_link.GetFailure();
    m_failure = Clock::now() >= m_attemptDeadline ? ETIMEDOUT : failure != 0 ? failure : ECONNREFUSED;
    m_link.Drop();
    if (!Retry())
        Settle(false);
    else if (m_link.GetState() == CHostLink::EState::Open)
        Settle(true); // a host without non-blocking connects
}

void CHostConnector::Settle(bool connected)
{
    if (connected) {
        // A link that came open may have closed already: its end is read after its bytes.
        if (m_link.GetState() == CHostLink::EState::Connecting)
            m_link.MarkOpen();
        m_failure = 0;
        m_candidates.clear();
    }
    m_outcome(connected);
}

void CHostConnector::CompleteConnect()
{
    IZRTDataLayer* link = m_link.Get();
    if (!link || m_link.GetState() != CHostLink::EState::Connecting)
        return;
    link->CompleteConnect();
    if (!link->IsConnecting() && m_link.GetState() == CHostLink::EState::Connecting)
        EndAttempt(link->IsConnected());
}

bool CHostConnector::GiveUpSlowAttempt()
{
    if (m_link.GetState() != CHostLink::EState::Connecting || Clock::now() < m_attemptDeadline)
        return false;
    EndAttempt(false);
    return true;
}

void CHostConnector::OnWake()
{
    if (m_settled) {
        const bool connected = *m_settled;
        m_settled.reset();
        Settle(connected);
    }
    TakeAnswer();
}

std::optional<CHostConnector::Clock::time_point> CHostConnector::GetAttemptDeadline() const
{
    if (m_link.GetState() != CHostLink::EState::Connecting)
        return std::nullopt;
    return m_attemptDeadline;
}

bool CHostConnector::Launch(const AddressPtr& address)
{
    if (!m_handOff) {
        m_handOff = std::make_shared<SHandOff>();
        m_handOff->wake = m_wake;
    }
    const std::shared_ptr<SHandOff> handOff = m_handOff;
    IZRTMultiPointLayer* const layer = m_layer;
    const CTCPIPAddress client = m_client;
    const uint64_t attempt = m_attempt;
    {
        std::lock_guard<std::mutex> hold(handOff->mutex);
        handOff->wanted = attempt;
    }
    return m_helpers.Submit([handOff, layer, address, client, attempt] {
        {
            // A connect that waited in line past its attempt (given up, or the connection gone)
            // is not made at all.
            std::lock_guard<std::mutex> hold(handOff->mutex);
            if (handOff->cancelled || handOff->wanted != attempt)
                return;
        }
        LinkPtr link = layer->BeginConnect(*address, client);
        std::lock_guard<std::mutex> hold(handOff->mutex);
        if (handOff->cancelled) {
            if (link)
                link->Disconnect();
            return;
        }
        if (handOff->link)
            handOff->link->Disconnect(); // an older attempt's, never taken
        handOff->link = std::move(link);
        handOff->attempt = attempt;
        handOff->answered = true;
        handOff->wake();
    });
}

void CHostConnector::TakeAnswer()
{
    if (!m_handOff)
        return;
    LinkPtr link;
    uint64_t attempt = 0;
    {
        std::lock_guard<std::mutex> hold(m_handOff->mutex);
        if (!m_handOff->answered)
            return;
        m_handOff->answered = false;
        link = std::move(m_handOff->link);
        m_handOff->link.Reset();
        attempt = m_handOff->attempt;
    }
    // An attempt given up meanwhile (its time ran out, the next address is being tried) is not
    // the one waited for.
    if (attempt != m_attempt || m_link.GetState() != CHostLink::EState::Connecting || m_link.Get()) {
        if (link)
            link->Disconnect();
        return;
    }
    if (!Install(link))
        EndAttempt(false);
    else if (m_link.GetState() == CHostLink::EState::Open)
        Settle(true);
}

void CHostConnector::Cancel()
{
    ++m_attempt; // whatever comes for the attempts so far is not waited for
    m_settled.reset();
    m_candidates.clear();
    if (!m_handOff)
        return;
    LinkPtr unwanted;
    {
        std::lock_guard<std::mutex> hold(m_handOff->mutex);
        m_handOff->cancelled = true;
        unwanted = std::move(m_handOff->link);
        m_handOff->link.Reset();
    }
    if (unwanted)
        unwanted->Disconnect();
    m_handOff.reset();
}

std::deque<CHostConnector::AddressPtr> CHostConnector::OtherAddresses(const IZRTConnectionAddress& destination,
                                                                      const Allowed& allowed) const
{
    std::deque<AddressPtr> others;
    const auto* tcp = dynamic_cast<const CTCPIPAddress*>(&destination);
    if (!tcp)
        return others;
    for (const sockaddr_storage& alternative : tcp->GetAlternatives()) {
        auto* address = new CTCPIPAddress();
        const AddressPtr held(address);
        const socklen_t length = alternative.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
        if (address->SetAddress(reinterpret_cast<const sockaddr&>(alternative), length) && allowed(*address))
            others.push_back(held);
    }
    return others;
}

} // namespace Proxy
} // namespace ZRT
