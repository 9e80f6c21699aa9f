#include "runtime/CCallGate.h"

#include <algorithm>

namespace QOX {

CCallGate::CScope::CScope(CCallGate& gate) : m_gate(gate)
{
    m_gate.Enter();
}

CCallGate::CScope::~CScope()
{
    m_gate.Leave();
}

void CCallGate::Enter()
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_inside.push_back(std::this_thread::get_id());
}

void CCallGate::Leave()
{
    std::lock_guard<std::mutex> hold(m_mutex);
    const auto found = std::find(m_inside.begin(), m_inside.end(), std::this_thread::get_id());
    if (found != m_inside.end())
        m_inside.erase(found);
    // Notified under the lock: the waiter may destroy the gate as soon as it can take the lock.
    m_left.notify_all();
}

void CCallGate::WaitForOthers()
{
    const std::thread::id self = std::this_thread::get_id();
    std::unique_lock<std::mutex> hold(m_mutex);
    m_left.wait(hold, [&] {
        return std::all_of(m_inside.begin(), m_inside.end(), [&](std::thread::id id) { return id == self; });
    });
}

} // namespace QOX
