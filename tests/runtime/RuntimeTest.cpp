#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "fakes/Polling.h"
#include "runtime/CCallGate.h"
#include "runtime/CEvent.h"
#include "runtime/CRefCountPtr.h"
#include "runtime/CRefCount_Base.h"
#include "runtime/CScratchLoan.h"
#include "runtime/CThread.h"
#include "runtime/CThreadPool.h"
#include "runtime/Clock.h"

namespace {

using ZRT::Testing::ThreadBaseline;
using ZRT::Testing::ThreadsBackTo;
using ZRT::Testing::WaitUntil;

std::atomic<int> g_destroyed{0};

class Counted : public QOX::CRefCount_Base {
public:
    ~Counted() override { g_destroyed.fetch_add(1); }
};

// Counts as absent once "closed", like a link that went away.
class Closable : public QOX::CRefCount_Base {
public:
    void* GetReferencedObject() const override { return m_closed ? nullptr : QOX::CRefCount_Base::GetReferencedObject(); }
    bool m_closed = false;
};

TEST(RefCount, DestroyedExactlyOnceWhenReleasedFromManyThreads)
{
    g_destroyed = 0;
    for (int round = 0; round < 50; ++round) {
        QOX::CRefCountPtr<Counted> shared(new Counted());
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([copy = shared]() mutable {
                for (int i = 0; i < 1000; ++i) {
                    QOX::CRefCountPtr<Counted> local = copy;
                    local = copy; // reassign the same object
                }
            });
        }
        shared.Reset();
        for (auto& thread : threads)
            thread.join();
    }
    EXPECT_EQ(g_destroyed.load(), 50);
}

TEST(RefCount, SelfAssignmentKeepsObjectAlive)
{
    g_destroyed = 0;
    QOX::CRefCountPtr<Counted> pointer(new Counted());
    pointer = pointer;
    pointer = pointer.GetRawPointer();
    ASSERT_TRUE(pointer);
    EXPECT_EQ(pointer.GetRawPointer()->GetRefCount(), 1);
    pointer.Reset();
    EXPECT_EQ(g_destroyed.load(), 1);
}

TEST(RefCount, ObjectWithoutReferencedObjectCountsAsAbsent)
{
    QOX::CRefCountPtr<Closable> pointer(new Closable());
    EXPECT_TRUE(pointer);
    pointer.GetRawPointer()->m_closed = true;
    EXPECT_FALSE(pointer);
    EXPECT_EQ(pointer.Get(), nullptr);
    EXPECT_NE(pointer.GetRawPointer(), nullptr); // still referenced, still released once
}

TEST(Event, StaysSignalledUntilReset)
{
    QOX::CEvent event(true);
    EXPECT_EQ(QOX::CSynchronizationObject::WaitForObject(event, 0), 2);
    event.SignalEvent();
    event.SignalEvent();
    EXPECT_EQ(QOX::CSynchronizationObject::WaitForObject(event, 0), 1);
    EXPECT_EQ(QOX::CSynchronizationObject::WaitForObject(event, -1), 1);
    event.ResetEvent();
    EXPECT_EQ(QOX::CSynchronizationObject::WaitForObject(event, 20), 2);
}

TEST(Event, WakesAWaiterBlockedWithoutLimit)
{
    QOX::CEvent event(true);
    std::atomic<int> result{0};
    std::atomic<pid_t> id{0};
    std::thread waiter([&] {
        id = ZRT::Testing::KernelThreadId();
        result = QOX::CSynchronizationObject::WaitForObject(event, -1);
    });
    // Asleep in the wait, or back from it too early: only the signal may end it.
    EXPECT_TRUE(WaitUntil([&] { return result != 0 || (id != 0 && ZRT::Testing::ThreadIsAsleep(id)); }));
    EXPECT_EQ(result.load(), 0);
    event.SignalEvent();
    waiter.join();
    EXPECT_EQ(result.load(), 1);
}

class StopAwareThread : public QOX::CThread {
public:
    StopAwareThread() : QOX::CThread(false) {}
    ~StopAwareThread() override { StopThread(-1); }
    int Run() override
    {
        m_started = true;
        const int result = QOX::CSynchronizationObject::WaitForObject(m_stopEvent, -1);
        m_sawStop = result == 1;
        return 7;
    }
    std::atomic<bool> m_started{false};
    std::atomic<bool> m_sawStop{false};
};

TEST(Thread, StopWakesAThreadSleepingOnItsStopEvent)
{
    StopAwareThread thread;
    EXPECT_EQ(thread.GetThreadStatus(), QOX::CThread::STATUS_NOT_STARTED);
    ASSERT_TRUE(thread.StartThread(false));
    EXPECT_NE(thread.GetThreadStatus(), QOX::CThread::STATUS_NOT_STARTED);
    EXPECT_TRUE(thread.StopThread(-1));
    EXPECT_TRUE(thread.m_sawStop);
    EXPECT_EQ(thread.GetThreadStatus(), QOX::CThread::STATUS_ENDED);
    // Restartable after it ended.
    ASSERT_TRUE(thread.StartThread(false));
    EXPECT_TRUE(thread.StopThread(-1));
}

