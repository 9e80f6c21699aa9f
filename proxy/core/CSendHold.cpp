#include "proxy/core/CSendHold.h"

namespace ZRT {
namespace Proxy {

bool CSendHold::End()
{
    if (m_depth > 1) {
        --m_depth;
        return false;
    }
    m_depth = 0;
    return true;
}

bool CSendHold::Keep(const char* data, size_t length)
{
    if (m_depth == 0 || m_held.size() + length > LIMIT)
        return false;
    m_held.append(data, length);
    return true;
}

std::string CSendHold::Take()
{
    std::string held;
    held.swap(m_held); // an empty string in its place: a quiet connection holds no memory
    return held;
}

} // namespace Proxy
} // namespace ZRT
