#include "proxy/address/CNameLookup.h"

#include <utility>

namespace ZRT {
namespace Proxy {

CNameLookup::CNameLookup(std::function<void()> wake, int limitMs) : m_wake(std::move(wake)), m_limitMs(limitMs) {}

CNameLookup::~CNameLookup()
{
    Cancel();
}

void CNameLookup::Start(CAddressManager& manager, const std::string& key)
{
    Cancel();
    if (m_limitMs >= 0)
        m_deadline = Clock::now() + std::chrono::milliseconds(m_limitMs);
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_manager = &manager;
        m_waiting = true;
        m_answered = false;
        m_address.Reset();
    }
    AddressPtr address;
    if (!manager.Lookup(key, this, address))
        return; // the answer comes later, or came inside the call (numeric texts)
    std::lock_guard<std::mutex> hold(m_mutex);
    m_waiting = false;
    m_answered = true;
    m_address = address;
}

void CNameLookup::OnLookupDone(const AddressPtr& address)
{
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_waiting = false;
        m_answered = true;
        m_address = address;
    }
    m_wake();
}

bool CNameLookup::IsOverdue() const
{
    return m_deadline && Clock::now() >= *m_deadline && IsWaiting();
}

CNameLookup::EResult CNameLookup::Take(AddressPtr& address)
{
    if (IsOverdue()) {
        Cancel(); // no answer is delivered after this
        m_timedOut = true;
    }
    std::lock_guard<std::mutex> hold(m_mutex);
    if (m_answered) {
        // One that came while it was being given up is still the answer.
        m_answered = false;
        m_timedOut = false;
        m_deadline.reset();
        address = std::move(m_address);
        m_address.Reset();
        return address ? EResult::Answered : EResult::NotResolved;
    }
    if (m_waiting)
        return EResult::Waiting;
    return std::exchange(m_timedOut, false) ? EResult::TimedOut : EResult::None;
}

int CNameLookup::GetWakeDelay() const
{
    if (!m_deadline || !IsWaiting())
        return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*m_deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

bool CNameLookup::IsWaiting() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_waiting;
}

void CNameLookup::Cancel()
{
    m_deadline.reset();
    m_timedOut = false;
    CAddressManager* manager = nullptr;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        manager = m_manager;
        m_manager = nullptr;
        m_waiting = false;
    }
    // Not under our lock: the manager waits for an answer being delivered to us.
    if (manager)
        manager->CancelLookup(this);
}

} // namespace Proxy
} // namespace ZRT
