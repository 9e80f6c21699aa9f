#pragma once

#include <list>

#include "runtime/CRefCountPtr.h"
#include "runtime/Export.h"
#include "transport/CByteBuffer.h"

namespace ZRT {

// An ordered queue of byte buffers; not thread-safe (its owner guards it).
// GetBuffer/ReclaimBuffer share a process-wide pool that is safe from any thread.
class ZRT_EXPORT CByteBufferList {
public:
    // Pooled buffers hold up to this many bytes; larger requests are allocated to size.
    static constexpr unsigned int POOLED_BUFFER_SIZE = 32768;
    // At most this many idle buffers stay in the pool (1 MiB), so a burst does not pin memory.
    static constexpr unsigned int POOL_LIMIT = 32;

    CByteBufferList() = default;
    CByteBufferList(const CByteBufferList&) = default;
    CByteBufferList& operator=(const CByteBufferList&) = default;
    ~CByteBufferList();

    static QOX::CRefCountPtr<CByteBuffer> GetBuffer(const unsigned char* data, unsigned int length);
    static void ReclaimBuffer(QOX::CRefCountPtr<CByteBuffer> buffer);
    static unsigned int GetPoolSize();
    // Lets go of every idle buffer (when the proxy falls quiet, before free memory goes back to
    // the system). Any thread.
    static void ReleasePool();

    void AddBuffer(QOX::CRefCountPtr<CByteBuffer> buffer);
    // Copies bytes to the back, into the last buffer while it can grow: the list's owner must be
    // that buffer's only user (as for buffers the owner made itself).
    void AppendBytes(const unsigned char* data, unsigned int length);
    QOX::CRefCountPtr<CByteBuffer> PopBuffer();
    unsigned int GetSize() const { return m_size; }
    bool IsEmpty() const { return m_buffers.empty(); }
    unsigned int GetBufferCount() const { return static_cast<unsigned int>(m_buffers.size()); }
    // Copies count bytes from offset without removing them; false if fewer are held.
    bool PeekBytes(unsigned int offset, unsigned char* destination, unsigned int count) const;
    void DiscardBytesFromStart(unsigned int count);
    void Clear();

private:
    // A list, not a deque: an empty one allocates nothing (a parser or a quiet client end holds one).
    std::list<QOX::CRefCountPtr<CByteBuffer>> m_buffers;
    unsigned int m_size = 0;
};

} // namespace ZRT
