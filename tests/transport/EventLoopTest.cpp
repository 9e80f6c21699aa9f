// The event loop: watches and their readiness, removal while it dispatches, delayed tasks, posts
// from other threads, stops; and fair turns between bulk streams.
#include <gtest/gtest.h>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "fakes/Guarded.h"
#include "fakes/Polling.h"
#include "runtime/CRefCountImpl.h"
#include "transport/CEventLoop.h"

namespace ZRT {
namespace {

using Testing::KernelThreadId;
using Testing::WaitUntilAsleep;

// What happened, in order, whichever thread it happened on.
struct SNotes : Testing::Guarded {
    std::vector<std::string> list;
    void Add(const std::string& what) { Change([&] { list.push_back(what); }); }
    std::vector<std::string> Get() const { return Locked([&] { return list; }); }
    bool WaitForCount(size_t count) { return WaitFor([&] { return list.size() >= count; }); }
    bool WaitForNote(const std::string& what) { return WaitFor([&] { return Has(what); }); }
    bool Has(const std::string& what) const { return std::find(list.begin(), list.end(), what) != list.end(); }
};

// A watch that calls the test's function.
class Probe : public QOX::CRefCountImpl<IEventHandler> {
public:
    explicit Probe(std::function<void(uint32_t)> onEvents) : m_onEvents(std::move(onEvents)) {}
    void OnEvents(uint32_t events) override { m_onEvents(events); }

private:
    std::function<void(uint32_t)> m_onEvents;
};

class EventLoopTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_loop.Start()); }
    void TearDown() override
    {
        m_loop.Stop();
        for (const int socket : m_sockets)
            close(socket);
    }

    // Two connected sockets, closed at the end: [0] is watched, [1] plays its peer.
    std::array<int, 2> Pair(bool readable = false)
    {
        int pair[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
        EXPECT_TRUE(!readable || write(pair[1], "x", 1) == 1);
        m_sockets.insert(m_sockets.end(), {pair[0], pair[1]});
        return {pair[0], pair[1]};
    }
    // Notes in m_gone when the last copy goes: "name@loop" on the loop's thread, else "name@other".
    std::shared_ptr<void> Life(const std::string& name)
    {
        return std::shared_ptr<void>(nullptr, [this, name](void*) {
            m_gone.Add(name + (m_loop.IsLoopThread() ? "@loop" : "@other"));
        });
    }
    // Watches socket; each call notes "name:" and the events, then runs onEvents.
    uint64_t Watch(int socket, uint32_t events, const std::string& name,
                   const std::function<void(uint32_t)>& onEvents = [](uint32_t) {})
    {
        return m_loop.Add(socket, events, QOX::CRefCountPtr<IEventHandler>(new Probe(
            [this, name, onEvents, life = Life(name)](uint32_t got) {
                m_calls.Add(name + ":" + ((got & EPOLLIN) ? "in" : "") + ((got & EPOLLOUT) ? "out" : "") +
                            (m_loop.IsLoopThread() ? "" : " off the loop"));
                onEvents(got);
            })));
    }
    // A task that notes name when it runs.
    CEventLoop::Task Noting(const std::string& name)
    {
        return [this, name, life = Life(name)] { m_calls.Add(name); };
    }
    // Runs f on the loop's thread; true once it ran. A loop that does not run it is stopped
    // before this returns, so that f never runs after the test's frame is gone.
    bool OnLoop(std::function<void()> f)
    {
        auto done = std::make_shared<SNotes>();
        m_loop.Post([f = std::move(f), done] {
            f();
            done->Add("ran");
        });
        if (done->WaitForCount(1))
            return true;
        m_loop.Stop();
        return false;
    }
    // True once the loop finished a whole turn begun after the call: whatever was ready by then
    // has been dispatched.
    bool Settle() { return OnLoop([] {}) && OnLoop([] {}); }

    SNotes m_calls;
    SNotes m_gone;
    std::vector<int> m_sockets;
    CEventLoop m_loop;
};

TEST_F(EventLoopTest, AWatchGetsTheReadinessItAsksForOnTheLoopThread)
{
    const auto pair = Pair();
    std::atomic<uint64_t> token{0};
    // Reads what comes and then asks to write; once writable asks to read again.
    token = Watch(pair[0], EPOLLIN, "w", [&](uint32_t events) {
        char byte = 0;
        const bool in = events == EPOLLIN && read(pair[0], &byte, 1) == 1;
        EXPECT_TRUE(m_loop.Modify(token, pair[0], in ? EPOLLOUT : EPOLLIN));
    });
    ASSERT_NE(token.load(), 0u);
    for (const size_t calls : {2, 4}) {
        ASSERT_EQ(write(pair[1], "x", 1), 1);
        ASSERT_TRUE(m_calls.WaitForCount(calls));
    }
    // A writable socket no longer asked for writing is not reported again.
    ASSERT_TRUE(Settle());
    EXPECT_EQ(m_calls.Get(), (std::vector<std::string>{"w:in", "w:out", "w:in", "w:out"}));

    EXPECT_FALSE(m_loop.Modify(token, -1, EPOLLIN));
    EXPECT_EQ(Watch(-1, EPOLLIN, "refused"), 0u);
    EXPECT_EQ(m_gone.Get(), std::vector<std::string>{"refused@other"}) << "a refused watch is let go";
}

