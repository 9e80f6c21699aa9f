#pragma once

#include "runtime/CSynchronizationObject.h"
#include "runtime/Export.h"

namespace QOX {

// A manual-reset event: once signalled it stays signalled, through any number of waits, until
// ResetEvent. Backed by an eventfd (a pipe where there is none), so a signalled event makes its
// descriptor readable and wakes a poll() at once.
class ZRT_EXPORT CEvent : public CSynchronizationObject {
public:
    explicit CEvent(bool manualReset = true);
    ~CEvent() override;
    CEvent(const CEvent&) = delete;
    CEvent& operator=(const CEvent&) = delete;

    void SignalEvent();
    void ResetEvent();
    bool IsSignalled() const;

    int GetWaitHandle() const override { return m_readFd; }

private:
    int m_readFd = -1;
    int m_writeFd = -1;
};

} // namespace QOX
