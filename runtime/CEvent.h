#pragma once

#include <atomic>
#include <mutex>

#include "runtime/CSynchronizationObject.h"
#include "runtime/Export.h"

namespace QOX {

// A manual-reset event: once signalled it stays signalled, through any number of waits, until
// ResetEvent. Backed by an eventfd (a pipe where there is none), so a signalled event makes its
// descriptor readable and wakes a poll() at once.
//
// The descriptor is made on the first GetWaitHandle (or wait), not in the constructor: most
// events of a short connection are signalled but never waited for, and then cost no system call
// at all. The state lives in a flag; the descriptor, once there, mirrors it exactly (both change
// under m_mutex), so a signal is never lost between the two.
class ZRT_EXPORT CEvent : public CSynchronizationObject {
public:
    explicit CEvent(bool manualReset = true);
    ~CEvent() override;
    CEvent(const CEvent&) = delete;
    CEvent& operator=(const CEvent&) = delete;

    void SignalEvent();
    void ResetEvent();
    bool IsSignalled() const { return m_signalled.load(); }

    int GetWaitHandle() const override;
    int TestState() const override { return IsSignalled() ? 1 : 0; }

private:
    void WriteSignalLocked() const;
    void DrainLocked() const;

    // Serializes signal, reset and the lazy making of the descriptors (m_writeFd, m_readFd),
    // so a signal is never lost between them; a leaf.
    mutable std::mutex m_mutex;
    std::atomic<bool> m_signalled{false};
    mutable std::atomic<int> m_readFd{-1};
    mutable int m_writeFd = -1;
};

} // namespace QOX
