#include "proxy/core/CConnectionWatches.h"

#include "runtime/CRefCount_Base.h"

namespace ZRT {
namespace Proxy {

// The loop holds a reference to it while it is registered. The connection removes its watches
// (on the loop's thread) before it can go, so the callback never outlives it.
class CConnectionWatches::CWatch : public QOX::CRefCount_Base, public IEventHandler {
public:
    CWatch(const Ready& ready, ERole role) : m_ready(ready), m_role(role) {}
    long AddRef() override { return QOX::CRefCount_Base::AddRef(); }
    long ReleaseRef() override { return QOX::CRefCount_Base::ReleaseRef(); }
    void* GetReferencedObject() const override { return QOX::CRefCount_Base::GetReferencedObject(); }
    void OnEvents(uint32_t events) override { m_ready(m_role, events); }

private:
    const Ready m_ready;
    const ERole m_role;
};

CConnectionWatches::~CConnectionWatches()
{
    Close();
}

void CConnectionWatches::Start(CEventLoop& loop, const Ready& ready)
{
    m_loop = &loop;
    for (int role = 0; role < ROLE_COUNT; ++role)
        m_watches[role].handler = new CWatch(ready, static_cast<ERole>(role));
}

bool CConnectionWatches::Watch(ERole role, int descriptor, uint32_t events)
{
    SWatch& watch = m_watches[role];
    const bool wanted = descriptor >= 0 && (events != 0 || role == CLIENT);
    if (watch.token != 0 && (!wanted || descriptor != watch.descriptor))
        Remove(watch);
    if (!wanted)
        return true;
    if (watch.token != 0) {
        if (events != watch.events && m_loop->Modify(watch.token, descriptor, events))
            watch.events = events;
        return true;
    }
    watch.token = m_loop->Add(descriptor, events, watch.handler);
    if (watch.token == 0)
        return false;
    watch.descriptor = descriptor;
    watch.events = events;
    if (m_bulk && role != HANDLER)
        m_loop->SetBulk(watch.token, true);
    return true;
}

void CConnectionWatches::Remove(SWatch& watch)
{
    m_loop->Remove(watch.token, watch.descriptor);
    watch.token = 0;
    watch.descriptor = -1;
    watch.events = 0;
    watch.ready = 0;
}

void CConnectionWatches::ForgetClient()
{
    SWatch& watch = m_watches[CLIENT];
    if (watch.token != 0)
        m_loop->Forget(watch.token);
    watch = SWatch{watch.handler};
}

uint32_t CConnectionWatches::TakeReady(ERole role)
{
    const uint32_t ready = m_watches[role].ready;
    m_watches[role].ready = 0;
    return ready;
}

void CConnectionWatches::SetBulk(bool bulk)
{
    if (bulk == m_bulk)
        return;
    m_bulk = bulk;
    for (const ERole role : {CLIENT, LINK}) {
        if (m_watches[role].token != 0)
            m_loop->SetBulk(m_watches[role].token, bulk);
    }
}

void CConnectionWatches::SpendTurnBudget(int bytes)
{
    if (m_bulk && bytes > 0)
        m_loop->SpendTurnBudget(static_cast<size_t>(bytes));
}

void CConnectionWatches::WakeUpIn(int milliseconds, const std::function<void()>& task)
{
    if (milliseconds < 0) {
        if (m_timer != 0)
            m_loop->CancelDelayed(m_timer); // nothing is due any more: no wake-up for nothing
        m_timer = 0;
        return;
    }
    // One that comes early only plans again, so a deadline that moves on with every step (the
    // idle limit of a busy tunnel) is not posted anew each time; but not one due before half the
    // wait: a deadline that no longer applies (the connect's, once connected) must not wake an
    // idle loop.
    const Clock::time_point now = Clock::now();
    const Clock::time_point due = now + std::chrono::milliseconds(milliseconds);
    if (m_timer != 0 && m_timerDue <= due && m_timerDue >= now + (due - now) / 2)
        return;
    if (m_timer != 0)
        m_loop->CancelDelayed(m_timer);
    m_timerDue = due;
    m_timer = m_loop->PostDelayed(milliseconds, task);
}

void CConnectionWatches::Close()
{
    if (!m_loop)
        return;
    // A descriptor leaves the loop before it may be closed (its number could come back at once
    // for another connection of the same loop).
    Unwatch(HANDLER);
    Unwatch(LINK);
    ForgetClient();
    WakeUpIn(-1, {});
}

} // namespace Proxy
} // namespace ZRT
