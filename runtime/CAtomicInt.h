#pragma once

#include <atomic>

#include "runtime/Export.h"

namespace QOX {

// An integer whose operations are atomic; copying copies the current value.
class ZRT_EXPORT CAtomicInt {
public:
    explicit CAtomicInt(int value = 0) : m_value(value) {}
    CAtomicInt(const CAtomicInt& other) : m_value(other.Get()) {}
    CAtomicInt& operator=(const CAtomicInt& other)
    {
        m_value.store(other.Get());
        return *this;
    }
    CAtomicInt& operator=(int value)
    {
        m_value.store(value);
        return *this;
    }

    int Get() const { return m_value.load(); }
    operator int() const { return Get(); }
    int Increment() { return m_value.fetch_add(1) + 1; }
    int Decrement() { return m_value.fetch_sub(1) - 1; }
    int Add(int delta) { return m_value.fetch_add(delta) + delta; }
    int Exchange(int value) { return m_value.exchange(value); }
    bool CompareExchange(int expected, int desired) { return m_value.compare_exchange_strong(expected, desired); }

private:
    std::atomic<int> m_value;
};

} // namespace QOX
