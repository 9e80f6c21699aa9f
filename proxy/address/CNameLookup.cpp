#include "proxy/address/CNameLookup.h"

#include <utility>

namespace ZRT {
namespace Proxy {

CNameLookup::CNameLookup(std::function<void()> wake) : m_wake(std::move(wake)) {}

CNameLookup::~CNameLookup()
{
    Cancel();
}

bool CNameLookup::Start(CAddressManager& manager, const std::string& key)
{
    Cancel();
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_manager = &manager;
        m_waiting = true;
        m_answered = false;
        m_address.Reset();
    }
    AddressPtr address;
    const bool known = manager.Lookup(key, this, address);
    std::lock_guard<std::mutex> hold(m_mutex);
    if (known) {
        m_waiting = false;
        m_answered = true;
        m_address = address;
    }
    // A resolver may answer inside the call (numeric texts): known now after all.
    return m_answered;
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

bool CNameLookup::TakeAnswer(AddressPtr& address)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    if (!m_answered)
        return false;
    m_answered = false;
    address = std::move(m_address);
    m_address.Reset();
    return true;
}

bool CNameLookup::IsWaiting() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_waiting;
}

void CNameLookup::Cancel()
{
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
