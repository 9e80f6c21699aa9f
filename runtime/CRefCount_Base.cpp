#include "runtime/CRefCount_Base.h"

namespace QOX {

CRefCount_Base::~CRefCount_Base() = default;

long CRefCount_Base::AddRef()
{
    return m_refCount.Increment();
}

long CRefCount_Base::ReleaseRef()
{
    const int remaining = m_refCount.Decrement();
    if (remaining == 0)
        delete this;
    return remaining;
}

void* CRefCount_Base::GetReferencedObject() const
{
    return const_cast<CRefCount_Base*>(this);
}

} // namespace QOX
