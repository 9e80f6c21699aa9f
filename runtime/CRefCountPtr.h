#pragma once

#include <cstddef>

namespace QOX {

// Holds one reference on a T that has AddRef, ReleaseRef and GetReferencedObject.
// The new object is referenced before the old one is released, so self-assignment is safe.
// An object whose GetReferencedObject() is null counts as absent.
template <class T>
class CRefCountPtr {
public:
    CRefCountPtr() = default;
    CRefCountPtr(T* object) : m_object(object) // NOLINT(google-explicit-constructor)
    {
        if (m_object)
            m_object->AddRef();
    }
    CRefCountPtr(const CRefCountPtr& other) : CRefCountPtr(other.m_object) {}
    template <class U>
    CRefCountPtr(const CRefCountPtr<U>& other) : CRefCountPtr(other.GetRawPointer()) // NOLINT
    {
    }
    CRefCountPtr(CRefCountPtr&& other) noexcept : m_object(other.m_object) { other.m_object = nullptr; }
    virtual ~CRefCountPtr() { Reset(); }

    CRefCountPtr& operator=(T* object)
    {
        if (object)
            object->AddRef();
        T* old = m_object;
        m_object = object;
        if (old)
            old->ReleaseRef();
        return *this;
    }
    CRefCountPtr& operator=(const CRefCountPtr& other) { return *this = other.m_object; }
    CRefCountPtr& operator=(CRefCountPtr&& other) noexcept
    {
        if (this != &other) {
            T* old = m_object;
            m_object = other.m_object;
            other.m_object = nullptr;
            if (old)
                old->ReleaseRef();
        }
        return *this;
    }

    void Reset()
    {
        T* old = m_object;
        m_object = nullptr;
        if (old)
            old->ReleaseRef();
    }

    // The object if it is present, else null.
    T* Get() const { return (m_object && m_object->GetReferencedObject()) ? m_object : nullptr; }
    T* GetRawPointer() const { return m_object; }
    T* operator->() const { return Get(); }
    T& operator*() const { return *Get(); }
    explicit operator bool() const { return Get() != nullptr; }

private:
    T* m_object = nullptr;
};

// Downcast for objects known to be of a derived type (messages created by a known parser).
template <class To, class From>
CRefCountPtr<To> StaticCast(const CRefCountPtr<From>& from)
{
    return CRefCountPtr<To>(static_cast<To*>(from.GetRawPointer()));
}

} // namespace QOX
