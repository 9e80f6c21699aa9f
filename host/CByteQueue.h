#pragma once

#include <cstddef>
#include <vector>

namespace ZRT {
namespace Host {

// A FIFO of bytes in one contiguous block: appended at the back, consumed from the front.
// Not thread-safe: every call comes from whichever thread holds its owner's lock.
class CByteQueue {
public:
    size_t Size() const { return m_bytes.size() - m_head; }
    bool Empty() const { return Size() == 0; }
    const unsigned char* Front() const { return m_bytes.data() + m_head; }

    void Append(const unsigned char* data, size_t length);
    void Consume(size_t length);
    // Copies up to length bytes from the front and consumes them; returns the count.
    size_t Take(unsigned char* destination, size_t length);
    void Clear();

private:
    std::vector<unsigned char> m_bytes;
    size_t m_head = 0;
};

} // namespace Host
} // namespace ZRT