TEST_F(EventLoopTest, AWatchRemovedDuringATurnIsNotCalledAfterwardsNorItsTokenReused)
{
    // Both ready in the same turn. The first called removes itself, forgets the other and closes
    // its socket, whose number then goes to a new quiet watch: the other's event, already taken
    // from epoll, must reach neither.
    const std::array<std::array<int, 2>, 2> pairs = {Pair(true), Pair(true)};
    std::array<std::atomic<uint64_t>, 2> tokens{};
    std::atomic<bool> acted{false};
    const auto first = [&](int self) {
        if (acted.exchange(true))
            return;
        const int other = pairs[1 - self][0];
        m_loop.Remove(tokens[self], pairs[self][0]);
        m_loop.Forget(tokens[1 - self]);
        close(other);
        std::replace(m_sockets.begin(), m_sockets.end(), other, -1);
        const auto fresh = Pair();
        if (fresh[0] != other) {
            ASSERT_EQ(dup2(fresh[0], other), other);
            m_sockets.push_back(other);
        }
        EXPECT_NE(Watch(other, EPOLLIN, "reused number"), 0u);
    };
    ASSERT_TRUE(OnLoop([&] {
        tokens[0] = Watch(pairs[0][0], EPOLLIN, "0", [&](uint32_t) { first(0); });
        tokens[1] = Watch(pairs[1][0], EPOLLIN, "1", [&](uint32_t) { first(1); });
    }));
    ASSERT_TRUE(m_calls.WaitForCount(1));
    ASSERT_TRUE(Settle());
    const std::string called = m_calls.Get().front().substr(0, 1);
    const std::string other = called == "0" ? "1" : "0";
    EXPECT_EQ(m_calls.Get(), std::vector<std::string>{called + ":in"});
    // The other goes at once; the one called only after its call returned.
    EXPECT_EQ(m_gone.Get(), (std::vector<std::string>{other + "@loop", called + "@loop"}));
}

TEST_F(EventLoopTest, DelayedTasksRunByDueTimeAndACancelledOneNever)
{
    std::atomic<uint64_t> far{0};
    // Set within one task, so none can run before all are set.
    ASSERT_TRUE(OnLoop([&] {
        far = m_loop.PostDelayed(60000, Noting("far"));
        m_loop.PostDelayed(1, Noting("first"));
        m_loop.CancelDelayed(m_loop.PostDelayed(1, Noting("cancelled")));
        m_loop.PostDelayed(1, [this] {
            m_calls.Add("second");
            // Set on the loop's thread, which nothing wakes: it must count it in its sleep.
            m_loop.PostDelayed(20, Noting("set by a task"));
        });
    }));
    ASSERT_TRUE(m_calls.WaitForNote("set by a task"));
    EXPECT_EQ(m_calls.Get(), (std::vector<std::string>{"first", "second", "set by a task"}));
    // Cancelled from another thread: let go on the loop's thread, later (so a caller may hold a
    // lock that the closure's end takes).
    m_loop.CancelDelayed(far);
    ASSERT_TRUE(m_gone.WaitForNote("far@loop"));
    EXPECT_TRUE(m_gone.Locked([&] { return m_gone.Has("cancelled@loop"); }));
}

TEST_F(EventLoopTest, PostsFromOtherThreadsWakeTheLoopAndRunInTheirOrderOnItsThread)
{
    pid_t loopThread = 0;
    ASSERT_TRUE(OnLoop([&] { loopThread = KernelThreadId(); }));
    // Asleep with nothing due: only the post itself can wake it.
    ASSERT_TRUE(WaitUntilAsleep(loopThread));
    ASSERT_TRUE(OnLoop([] {}));

    constexpr int PER_THREAD = 500;
    std::array<std::vector<int>, 3> seen; // loop thread only, read after the last post ran
    std::atomic<int> offLoop{0};
    std::vector<std::thread> posters;
    for (size_t poster = 0; poster < seen.size(); ++poster) {
        posters.emplace_back([&, poster] {
            for (int i = 0; i < PER_THREAD; ++i) {
                m_loop.Post([&, poster, i] {
                    offLoop += m_loop.IsLoopThread() ? 0 : 1;
                    seen[poster].push_back(i);
                });
            }
        });
    }
    for (auto& poster : posters)
        poster.join();
    ASSERT_TRUE(OnLoop([] {}));
    EXPECT_EQ(offLoop.load(), 0);
    for (const auto& each : seen) {
        ASSERT_EQ(each.size(), static_cast<size_t>(PER_THREAD));
        EXPECT_TRUE(std::is_sorted(each.begin(), each.end()));
    }
}

