#include "transport/CByteBuffer.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace ZRT {

CByteBuffer::CByteBuffer(const unsigned char* data, unsigned int length, bool /*reserved*/)
{
    if (!Assign(data, length))
        throw std::bad_alloc();
}

CByteBuffer::~CByteBuffer()
{
    std::free(m_data);
}

bool CByteBuffer::Assign(const unsigned char* data, unsigned int length)
{
    if (length > m_capacity) {
        auto* grown = static_cast<unsigned char*>(std::realloc(m_data, length));
        if (!grown)
            return false;
        m_data = grown;
        m_capacity = length;
    }
    if (length > 0 && data)
        std::memcpy(m_data, data, length);
    m_length = length;
    m_offset = 0;
    return true;
}

bool CByteBuffer::Append(const unsigned char* data, unsigned int length)
{
    if (length == 0 || !data)
        return true;
    if (length > ~0u - m_length)
        return false;
    const unsigned int needed = m_length + length;
    if (needed > m_capacity) {
        const unsigned int doubled = m_capacity > ~0u / 2 ? ~0u : m_capacity * 2;
        const unsigned int capacity = needed > doubled ? needed : doubled;
        auto* grown = static_cast<unsigned char*>(std::realloc(m_data, capacity));
        if (!grown)
            return false;
        m_data = grown;
        m_capacity = capacity;
    }
    std::memcpy(m_data + m_length, data, length);
    m_length = needed;
    return true;
}

} // namespace ZRT
