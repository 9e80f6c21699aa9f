#pragma once

#include "runtime/CAtomicInt.h"
#include "runtime/Export.h"

namespace QOX {

// Intrusive reference counting: the count starts at 0 and the object deletes itself when a
// ReleaseRef brings it back to 0, on whichever thread that happens.
class ZRT_EXPORT CRefCount_Base {
public:
    CRefCount_Base() = default;
    CRefCount_Base(const CRefCount_Base&) : m_refCount(0) {}
    CRefCount_Base& operator=(const CRefCount_Base&) { return *this; }
    virtual ~CRefCount_Base();

    virtual long AddRef();
    virtual long ReleaseRef();
    virtual void* GetReferencedObject() const;

    int GetRefCount() const { return m_refCount.Get(); }

private:
    CAtomicInt m_refCount;
};

} // namespace QOX
