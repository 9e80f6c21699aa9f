#include "transport/CByteBufferList.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <vector>

namespace ZRT {
namespace {

// Idle buffers. A pooled buffer is handed out again only while the pool holds its only
// reference, so a buffer somebody still reads is never overwritten.
struct SPool {
    std::mutex mutex;
    std::vector<QOX::CRefCountPtr<CByteBuffer>> buffers;
};

SPool& Pool()
{
    static SPool* pool = new SPool(); // never destroyed: buffers may be reclaimed during exit
    return *pool;
}

} // namespace

CByteBufferList::~CByteBufferList() = default;

QOX::CRefCountPtr<CByteBuffer> CByteBufferList::GetBuffer(const unsigned char* data, unsigned int length)
{
    if (length <= POOLED_BUFFER_SIZE) {
        SPool& pool = Pool();
        std::lock_guard<std::mutex> hold(pool.mutex);
        for (auto it = pool.buffers.rbegin(); it != pool.buffers.rend(); ++it) {
            if ((*it).GetRawPointer()->GetRefCount() != 1)
                continue;
            QOX::CRefCountPtr<CByteBuffer> buffer = *it;
            pool.buffers.erase(std::next(it).base());
            buffer->Assign(data, length);
            return buffer;
        }
    }
    auto* fresh = new CByteBuffer(nullptr, std::max(length, POOLED_BUFFER_SIZE));
    fresh->Assign(data, length);
    return QOX::CRefCountPtr<CByteBuffer>(fresh);
}

void CByteBufferList::ReclaimBuffer(QOX::CRefCountPtr<CByteBuffer> buffer)
{
    if (!buffer || buffer->GetCapacity() != POOLED_BUFFER_SIZE)
        return;
    SPool& pool = Pool();
    std::lock_guard<std::mutex> hold(pool.mutex);
    if (pool.buffers.size() >= POOL_LIMIT)
        return;
    if (std::find_if(pool.buffers.begin(), pool.buffers.end(),
                     [&](const QOX::CRefCountPtr<CByteBuffer>& held) { return held.GetRawPointer() == buffer.GetRawPointer(); })
        != pool.buffers.end())
        return;
    pool.buffers.push_back(std::move(buffer));
}

unsigned int CByteBufferList::GetPoolSize()
{
    SPool& pool = Pool();
    std::lock_guard<std::mutex> hold(pool.mutex);
    return static_cast<unsigned int>(pool.buffers.size());
}

void CByteBufferList::ReleasePool()
{
    std::vector<QOX::CRefCountPtr<CByteBuffer>> released;
    {
        SPool& pool = Pool();
        std::lock_guard<std::mutex> hold(pool.mutex);
        released.swap(pool.buffers);
    }
    // Freed here, outside the pool's lock.
}

void CByteBufferList::AddBuffer(QOX::CRefCountPtr<CByteBuffer> buffer)
{
    if (!buffer)
        return;
    m_size += buffer->GetUnread();
    m_buffers.push_back(std::move(buffer));
}

void CByteBufferList::AppendBytes(const unsigned char* data, unsigned int length)
{
    if (length == 0 || !data)
        return;
    if (m_buffers.empty() || !m_buffers.back()->Append(data, length)) {
        AddBuffer(QOX::CRefCountPtr<CByteBuffer>(new CByteBuffer(data, length, false)));
        return;
    }
    m_size += length;
}

QOX::CRefCountPtr<CByteBuffer> CByteBufferList::PopBuffer()
{
    if (m_buffers.empty())
        return {};
    QOX::CRefCountPtr<CByteBuffer> front = std::move(m_buffers.front());
    m_buffers.pop_front();
    m_size -= front->GetUnread();
    return front;
}

bool CByteBufferList::PeekBytes(unsigned int offset, unsigned char* destination, unsigned int count) const
{
    if (offset > m_size || count > m_size - offset)
        return false;
    for (const auto& buffer : m_buffers) {
        if (count == 0)
            break;
        const unsigned int unread = buffer->GetUnread();
        if (offset >= unread) {
            offset -= unread;
            continue;
        }
        const unsigned int take = std::min(unread - offset, count);
        std::memcpy(destination, buffer->GetData() + buffer->GetOffset() + offset, take);
        destination += take;
        count -= take;
        offset = 0;
    }
    return true;
}

void CByteBufferList::DiscardBytesFromStart(unsigned int count)
{
    while (count > 0 && !m_buffers.empty()) {
        CByteBuffer* front = m_buffers.front().GetRawPointer();
        const unsigned int unread = front->GetUnread();
        if (count < unread) {
            front->SetOffset(front->GetOffset() + count);
            m_size -= count;
            return;
        }
        count -= unread;
        m_size -= unread;
        m_buffers.pop_front();
    }
}

void CByteBufferList::Clear()
{
    m_buffers.clear();
    m_size = 0;
}

} // namespace ZRT
