#include "api/CLookupTable.h"

namespace ZRT {
namespace Api {

CLookupTable& CLookupTable::Instance()
{
    // Never destroyed: a host's thread may answer while the process exits.
    static CLookupTable* const table = new CLookupTable;
    return *table;
}

zrt_lookup_t* CLookupTable::Add(Reply reply)
{
    CLookupTable& table = Instance();
    std::lock_guard<std::mutex> hold(table.m_mutex);
    const uintptr_t id = table.m_next++;
    if (table.m_next == 0) // after a wrap (32-bit), 0 stays the null handle
        table.m_next = 1;
    table.m_replies[id] = std::move(reply);
    return reinterpret_cast<zrt_lookup_t*>(id);
}

CLookupTable::Reply CLookupTable::Take(zrt_lookup_t* lookup)
{
    CLookupTable& table = Instance();
    std::lock_guard<std::mutex> hold(table.m_mutex);
    const auto found = table.m_replies.find(reinterpret_cast<uintptr_t>(lookup));
    if (found == table.m_replies.end())
        return Reply();
    Reply reply = std::move(found->second);
    table.m_replies.erase(found);
    return reply;
}

} // namespace Api
} // namespace ZRT
