#include "proxy/core/CHostConnector.h"

#include <errno.h>
#include <netinet/in.h>

#include <atomic>
#include <mutex>
#include <utility>

#include "transport/IZRTDataLayerNotification.h"


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

// One address in a race: its link, and the sink of the link's reports, which wake the
// connection. The link's threads report; the connection's thread does everything else.
struct CHostConnector::SRacer : IZRTDataLayerNotification {
    SRacer(LinkPtr racing, const std::function<void()>& wakeUp) : link(std::move(racing)), wake(wakeUp) {}

    void OnDataReceived(IZRTDataLayer& /*dataLayer*/) override {} // read once the link has won
    void OnLinkConnected(IZRTDataLayer& /*dataLayer*/) override
    {
        opened = true;
        wake();
    }
    void OnConnectionClosed(IZRTDataLayer& /*dataLayer*/) override { wake(); }

    // A link that opened counts even when it closed since: its bytes and its end are read.
    bool Connected() const { return opened || link->IsConnected(); }
    bool Settled() const { return opened || !link->IsConnecting(); }
    // Out of the race: no report comes any more, and the link is closed.
    void Drop()
    {
        link->RemoveNotification(this);
        link->Disconnect();
    }

    const LinkPtr link;
    const std::function<void()>& wake; // the connector's, which outlives its racers
    std::atomic<bool> opened{false};
};

namespace {
// The addresses in the order of a race, IPv6 first and the families taking turns; empty when
// they are all of one family (nothing to race).
std::deque<CHostConnector::AddressPtr> RaceOrder(const std::deque<CHostConnector::AddressPtr>& addresses)
{
    std::deque<CHostConnector::AddressPtr> families[2];
    for (const CHostConnector::AddressPtr& address : addresses)
        families[address->GetFamily() == AF_INET6 ? 0 : 1].push_back(address);
    std::deque<CHostConnector::AddressPtr> order;
    if (families[0].empty() || families[1].empty())
        return order;
    for (size_t i = 0; i < families[0].size() || i < families[1].size(); ++i) {
        for (const auto& family : families) {
            if (i < family.size())
                order.push_back(family[i]);
        }
    }
    return order;
}
} // namespace

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
    m_deadline = Now() + std::chrono::milliseconds(timeoutMs);
    std::deque<AddressPtr> others = OtherAddresses(*destination, allowed);
    m_failure = 0;
    m_racing = false;
    if (m_layer->ConnectsWithoutBlocking()) {
        others.push_front(destination);
        const std::deque<AddressPtr> order = RaceOrder(others);
        m_candidates.assign(order.begin(), order.end());
        others.pop_front();
        m_racing = !m_candidates.empty();
    }
    if (m_racing) {
        m_link.AwaitLink();
        m_nextStart = Now();
        m_settled = Race();
        if (m_settled) {
            m_racing = false;
            m_wake(); // the owner hears of it only after this returns
        }
        return true;
    }
    m_candidates.assign(others.begin(), others.end());
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
    const Clock::time_point now = Now();
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
    if (m_failure == 0)
        m_failure = ECONNREFUSED;
}

bool CHostConnector::Install(const LinkPtr& link)
{
    if (!link)
        return false;
    if (link->IsConnecting())
        return m_link.Install(link, CHostLink::EState::Connecting);
    // A connect that failed at once may be told on the link's own thread before it is taken.
    m_failure = link->GetFailure();
    if (m_failure != 0) {
        link->Disconnect();
        return false;
    }
    return m_link.Install(link, CHostLink::EState::Open);
}

