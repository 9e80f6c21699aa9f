#pragma once

#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <list>
#include <mutex>
#include <string>
#include <unordered_map>

namespace ZRT {
namespace Host {

// The names an upstream resolves (socks5h), each standing in for the engine as an address of
// 198.18.0.0/15 (kept for benchmarks, never a real destination; the engine's own checks see
// neither this machine nor a local address in it). The engine resolves a name to its placeholder
// and connects to that; the host turns the placeholder back into the name for the upstream.
//
// At most `capacity` names are remembered, the least recently used forgotten first; a connect to
// a forgotten placeholder fails. A placeholder is handed to another name only REUSE_SECONDS after
// its last answer: by then the engine's name cache (LIFETIME_SECONDS) and its idle origin
// connections, which it keys by address (http-keep-alive, at most an hour), are gone, so nothing
// the engine kept for one name leads to another's destination. With no placeholder free under
// that rule (131,070 names within that time), a new name does not resolve.
//
// Threads: any; every operation takes the table's lock for a few map operations.
class CPlaceholderNames {
public:
    static constexpr size_t CAPACITY = 8192;
    static constexpr int LIFETIME_SECONDS = 60;
    static constexpr int REUSE_SECONDS = 3600 + 2 * LIFETIME_SECONDS;
    // 198.18.0.0/15 without its first and last address.
    static constexpr uint32_t SLOTS = (1u << 17) - 2;
    using Clock = std::chrono::steady_clock;

    explicit CPlaceholderNames(size_t capacity = CAPACITY) : m_capacity(capacity > 0 ? capacity : 1) {}

    // The placeholder (IPv4, port 0) for name, made or refreshed; false when none is free.
    bool Assign(const std::string& name, sockaddr_storage& placeholder, Clock::time_point now = Clock::now());
    // The name behind a placeholder; false when it was forgotten.
    bool NameOf(const sockaddr_storage& placeholder, std::string& name);
    // The placeholder of a name still remembered; false otherwise.
    bool PlaceholderOf(const std::string& name, sockaddr_storage& placeholder);
    static bool IsPlaceholder(const sockaddr_storage& address);

private:
    struct SEntry {
        std::string name;
        uint32_t slot;
        Clock::time_point answered;
    };
    using Entries = std::list<SEntry>;

    static void AddressOf(uint32_t slot, sockaddr_storage& address);
    static bool SlotOf(const sockaddr_storage& address, uint32_t& slot);
    // A free slot, or false; the lock is held.
    bool TakeSlot(uint32_t& slot, Clock::time_point now);
    void ForgetOldest();

    const size_t m_capacity;
    // Guards everything below.
    std::mutex m_mutex;
    Entries m_entries; // most recently used first
    std::unordered_map<std::string, Entries::iterator> m_byName;
    std::unordered_map<uint32_t, Entries::iterator> m_bySlot;
    uint32_t m_neverUsed = 0; // slots from here on were never handed out
    // Slots of forgotten names and when each may be handed out again, in that order.
    std::deque<std::pair<uint32_t, Clock::time_point>> m_cooling;
};

} // namespace Host
} // namespace ZRT
