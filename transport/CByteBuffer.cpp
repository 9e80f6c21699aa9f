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

} // namespace ZRT
