#pragma once

#include <cstddef>
#include <memory>

namespace QOX {

// Lends the calling thread's scratch buffer (SIZE bytes) for one read and its handling, so that
// a busy thread reuses one buffer instead of allocating per read. A loan made while the thread's
// buffer is lent already (a read nested in another's handling) gets a buffer of its own.
//
// The buffers outlive the reads that touched them: ReleaseIdle lets go of every one not lent at
// that moment, so a proxy that fell quiet gives their pages back; the next loan allocates anew.
//
// Threads: a loan is made and ended on one thread; ReleaseIdle on any.
class CScratchLoan {
public:
    static constexpr size_t SIZE = 64 * 1024;

    CScratchLoan();
    ~CScratchLoan();
    CScratchLoan(const CScratchLoan&) = delete;
    CScratchLoan& operator=(const CScratchLoan&) = delete;

    unsigned char* Get() const { return m_buffer; }

    // Frees every thread's buffer that is not lent now. Any thread.
    static void ReleaseIdle();
    // How many threads hold a buffer (for tests and diagnostics; a loan made while it counts gets
    // a buffer of its own). Any thread.
    static size_t GetHeldCount();

    struct SSlot;

private:
    SSlot* m_slot = nullptr; // the thread's slot while its buffer is lent
    std::unique_ptr<unsigned char[]> m_own;
    unsigned char* m_buffer = nullptr;
};

} // namespace QOX
