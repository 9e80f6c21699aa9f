#pragma once

#include <chrono>
#include <optional>

#include "proxy/core/SProxySettings.h"

namespace ZRT {
namespace Proxy {

// The time limits of one connection: the handshake limit until the client's request is complete,
// the idle limit after it, the linger limit once the client finished sending while the
// destination has not taken its last bytes, and the drain limit while the connection writes its
// last bytes to a client that does not read them. Every operation runs on the connection's thread.
class CConnectionLimits {
public:
    using Clock = std::chrono::steady_clock;
    enum class EVerdict { Within, TimedOut, GiveUpOnHost };

    explicit CConnectionLimits(const SProxySettings& settings) : m_settings(settings) {}

    void MarkRequestComplete();
    bool IsRequestComplete() const { return m_requestComplete; }
    // The client finished sending (read, or seen behind bytes not read yet).
    void MarkClientFinished();
    bool HasClientFinished() const { return m_clientFinishedAt.has_value(); }
    // Bytes moved this step.
    void NoteMoved() { m_moved = true; }

    // At the end of a step: which limit passed. linkOpen: the destination link is open;
    // undelivered tells how many of the client's bytes the destination has not taken.
    template <typename Undelivered> EVerdict Check(bool linkOpen, Undelivered undelivered);
    // The earliest limit that applies, if any.
    std::optional<Clock::time_point> Next(bool linkOpen) const;
    // The linger limit passed with bytes undelivered: the destination link is reset, not closed.
    bool GaveUpOnHost() const { return m_linger == ELinger::GaveUp; }

    // The last bytes go to the client (from now on), or it took some of them.
    void NoteDrainProgress() { m_drainProgress = Clock::now(); }
    // While the last bytes go to the client: when it has taken none for too long.
    std::optional<Clock::time_point> DrainDeadline() const;

private:
    enum class ELinger { Waiting, Settled, GaveUp };

    void UpdateActivity();
    std::optional<Clock::time_point> LingerDeadline(bool linkOpen) const;
    std::optional<Clock::time_point> RequestDeadline() const;

    const SProxySettings& m_settings;
    const Clock::time_point m_start = Clock::now();
    Clock::time_point m_lastActivity = m_start;
    std::optional<Clock::time_point> m_clientFinishedAt;
    Clock::time_point m_drainProgress{};
    ELinger m_linger = ELinger::Waiting;
    bool m_requestComplete = false;
    bool m_moved = false;
};

template <typename Undelivered>
CConnectionLimits::EVerdict CConnectionLimits::Check(bool linkOpen, Undelivered undelivered)
{
    UpdateActivity();
    const Clock::time_point now = Clock::now();
    const std::optional<Clock::time_point> linger = LingerDeadline(linkOpen);
    if (linger && now >= *linger) {
        // The client's last bytes are given up: the destination gets a reset, not a FIN after a
        // part of them. A destination that took everything answers in its own time.
        if (undelivered() > 0) {
            m_linger = ELinger::GaveUp;
            return EVerdict::GiveUpOnHost;
        }
        m_linger = ELinger::Settled;
    }
    const std::optional<Clock::time_point> limit = RequestDeadline();
    return limit && now >= *limit ? EVerdict::TimedOut : EVerdict::Within;
}

} // namespace Proxy
} // namespace ZRT
