#include "host/CByteQueue.h"

#include <algorithm>
#include <cstring>

namespace ZRT {
namespace Host {

namespace {
// Consumed bytes are squeezed out only once they outweigh the live ones, so each byte is moved
// at most a few times.
constexpr size_t COMPACT_THRESHOLD = 64 * 1024;
} // namespace

void CByteQueue::Append(const unsigned char* data, size_t length)
{
    if (length > 0)
        m_bytes.insert(m_bytes.end(), data, data + length);
}

void CByteQueue::Consume(size_t length)
{
    m_head += std::min(length, Size());
    if (m_head == m_bytes.size()) {
        Clear();
        return;
    }
    if (m_head >= COMPACT_THRESHOLD && m_head * 2 >= m_bytes.size()) {
        m_bytes.erase(m_bytes.begin(), m_bytes.begin() + static_cast<std::ptrdiff_t>(m_head));
        m_head = 0;
    }
}

size_t CByteQueue::Take(unsigned char* destination, size_t length)
{
    const size_t count = std::min(length, Size());
    if (count > 0)
        std::memcpy(destination, Front(), count);
    Consume(count);
    return count;
}

void CByteQueue::Clear()
{
    m_bytes.clear();
    m_head = 0;
    // Keep a little capacity for the next burst, give big blocks back.
    if (m_bytes.capacity() > COMPACT_THRESHOLD)
        std::vector<unsigned char>().swap(m_bytes);
}

} // namespace Host
} // namespace ZRT