TEST(Thread, StopWithTimeOutReportsAThreadThatDoesNotEnd)
{
    class Stubborn : public QOX::CThread {
    public:
        int Run() override
        {
            QOX::CSynchronizationObject::WaitForObject(m_release, -1);
            return 0;
        }
        QOX::CEvent m_release{true};
    } thread;
    ASSERT_TRUE(thread.StartThread(false));
    EXPECT_FALSE(thread.StopThread(30));
    EXPECT_EQ(thread.GetThreadStatus(), QOX::CThread::STATUS_STOPPING);
    thread.m_release.SignalEvent();
    EXPECT_TRUE(thread.StopThread(-1));
}

// An object that releases its last reference on its own thread, as client connections do.
class SelfReleasing : public QOX::CRefCount_Base, public QOX::CThread {
public:
    ~SelfReleasing() override { g_destroyed.fetch_add(1); }
    int ThreadFunc() override
    {
        AddRef();
        const int result = QOX::CThread::ThreadFunc();
        ReleaseRef();
        return result;
    }
    int Run() override
    {
        m_identifiedItself = QOX::CThread::IsCurrentThread(*this);
        return 0;
    }
    std::atomic<bool> m_identifiedItself{false};
};

TEST(Thread, ObjectMayBeDestroyedOnItsOwnThread)
{
    g_destroyed = 0;
    for (int i = 0; i < 20; ++i) {
        auto* object = new SelfReleasing();
        ASSERT_TRUE(object->StartThread(false));
    }
    WaitUntil([] { return g_destroyed.load() >= 20; }, 5000);
    EXPECT_EQ(g_destroyed.load(), 20);
}

// A finished thread serves the next CThread: same OS thread, and the ended object no longer
// counts it as its own.
TEST(Thread, AFinishedThreadIsReusedAndBelongsOnlyToItsNewObject)
{
    StopAwareThread first;
    ASSERT_TRUE(first.StartThread(false));
    ASSERT_TRUE(first.StopThread(-1));
    const pthread_t firstThread = first.GetThreadID();

    class Probe : public QOX::CThread {
    public:
        explicit Probe(const QOX::CThread& ended) : m_ended(ended) {}
        ~Probe() override { StopThread(-1); }
        int Run() override
        {
            m_ownsEnded = QOX::CThread::IsCurrentThread(m_ended);
            m_ownsItself = QOX::CThread::IsCurrentThread(*this);
            return 0;
        }
        const QOX::CThread& m_ended;
        std::atomic<bool> m_ownsEnded{true};
        std::atomic<bool> m_ownsItself{false};
    } second(first);
    ASSERT_TRUE(second.StartThread(false));
    ASSERT_TRUE(second.StopThread(-1));
    EXPECT_TRUE(pthread_equal(firstThread, second.GetThreadID())) << "the idle thread was not reused";
    EXPECT_FALSE(second.m_ownsEnded);
    EXPECT_TRUE(second.m_ownsItself);
}

// Draining ends every idle thread at once, the one whose object was just waited for included.
TEST(Thread, DrainEndsEveryIdleThreadAtOnce)
{
    QOX::CThreadPool::Instance().DrainIdle();
    const int before = ThreadBaseline();
    {
        std::vector<std::unique_ptr<StopAwareThread>> burst;
        for (int i = 0; i < 4; ++i) {
            burst.emplace_back(new StopAwareThread());
            ASSERT_TRUE(burst.back()->StartThread(false));
        }
    }
    EXPECT_EQ(QOX::CThreadPool::Instance().GetIdleCount(), 4u) << "a waited-for thread is back in the pool";
    QOX::CThreadPool::Instance().DrainIdle();
    EXPECT_EQ(QOX::CThreadPool::Instance().GetIdleCount(), 0u);
    // The grace for a joined thread to leave the list is far below the idle lifetime a detached
    // leftover would live for.
    EXPECT_TRUE(ThreadsBackTo(before, QOX::CThreadPool::IDLE_LIFETIME_MS / 4))
        << "drained threads are joined, not left to finish later";
}

// Idle threads leave by themselves, so a burst does not leave the process bigger for good.
TEST(Thread, SlowIdleThreadsLeaveAfterTheirLifetime)
{
    std::vector<std::unique_ptr<StopAwareThread>> burst;
    for (int i = 0; i < 8; ++i) {
        burst.emplace_back(new StopAwareThread());
        ASSERT_TRUE(burst.back()->StartThread(false));
    }
    burst.clear();
    EXPECT_GE(QOX::CThreadPool::Instance().GetIdleCount(), 1u);
    EXPECT_TRUE(WaitUntil([] { return QOX::CThreadPool::Instance().GetIdleCount() == 0; },
                          QOX::CThreadPool::IDLE_LIFETIME_MS * 3));
}