TEST_F(EventLoopTest, StopFromAnotherThreadReleasesWhatTheLoopHeldAndRunsNothingAfter)
{
    const auto pair = Pair();
    Watch(pair[0], EPOLLIN, "quiet");
    m_loop.PostDelayed(60000, Noting("far"));
    std::atomic<int> alive{0};
    for (int i = 0; i < 1000; ++i) {
        ++alive;
        m_loop.Post([count = std::shared_ptr<void>(nullptr, [&](void*) { --alive; })] {});
    }
    m_loop.Stop();
    // Each post ran before the stop returned or was dropped by it; either way it is let go, and
    // so is everything else the loop held.
    EXPECT_EQ(alive.load(), 0);
    auto gone = m_gone.Get();
    std::sort(gone.begin(), gone.end());
    EXPECT_EQ(gone, (std::vector<std::string>{"far@other", "quiet@other"}));
    EXPECT_TRUE(m_calls.Get().empty());
}

TEST_F(EventLoopTest, StopFromInsideACallbackReturnsAndNothingPendingRunsAfterIt)
{
    // Readable in every turn: called again unless the loop really stopped.
    const auto pair = Pair(true);
    Watch(pair[0], EPOLLIN, "ready", [&](uint32_t) {
        m_loop.Post(Noting("posted before the stop"));
        m_loop.PostDelayed(0, Noting("due before the stop"));
        m_loop.Stop();
        m_calls.Add("stop returned");
    });
    ASSERT_TRUE(m_calls.WaitForNote("stop returned"));
    m_loop.Stop(); // from here: waits for the thread's end
    EXPECT_EQ(m_calls.Get(), (std::vector<std::string>{"ready:in", "stop returned"}));
    auto gone = m_gone.Get();
    std::sort(gone.begin(), gone.end());
    EXPECT_EQ(gone, (std::vector<std::string>{"due before the stop@loop", "posted before the stop@loop", "ready@loop"}));
}

TEST_F(EventLoopTest, BulkStreamsShareTheTurnsFairlyAndTheRestIsServedFirstInEveryTurn)
{
    // Six streams that always have something to read, and one small exchange (id 0) that does
    // too, all set up in one task so that every turn sees them all.
    std::vector<std::array<int, 2>> pairs;
    for (int id = 0; id <= 6; ++id)
        pairs.push_back(Pair(true));
    constexpr int TURN_MARK = -1;
    std::vector<int> calls; // loop thread only until the stop
    std::atomic<int> turns{0};
    ASSERT_TRUE(OnLoop([&] {
        for (int id = 0; id <= 6; ++id) {
            const uint64_t token = m_loop.Add(pairs[id][0], EPOLLIN, QOX::CRefCountPtr<IEventHandler>(new Probe([&, id](uint32_t) {
                m_loop.SpendTurnBudget(id == 0 ? 0 : CEventLoop::TURN_BUDGET / 2);
                calls.push_back(id);
                turns += id == 0 ? 1 : 0;
                // Posted tasks run at the start of the next turn: they mark where it begins.
                m_loop.Post([&] { calls.push_back(TURN_MARK); });
            })));
            m_loop.SetBulk(token, id != 0);
        }
    }));
    ASSERT_TRUE(Testing::WaitUntil([&] { return turns >= 60; }));
    m_loop.Stop();
    // In every turn id 0 comes before any bulk call (it waits for none of its turn's bulk
    // work), and at most two bulk calls follow it (a budget of two halves).
    std::map<int, int> perStream;
    bool seenSmall = false;
    int bulkInTurn = 0;
    for (const int id : calls) {
        if (id == TURN_MARK) {
            seenSmall = false;
            bulkInTurn = 0;
            continue;
        }
        if (id == 0) {
            EXPECT_EQ(bulkInTurn, 0) << "the small exchange waited behind bulk work of its turn";
            seenSmall = true;
            continue;
        }
        ++bulkInTurn;
        ++perStream[id];
        EXPECT_LE(bulkInTurn, 2);
        EXPECT_TRUE(seenSmall) << "a bulk stream was served before the small exchange";
    }
    // Every stream had its turns, and none much more than another.
    ASSERT_EQ(perStream.size(), 6u);
    const auto [fewest, most] = std::minmax_element(perStream.begin(), perStream.end(),
                                                    [](const auto& a, const auto& b) { return a.second < b.second; });
    EXPECT_LE(most->second - fewest->second, 3) << "fewest " << fewest->second << ", most " << most->second;
}

} // namespace
} // namespace ZRT
