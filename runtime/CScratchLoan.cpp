#include "runtime/CScratchLoan.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <new>
#include <vector>

namespace QOX {

// One per thread that ever borrowed. The owner thread moves it Idle -> Lent -> Idle; a releaser
// moves it Idle -> Releasing -> Idle and frees the buffer in between, so neither touches the
// buffer while the other holds it.
struct CScratchLoan::SSlot {
    enum EState { Idle, Lent, Releasing };
    std::atomic<int> state{Idle};
    unsigned char* buffer = nullptr; // owned; read and written only by whoever moved state off Idle
};

namespace {

struct SRegistry {
    // Guards slots (every live thread's slot); a leaf.
    std::mutex mutex;
    std::vector<CScratchLoan::SSlot*> slots;
};

SRegistry& Registry()
{
    static SRegistry* registry = new SRegistry(); // never destroyed: threads may end during exit
    return *registry;
}

// Registers the thread's slot on its first loan and takes it out when the thread ends.
class CThreadSlot {
public:
    CThreadSlot()
    {
        SRegistry& registry = Registry();
        std::lock_guard<std::mutex> hold(registry.mutex);
        registry.slots.push_back(&m_slot);
    }
    ~CThreadSlot()
    {
        {
            SRegistry& registry = Registry();
            std::lock_guard<std::mutex> hold(registry.mutex);
            registry.slots.erase(std::remove(registry.slots.begin(), registry.slots.end(), &m_slot),
                                 registry.slots.end());
        }
        delete[] m_slot.buffer;
        // A loan from a later exit handler of this thread gets a buffer of its own.
        m_slot.buffer = nullptr;
        m_slot.state.store(CScratchLoan::SSlot::Lent);
    }
    CThreadSlot(const CThreadSlot&) = delete;
    CThreadSlot& operator=(const CThreadSlot&) = delete;

    CScratchLoan::SSlot& Get() { return m_slot; }

private:
    CScratchLoan::SSlot m_slot;
};

} // namespace

CScratchLoan::CScratchLoan()
{
    thread_local CThreadSlot t_slot;
    SSlot& slot = t_slot.Get();
    int idle = SSlot::Idle;
    // Lent: a nested loan. Releasing: a releaser is freeing it this moment; neither waits.
    if (!slot.state.compare_exchange_strong(idle, SSlot::Lent, std::memory_order_acquire)) {
        m_own.reset(new unsigned char[SIZE]);
        m_buffer = m_own.get();
        return;
    }
    if (!slot.buffer) {
        slot.buffer = new (std::nothrow) unsigned char[SIZE];
        if (!slot.buffer) {
            slot.state.store(SSlot::Idle, std::memory_order_release);
            throw std::bad_alloc();
        }
    }
    m_slot = &slot;
    m_buffer = slot.buffer;
}

CScratchLoan::~CScratchLoan()
{
    if (m_slot)
        m_slot->state.store(SSlot::Idle, std::memory_order_release);
}

void CScratchLoan::ReleaseIdle()
{
    SRegistry& registry = Registry();
    std::lock_guard<std::mutex> hold(registry.mutex);
    for (SSlot* slot : registry.slots) {
        int idle = SSlot::Idle;
        if (!slot->state.compare_exchange_strong(idle, SSlot::Releasing, std::memory_order_acquire))
            continue;
        delete[] slot->buffer;
        slot->buffer = nullptr;
        slot->state.store(SSlot::Idle, std::memory_order_release);
    }
}

size_t CScratchLoan::GetHeldCount()
{
    SRegistry& registry = Registry();
    std::lock_guard<std::mutex> hold(registry.mutex);
    size_t held = 0;
    for (SSlot* slot : registry.slots) {
        int idle = SSlot::Idle;
        if (!slot->state.compare_exchange_strong(idle, SSlot::Releasing, std::memory_order_acquire)) {
            ++held; // lent now, so it holds one
            continue;
        }
        held += slot->buffer ? 1 : 0;
        slot->state.store(SSlot::Idle, std::memory_order_release);
    }
    return held;
}

} // namespace QOX
