#pragma once

#include "runtime/CRefCount_Base.h"
#include "runtime/Export.h"

namespace ZRT {

// A reference-counted block of bytes. The unread payload is GetLength() - GetOffset() bytes
// at GetData() + GetOffset().
class ZRT_EXPORT CByteBuffer : public QOX::CRefCount_Base {
public:
    CByteBuffer(const unsigned char* data, unsigned int length, bool reserved = false);
    ~CByteBuffer() override;
    CByteBuffer(const CByteBuffer&) = delete;
    CByteBuffer& operator=(const CByteBuffer&) = delete;

    unsigned char* GetData() const { return m_data; }
    unsigned int GetLength() const { return m_length; }
    unsigned int GetOffset() const { return m_offset; }
    unsigned int GetCapacity() const { return m_capacity; }
    unsigned int GetUnread() const { return m_length - m_offset; }

    void SetOffset(unsigned int offset) { m_offset = offset > m_length ? m_length : offset; }
    // Replaces the contents, growing the storage when needed; false if it cannot grow.
    bool Assign(const unsigned char* data, unsigned int length);
    // Adds bytes behind the contents, growing the storage by doubling so that many small appends
    // cost linear time; false if it cannot grow.
    bool Append(const unsigned char* data, unsigned int length);

private:
    unsigned char* m_data = nullptr;
    unsigned int m_capacity = 0;
    unsigned int m_length = 0;
    unsigned int m_offset = 0;
};

} // namespace ZRT
