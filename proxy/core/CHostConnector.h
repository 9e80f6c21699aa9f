#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <vector>

#include "proxy/core/CConnectHelpers.h"
#include "proxy/core/CHostLink.h"
#include "runtime/CRefCountPtr.h"
#include "transport/CTCPIPAddress.h"
#include "transport/IZRTConnectionAddress.h"
#include "transport/IZRTDataLayer.h"
#include "transport/IZRTMultiPointLayer.h"

namespace ZRT {
namespace Proxy {

// The attempts of one connection to open its host link: the destination, then the other
// addresses of its name, each with its share of the time left, until one gives a link (installed
// in the connection's CHostLink) or the time is up.
//
// A name with IPv6 and IPv4 addresses, at a host whose connects do not block, is raced instead
// (Happy Eyeballs): IPv6 first, the families taking turns; each next address starts once the
// attempts under way have not connected for ATTEMPT_DELAY_MS (at once when one fails); the
// first link to connect wins and the others are closed. The racers are the connector's own (no
// reader attached, their reports wake the connection) until the winner goes to the CHostLink,
// which stays Connecting without a link meanwhile. The connect time-out bounds the whole race.
//
// Every operation runs on the connection's thread. A host that may block on a connect
// (IZRTMultiPointLayer::ConnectsWithoutBlocking false) is asked on one of the proxy's helpers;
// its answer waits in a hand-off, and `wake` (called on that thread) asks the connection's thread
// for OnWake. An answer that comes after Cancel, or for an attempt given up, is closed there.
// `wake` is also how an outcome known at once reaches the owner after Begin has returned.
// `client` is the connection's, kept by reference: it outlives the connector.
class CHostConnector {
public:
    using Clock = std::chrono::steady_clock;
    // How long the attempts under way have to connect before the next address joins them.
    static constexpr int ATTEMPT_DELAY_MS = 250;
    using AddressPtr = QOX::CRefCountPtr<IZRTConnectionAddress>;
    using LinkPtr = QOX::CRefCountPtr<IZRTDataLayer>;
    // Whether the destination rules let the connection reach an address.
    using Allowed = std::function<bool(const IZRTConnectionAddress& address)>;
    // The end of the attempts: connected, or not.
    using Outcome = std::function<void(bool connected)>;

    CHostConnector(IZRTMultiPointLayer* layer, const CTCPIPAddress& client, CConnectHelpers& helpers, CHostLink& link,
                   std::function<void()> wake, Outcome outcome);
    ~CHostConnector();
    CHostConnector(const CHostConnector&) = delete;
    CHostConnector& operator=(const CHostConnector&) = delete;

    // Starts the attempts; the outcome comes after this returns. False when a link is held or
    // being opened.
    bool Begin(const AddressPtr& destination, int timeoutMs, const Allowed& allowed);
    // The link being opened connected, or failed (the next address is tried then).
    void EndAttempt(bool connected);
    // The link's descriptor turned writable while it connects.
    void CompleteConnect();
    // An attempt that outlived its share of the time is given up; true when that was done.
    bool GiveUpSlowAttempt();
    // What `wake` asked for: an outcome known at once, a helper thread's answer.
    void OnWake();
    // No answer is wanted any more.
    void Cancel();

    std::optional<Clock::time_point> GetAttemptDeadline() const;
    // Why the last attempts failed, as an errno value; 0 after a success.
    int GetFailure() const { return m_failure; }
    // The clock that deadlines are read from (tests step their own).
    void SetClock(std::function<Clock::time_point()> now) { m_now = std::move(now); }

private:
    struct SHandOff;
    struct SRacer;

    void Attempt(const AddressPtr& address);
    // The next address, while time is left; false when none is left.
    bool Retry();
    bool Launch(const AddressPtr& address);
    // Takes an attempt's link; false for none, or for one that failed already (m_failure says why).
    bool Install(const LinkPtr& link);
    void TakeAnswer();
    void Settle(bool connected);
    std::deque<AddressPtr> OtherAddresses(const IZRTConnectionAddress& destination, const Allowed& allowed) const;
    Clock::time_point Now() const { return m_now(); }

    // The race: a round takes the racers' news and starts the next address when due; it returns
    // the outcome once there is one.
    std::optional<bool> Race();
    void StartRacer(const AddressPtr& address);
    // Drops the racers that failed (noting why); the first that connected, if any.
    std::unique_ptr<SRacer> TakeFinishedRacers();
    void Win(std::unique_ptr<SRacer> winner);
    void DropRacers();
    void EndRace(bool connected);

    IZRTMultiPointLayer* const m_layer;
    const CTCPIPAddress& m_client; // a balancer's header may name it after the connector is made
    CConnectHelpers& m_helpers;
    CHostLink& m_link;
    const std::function<void()> m_wake;
    const Outcome m_outcome;
    std::shared_ptr<SHandOff> m_handOff;
    uint64_t m_attempt = 0;
    std::list<AddressPtr> m_candidates; // a list: once connected, an empty one holds no memory
    Clock::time_point m_deadline{};
    Clock::time_point m_attemptDeadline{};
    int m_failure = 0;
    // An outcome known inside Begin, for OnWake to report.
    std::optional<bool> m_settled;
    std::function<Clock::time_point()> m_now = Clock::now;
    bool m_racing = false;
    std::vector<std::unique_ptr<SRacer>> m_racers;
    Clock::time_point m_nextStart{}; // when the next address joins the race
};

} // namespace Proxy
} // namespace ZRT
