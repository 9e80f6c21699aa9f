#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "proxy/address/CAddressManager.h"
#include "runtime/CRefCountPtr.h"
#include "transport/IZRTConnectionAddress.h"

namespace ZRT {
namespace Proxy {

// One name lookup of a protocol handler, with its own time limit: started on the connection's
// thread, answered on the resolver's thread, which calls the wake-up given at construction so
// that the connection's thread comes back for the answer. A lookup not answered within its limit
// is given up (cancelled at the address manager) and reported as timed out; the owner sets its
// timer from GetWakeDelay so that it is back by then. Cancelled at the address manager when it
// is cancelled, restarted or destroyed, so no answer reaches a handler that is gone.
//
// Threads: every operation on the owner's (connection's) thread; OnLookupDone on the resolver's.
class CNameLookup final : private CAddressManager::IWaiter {
public:
    using AddressPtr = CAddressManager::AddressPtr;

    enum class EResult {
        None,        // nothing started, or its outcome was already taken
        Waiting,
        Answered,    // with the address
        NotResolved, // the resolver found nothing
        TimedOut     // no answer within the limit; counts as not resolving
    };

    static constexpr int NO_LIMIT = -1;

    // limitMs: how long an answer is awaited (the proxy's lookup limit); NO_LIMIT for ever.
    explicit CNameLookup(std::function<void()> wake, int limitMs = NO_LIMIT);
    ~CNameLookup();
    CNameLookup(const CNameLookup&) = delete;
    CNameLookup& operator=(const CNameLookup&) = delete;

    // Looks key ("name:port") up, giving up what was under way; Take says at once when the
    // answer is known already.
    void Start(CAddressManager& manager, const std::string& key);
    // Where the lookup stands; an outcome other than Waiting is told once.
    EResult Take(AddressPtr& address);
    // Milliseconds (rounded up) until the owner must call Take again for the time limit; -1
    // while nothing is awaited or there is no limit.
    int GetWakeDelay() const;
    bool IsWaiting() const;
    void Cancel();

private:
    using Clock = std::chrono::steady_clock;

    void OnLookupDone(const AddressPtr& address) override;
    bool IsOverdue() const;

    std::function<void()> m_wake;
    const int m_limitMs;
    CAddressManager* m_manager = nullptr;
    // The owner's thread alone uses these two.
    std::optional<Clock::time_point> m_deadline;
    bool m_timedOut = false;
    // Guards the three below: the answer is written on the resolver's thread.
    mutable std::mutex m_mutex;
    bool m_waiting = false;
    bool m_answered = false;
    AddressPtr m_address;
};

} // namespace Proxy
} // namespace ZRT
