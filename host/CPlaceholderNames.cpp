#include "host/CPlaceholderNames.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>

namespace ZRT {
namespace Host {

namespace {
constexpr uint32_t BLOCK = 0xc6120000u; // 198.18.0.0
constexpr uint32_t BLOCK_MASK = 0xfffe0000u;
} // namespace

bool CPlaceholderNames::Assign(const std::string& name, sockaddr_storage& placeholder, Clock::time_point now)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto known = m_byName.find(name);
    if (known != m_byName.end()) {
        known->second->answered = now;
        m_entries.splice(m_entries.begin(), m_entries, known->second);
        AddressOf(known->second->slot, placeholder);
        return true;
    }
    if (m_entries.size() >= m_capacity)
        ForgetOldest();
    uint32_t slot = 0;
    if (!TakeSlot(slot, now))
        return false;
    m_entries.push_front(SEntry{name, slot, now});
    m_byName[name] = m_entries.begin();
    m_bySlot[slot] = m_entries.begin();
    AddressOf(slot, placeholder);
    return true;
}

bool CPlaceholderNames::NameOf(const sockaddr_storage& placeholder, std::string& name)
{
    uint32_t slot = 0;
    if (!SlotOf(placeholder, slot))
        return false;
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_bySlot.find(slot);
    if (found == m_bySlot.end())
        return false;
    m_entries.splice(m_entries.begin(), m_entries, found->second);
    name = found->second->name;
    return true;
}

bool CPlaceholderNames::PlaceholderOf(const std::string& name, sockaddr_storage& placeholder)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_byName.find(name);
    if (found == m_byName.end())
        return false;
    AddressOf(found->second->slot, placeholder);
    return true;
}

bool CPlaceholderNames::IsPlaceholder(const sockaddr_storage& address)
{
    uint32_t slot = 0;
    return SlotOf(address, slot);
}

void CPlaceholderNames::AddressOf(uint32_t slot, sockaddr_storage& address)
{
    address = sockaddr_storage{};
    auto& v4 = reinterpret_cast<sockaddr_in&>(address);
    v4.sin_family = AF_INET;
    v4.sin_addr.s_addr = htonl(BLOCK + 1 + slot);
}

bool CPlaceholderNames::SlotOf(const sockaddr_storage& address, uint32_t& slot)
{
    if (address.ss_family != AF_INET)
        return false;
    const uint32_t host = ntohl(reinterpret_cast<const sockaddr_in&>(address).sin_addr.s_addr);
    if ((host & BLOCK_MASK) != BLOCK || host == BLOCK || host - BLOCK - 1 >= SLOTS)
        return false;
    slot = host - BLOCK - 1;
    return true;
}

bool CPlaceholderNames::TakeSlot(uint32_t& slot, Clock::time_point now)
{
    if (m_neverUsed < SLOTS) {
        slot = m_neverUsed++;
        return true;
    }
    if (m_cooling.empty() || m_cooling.front().second > now)
        return false;
    slot = m_cooling.front().first;
    m_cooling.pop_front();
    return true;
}

void CPlaceholderNames::ForgetOldest()
{
    const SEntry& oldest = m_entries.back();
    // Kept in order: a later slot never becomes free before an earlier one.
    Clock::time_point reusable = oldest.answered + std::chrono::seconds(REUSE_SECONDS);
    if (!m_cooling.empty())
        reusable = std::max(reusable, m_cooling.back().second);
    m_cooling.emplace_back(oldest.slot, reusable);
    m_byName.erase(oldest.name);
    m_bySlot.erase(oldest.slot);
    m_entries.pop_back();
}

} // namespace Host
} // namespace ZRT
