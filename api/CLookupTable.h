#pragma once

#include <cstdint>
#include <mutex>
#include <unordered_map>

#include "host/SDirectHostSettings.h"
#include "zrtproxy/zrtproxy.h"

namespace ZRT {
namespace Api {

// The lookups handed to resolver hooks and not answered yet, process-wide: a zrt_lookup_t is a
// number that names one here, never memory, and numbers are not used twice. So an answer to a
// lookup answered already (or to something that never was one) finds nothing and does nothing.
//
// Threads: any, resolver hooks and their answering threads included.
class CLookupTable {
public:
    using Reply = Host::SDirectHostSettings::LookupReply;

    // A handle for reply.
    static zrt_lookup_t* Add(Reply reply);
    // The reply of a handle not answered yet, taken out of the table; empty for any other.
    static Reply Take(zrt_lookup_t* lookup);

private:
    static CLookupTable& Instance();

    // Guards m_replies and m_next.
    std::mutex m_mutex;
    std::unordered_map<uintptr_t, Reply> m_replies;
    uintptr_t m_next = 1;
};

} // namespace Api
} // namespace ZRT