// The descriptor is made on first wait: a signal given before it must show on it, and a reset
// must clear it, in any order.
TEST(Event, DescriptorMadeLateMirrorsTheState)
{
    QOX::CEvent early(true);
    early.SignalEvent();
    EXPECT_EQ(QOX::CSynchronizationObject::WaitForObject(early, 0), 1);
    pollfd entry{early.GetWaitHandle(), POLLIN, 0};
    EXPECT_EQ(poll(&entry, 1, 0), 1);
    early.ResetEvent();
    EXPECT_EQ(poll(&entry, 1, 0), 0);
    early.SignalEvent();
    EXPECT_EQ(poll(&entry, 1, 0), 1);

    QOX::CEvent flipped(true);
    for (int i = 0; i < 3; ++i) {
        flipped.SignalEvent();
        flipped.ResetEvent();
    }
    pollfd quiet{flipped.GetWaitHandle(), POLLIN, 0};
    EXPECT_EQ(poll(&quiet, 1, 0), 0);
}

// The owner's wait ends only once another thread left its callback, and never waits for the
// owner's own callback (teardown may start from inside one).
TEST(CallGate, WaitsForOtherThreadsInsideButNotForItself)
{
    QOX::CCallGate gate;
    std::atomic<bool> inside{false};
    std::atomic<bool> release{false};
    std::atomic<bool> left{false};
    const pid_t owner = ZRT::Testing::KernelThreadId();
    std::thread callback([&] {
        {
            QOX::CCallGate::CScope scope(gate);
            inside = true;
            WaitUntil([&] { return release.load(); });
            // Leaves only once the owner sleeps in its wait: a wait that returned early sees it inside.
            ZRT::Testing::WaitUntilAsleep(owner);
            left = true;
        }
    });
    ASSERT_TRUE(WaitUntil([&] { return inside.load(); }));
    {
        QOX::CCallGate::CScope own(gate);
        release = true;
        gate.WaitForOthers();
        EXPECT_TRUE(left.load());
    }
    callback.join();
    gate.WaitForOthers(); // nobody inside: returns at once
}

// A thread reuses its buffer, a nested loan never shares it, and a release lets go of idle
// buffers only: one lent at that moment keeps its bytes, and a thread that ended holds none.
TEST(ScratchLoan, ReusedPerThreadNeverSharedAndReleasedOnlyWhileIdle)
{
    QOX::CScratchLoan::ReleaseIdle();
    const size_t before = QOX::CScratchLoan::GetHeldCount();
    unsigned char* first = nullptr;
    {
        const QOX::CScratchLoan loan;
        first = loan.Get();
        const QOX::CScratchLoan nested;
        EXPECT_NE(nested.Get(), first);
        first[0] = 1;
        nested.Get()[QOX::CScratchLoan::SIZE - 1] = 2; // both are whole
    }
    {
        const QOX::CScratchLoan again;
        EXPECT_EQ(again.Get(), first);
    }
    EXPECT_EQ(QOX::CScratchLoan::GetHeldCount(), before + 1);

    std::atomic<bool> lent{false};
    std::atomic<bool> released{false};
    std::atomic<bool> intact{false};
    std::thread borrower([&] {
        const QOX::CScratchLoan loan;
        std::fill(loan.Get(), loan.Get() + QOX::CScratchLoan::SIZE, 0x5a);
        lent = true;
        WaitUntil([&] { return released.load(); });
        intact = std::all_of(loan.Get(), loan.Get() + QOX::CScratchLoan::SIZE,
                             [](unsigned char byte) { return byte == 0x5a; });
    });
    ASSERT_TRUE(WaitUntil([&] { return lent.load(); }));
    QOX::CScratchLoan::ReleaseIdle();
    EXPECT_EQ(QOX::CScratchLoan::GetHeldCount(), before + 1); // the borrower's alone
    released = true;
    borrower.join();
    EXPECT_TRUE(intact.load());
    EXPECT_EQ(QOX::CScratchLoan::GetHeldCount(), before); // the borrower ended
    {
        const QOX::CScratchLoan fresh; // this thread's was let go: a new one comes
        fresh.Get()[0] = 3;
    }
    QOX::CScratchLoan::ReleaseIdle();
    EXPECT_EQ(QOX::CScratchLoan::GetHeldCount(), before);
}

TEST(Clock, DifferencesSurviveTheWrap)
{
    const uint32_t before = QOX::clock();
    // Move the clock so that it wraps within the next second.
    QOX::AdvanceClockForTesting(0u - before - 500000u);
    const uint32_t nearWrap = QOX::clock();
    QOX::AdvanceClockForTesting(1000000u);
    const uint32_t afterWrap = QOX::clock();
    EXPECT_LT(afterWrap, nearWrap);
    const uint32_t age = afterWrap - nearWrap;
    EXPECT_GE(age, 1000000u);
    EXPECT_LT(age, 60000000u);
}

} // namespace