bool CHostConnector::Retry()
{
    while (!m_candidates.empty() && Now() < m_deadline) {
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
    if (m_racing)
        return; // the racers report to the connector itself
    if (connected) {
        Settle(true);
        return;
    }
    const int failure = m_link.GetFailure();
    m_failure = Now() >= m_attemptDeadline ? ETIMEDOUT : failure != 0 ? failure : ECONNREFUSED;
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
    if (m_racing) {
        const std::optional<Clock::time_point> due = GetAttemptDeadline();
        if (!due || Now() < *due)
            return false;
        if (const std::optional<bool> outcome = Race())
            EndRace(*outcome);
        return true;
    }
    if (m_link.GetState() != CHostLink::EState::Connecting || Now() < m_attemptDeadline)
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
    } else if (m_racing) {
        if (const std::optional<bool> outcome = Race())
            EndRace(*outcome);
        return;
    }
    TakeAnswer();
}

std::optional<CHostConnector::Clock::time_point> CHostConnector::GetAttemptDeadline() const
{
    if (m_link.GetState() != CHostLink::EState::Connecting)
        return std::nullopt;
    if (!m_racing)
        return m_attemptDeadline;
    return m_candidates.empty() || m_nextStart > m_deadline ? m_deadline : m_nextStart;
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
    DropRacers();
    m_racing = false;
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

// ---- the race ----

std::optional<bool> CHostConnector::Race()
{
    for (;;) {
        if (std::unique_ptr<SRacer> winner = TakeFinishedRacers()) {
            Win(std::move(winner));
            return true;
        }
        const Clock::time_point now = Now();
        if (now >= m_deadline) {
            if (!m_racers.empty() || !m_candidates.empty())
                m_failure = ETIMEDOUT;
            break;
        }
        if (m_candidates.empty() || (!m_racers.empty() && now < m_nextStart))
            break;
        const AddressPtr next = m_candidates.front();
        m_candidates.pop_front();
        StartRacer(next);
    }
    if (!m_racers.empty() && Now() < m_deadline)
        return std::nullopt;
    DropRacers();
    m_candidates.clear();
    m_link.Release(); // it waited for a racer: None again
    return false;
}

void CHostConnector::StartRacer(const AddressPtr& address)
{
    const LinkPtr link = m_layer->BeginConnect(*address, m_client);
    if (!link) {
        m_failure = ECONNREFUSED;
        return;
    }
    m_racers.push_back(std::make_unique<SRacer>(link, m_wake));
    // A link that settled before this sink came is told to it at once (the next round reads it).
    link->AddNotification(m_racers.back().get());
    m_nextStart = Now() + std::chrono::milliseconds(ATTEMPT_DELAY_MS);
}

std::unique_ptr<CHostConnector::SRacer> CHostConnector::TakeFinishedRacers()
{
    for (auto racer = m_racers.begin(); racer != m_racers.end();) {
        if (!(*racer)->Settled()) {
            ++racer;
            continue;
        }
        if ((*racer)->Connected()) {
            std::unique_ptr<SRacer> winner = std::move(*racer);
            m_racers.erase(racer);
            return winner;
        }
        const int failure = (*racer)->link->GetFailure();
        m_failure = failure != 0 ? failure : ECONNREFUSED;
        (*racer)->Drop();
        racer = m_racers.erase(racer);
        m_nextStart = Now(); // a failure lets the next address start at once
    }
    return nullptr;
}

void CHostConnector::Win(std::unique_ptr<SRacer> winner)
{
    const LinkPtr link = winner->link;
    link->RemoveNotification(winner.get());
    DropRacers();
    m_candidates.clear();
    m_link.Release(); // it waited for a racer: the winner takes its place
    if (!m_link.Install(link, CHostLink::EState::Open)) {
        link->Disconnect();
        m_failure = ECONNREFUSED;
    }
}

void CHostConnector::DropRacers()
{
    for (const std::unique_ptr<SRacer>& racer : m_racers)
        racer->Drop();
    m_racers.clear();
}

void CHostConnector::EndRace(bool connected)
{
    m_racing = false;
    Settle(connected && m_link.GetState() == CHostLink::EState::Open);
}

} // namespace Proxy
} // namespace ZRT
