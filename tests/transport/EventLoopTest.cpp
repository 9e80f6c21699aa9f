// The event loop: fair turns between bulk streams, and everything else served in every turn.
#include <gtest/gtest.h>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <map>
#include <mutex>
#include <vector>

#include "runtime/CRefCountImpl.h"
#include "transport/CEventLoop.h"

namespace ZRT {
namespace {

// Records each call on the loop's thread; a bulk one spends half a turn's budget per call.
class Recorder : public QOX::CRefCountImpl<IEventHandler> {
public:
    Recorder(CEventLoop& loop, int id, bool bulk, std::vector<int>& calls, std::mutex& mutex,
             std::condition_variable& changed)
        : m_loop(loop), m_id(id), m_bulk(bulk), m_calls(calls), m_mutex(mutex), m_changed(changed)
    {
    }
    long AddRef() override { return QOX::CRefCountImpl<IEventHandler>::AddRef(); }
    long ReleaseRef() override { return QOX::CRefCountImpl<IEventHandler>::ReleaseRef(); }
    void* GetReferencedObject() const override { return QOX::CRefCountImpl<IEventHandler>::GetReferencedObject(); }
    void OnEvents(uint32_t /*events*/) override
    {
        if (m_bulk)
            m_loop.SpendTurnBudget(CEventLoop::TURN_BUDGET / 2);
        std::lock_guard<std::mutex> hold(m_mutex);
        m_calls.push_back(m_id);
        m_changed.notify_all();
    }

private:
    CEventLoop& m_loop;
    const int m_id;
    const bool m_bulk;
    std::vector<int>& m_calls;
    std::mutex& m_mutex;
    std::condition_variable& m_changed;
};

TEST(EventLoop, BulkStreamsShareTheTurnsFairlyAndTheRestIsServedInEveryTurn)
{
    CEventLoop loop;
    ASSERT_TRUE(loop.Start());
    std::vector<int> calls;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<int> sockets;
    // Six streams that always have something to read, and one small exchange (id 0) that does
    // too, all set up in one task so that every turn sees them all.
    for (int id = 0; id <= 6; ++id) {
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
        ASSERT_EQ(write(pair[1], "x", 1), 1);
        sockets.insert(sockets.end(), {pair[0], pair[1]});
    }
    loop.Post([&] {
        for (int id = 0; id <= 6; ++id) {
            const bool bulk = id != 0;
            const uint64_t token = loop.Add(sockets[2 * id], EPOLLIN,
                                            QOX::CRefCountPtr<IEventHandler>(
                                                new Recorder(loop, id, bulk, calls, mutex, changed)));
            loop.SetBulk(token, bulk);
        }
    });
    {
        std::unique_lock<std::mutex> hold(mutex);
        ASSERT_TRUE(changed.wait_for(hold, std::chrono::seconds(10), [&] {
            return std::count(calls.begin(), calls.end(), 0) >= 60;
        }));
    }
    loop.Stop();
    // Id 0 is served once in every turn, wherever it falls in the turn; each turn serves at most
    // two bulk calls (a budget of two halves), so at most four fall between two of its calls.
    std::map<int, int> perStream;
    int sinceMark = 0;
    int turns = 0;
    int bulkCalls = 0;
    for (const int id : calls) {
        if (id == 0) {
            ++turns;
            EXPECT_LE(sinceMark, 4) << "turn " << turns;
            sinceMark = 0;
            continue;
        }
        ++sinceMark;
        ++bulkCalls;
        ++perStream[id];
    }
    EXPECT_LE(bulkCalls, 2 * (turns + 1));
    // Every stream had its turns, and none much more than another.
    ASSERT_EQ(perStream.size(), 6u);
    int fewest = perStream.begin()->second;
    int most = fewest;
    for (const auto& entry : perStream) {
        fewest = std::min(fewest, entry.second);
        most = std::max(most, entry.second);
    }
    EXPECT_LE(most - fewest, 3) << "fewest " << fewest << ", most " << most;
    for (const int socket : sockets)
        close(socket);
}

} // namespace
} // namespace ZRT
