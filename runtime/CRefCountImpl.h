#pragma once

#include "runtime/CAtomicInt.h"

namespace QOX {

// Implements the three counting slots of a reference-counted interface (data layers, addresses)
// that declares them pure, so the interface keeps them in its first slots.
template <class Interface>
class CRefCountImpl : public Interface {
public:
    using Interface::Interface;
    CRefCountImpl() = default;
    // A copy is a new object: it starts unreferenced.
    CRefCountImpl(const CRefCountImpl& other) : Interface(other), m_refCount(0) {}
    CRefCountImpl& operator=(const CRefCountImpl& other)
    {
        Interface::operator=(other);
        return *this;
    }

    long AddRef() override { return m_refCount.Increment(); }
    long ReleaseRef() override
    {
        const int remaining = m_refCount.Decrement();
        if (remaining == 0)
            delete this;
        return remaining;
    }
    void* GetReferencedObject() const override { return const_cast<CRefCountImpl*>(this); }

    int GetRefCount() const { return m_refCount.Get(); }

private:
    CAtomicInt m_refCount;
};

} // namespace QOX
