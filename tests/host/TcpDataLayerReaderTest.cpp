// The relay fast paths of the direct TCP link: a reader polling the link's descriptor on its
// own thread (AttachReader/ReceiveData), bytes moved straight into another socket
// (ReceiveInto) and taken straight from one (SendFrom).
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <future>
#include <string>

#include "RecordingSink.h"
#include "TestSockets.h"
#include "host/CDirectMultiPointLayer.h"
#include "host/CEventLoopPool.h"

using namespace ZRT;
using namespace ZRT::Host;
using ZRT::Testing::RecordingSink;
using ZRT::Testing::TestSockets;

namespace {

bool PollReadable(int descriptor, int timeoutMs = 5000)
{
    pollfd entry{descriptor, POLLIN, 0};
    return poll(&entry, 1, timeoutMs) > 0;
}

class TcpDataLayerReaderTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        unsigned int port = 0;
        m_listening = TestSockets::Listen("127.0.0.1", port);
        ASSERT_GE(m_listening, 0);
        m_link = m_layer.Connect(*TestSockets::Address("127.0.0.1", port), *TestSockets::Address("127.0.0.1", 1));
        ASSERT_TRUE(m_link);
        m_peer = TestSockets::Accept(m_listening);
        ASSERT_GE(m_peer, 0);
        // The "client" side: m_near is handed to the link, m_far is what the client reads.
        int pair[2];
        // Non-blocking, as the connection's client socket: a splice into a blocking socket waits.
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair));
        m_near = pair[0];
        m_far = pair[1];
    }

    void TearDown() override
    {
        if (m_link) {
            m_link->DetachReader();
            m_link->RemoveNotification(&m_sink);
            m_link->Disconnect();
        }
        for (int socket : {m_peer, m_listening, m_near, m_far})
            TestSockets::Close(socket);
    }

    // What a reader gets until the link's end (or `count` bytes), polling like the connection.
    std::string ReadAsReader(int descriptor, size_t count, int* last)
    {
        std::string got;
        unsigned char buffer[4096];
        while (got.size() < count && PollReadable(descriptor)) {
            *last = m_link->ReceiveData(buffer, sizeof(buffer));
            if (*last < 0)
                break;
            got.append(reinterpret_cast<const char*>(buffer), static_cast<size_t>(*last));
        }
        return got;
    }

    CEventLoopPool m_loops{1};
    CDirectMultiPointLayer m_layer{m_loops};
    QOX::CRefCountPtr<IZRTDataLayer> m_link;
    RecordingSink m_sink;
    int m_listening = -1;
    int m_peer = -1;
    int m_near = -1;
    int m_far = -1;
};

// The reader takes every byte itself, in order; the sink hears no data, and the closure only
// once the reader has met the end and left.
TEST_F(TcpDataLayerReaderTest, ReaderTakesTheBytesAndTheEndIsReportedWhenItLeaves)
{
    const int descriptor = m_link->AttachReader();
    ASSERT_GE(descriptor, 0);
    EXPECT_EQ(-1, m_link->AttachReader()) << "one reader at a time";
    m_link->AddNotification(&m_sink);

    const std::string sent = TestSockets::Pattern(300000);
    ASSERT_TRUE(TestSockets::WriteAll(m_peer, sent));
    TestSockets::Close(m_peer);
    m_peer = -1;
    int last = 0;
    EXPECT_EQ(sent, ReadAsReader(descriptor, SIZE_MAX, &last));
    EXPECT_EQ(-1, last);
    EXPECT_EQ(0, m_sink.DataCalls());
    EXPECT_EQ(0, m_sink.Closes());

    m_link->DetachReader();
    EXPECT_EQ(1, m_sink.Closes()) << "reported on the detaching thread";
    EXPECT_FALSE(m_link->IsConnected());
}

// Bytes the loop read ahead before the reader came are not overtaken by later ones.
TEST_F(TcpDataLayerReaderTest, BytesReadAheadBeforeAttachingComeFirst)
{
    RecordingSink quiet;
    quiet.drain = false; // hears, but leaves the bytes in the link
    m_link->AddNotification(&quiet);
    ASSERT_TRUE(TestSockets::WriteAll(m_peer, "early "));
    ASSERT_TRUE(quiet.WaitFor([&] { return quiet.dataCalls > 0; }));
    m_link->RemoveNotification(&quiet);

    const int descriptor = m_link->AttachReader();
    ASSERT_GE(descriptor, 0);
    ASSERT_TRUE(TestSockets::WriteAll(m_peer, "late"));
    unsigned char buffer[64];
    EXPECT_EQ(6, m_link->ReceiveData(buffer, sizeof(buffer))) << "held bytes first, without waiting";
    EXPECT_EQ("early ", std::string(reinterpret_cast<char*>(buffer), 6));
    int last = 0;
    EXPECT_EQ("late", ReadAsReader(descriptor, 4, &last));
}

// ReceiveInto moves the link's bytes into a socket; what that socket will not take stays with
// the link and comes out of ReceiveData, still in order.
TEST_F(TcpDataLayerReaderTest, ReceiveIntoHandsBackWhatTheSocketWillNotTake)
{
    const int descriptor = m_link->AttachReader();
    ASSERT_GE(descriptor, 0);
    int small = 4096;
    setsockopt(m_near, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
    setsockopt(m_far, SOL_SOCKET, SO_RCVBUF, &small, sizeof(small));
    const std::string sent = TestSockets::Pattern(1 << 20, 7);
    ASSERT_TRUE(TestSockets::WriteAll(m_peer, sent));
    TestSockets::Close(m_peer);
    m_peer = -1;

    std::string arrived;
    int handBacks = 0;
    const auto readFar = [&]() {
        char chunk[8192];
        const ssize_t got = recv(m_far, chunk, sizeof(chunk), MSG_DONTWAIT);
        if (got > 0)
            arrived.append(chunk, static_cast<size_t>(got));
        return got > 0;
    };
    for (int turn = 0; turn < 1000000; ++turn) {
        const int moved = m_link->ReceiveInto(m_near, 1 << 20);
        ASSERT_NE(IZRTDataLayer::RECEIVE_SOCKET_FAILED, moved);
        if (moved == IZRTDataLayer::RECEIVE_END)
            break;
        if (moved == IZRTDataLayer::RECEIVE_NOTHING_NOW)
            PollReadable(descriptor, 100);
        if (moved == IZRTDataLayer::RECEIVE_USE_RECEIVE_DATA) {
            unsigned char buffer[65536];
            const int count = m_link->ReceiveData(buffer, sizeof(buffer));
            if (count < 0)
                break;
            // As the connection queues them: behind whatever the socket already holds.
            while (readFar()) {
            }
            arrived.append(reinterpret_cast<char*>(buffer), static_cast<size_t>(std::max(count, 0)));
            handBacks += count > 0 ? 1 : 0;
        }
        readFar(); // the far end reads slowly
    }
    while (readFar()) {
    }
    EXPECT_GT(handBacks, 0) << "the small socket should have refused part of a chunk";
    ASSERT_EQ(sent.size(), arrived.size());
    EXPECT_TRUE(sent == arrived);
}

// SendFrom takes bytes from a socket into the link's send queue: they reach the peer in order
// with bytes given to SendData before and after, and the backlog empties once written.
TEST_F(TcpDataLayerReaderTest, SendFromKeepsOrderWithSendData)
{
    const auto send = [&](const std::string& text) {
        return m_link->SendData(reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
    };
    EXPECT_EQ(IZRTDataLayer::SEND_NOTHING_NOW, m_link->SendFrom(m_near, 1024));
    const std::string middle = TestSockets::Pattern(3 << 20, 3);
    ASSERT_EQ(3, send("one"));
    std::future<std::string> peer =
        std::async(std::launch::async, [&] { return TestSockets::Read(m_peer, 3 + middle.size() + 3); });
    size_t offered = 0;
    size_t taken = 0;
    while (taken < middle.size()) {
        if (offered < middle.size()) {
            const ssize_t written = ::send(m_far, middle.data() + offered, middle.size() - offered, MSG_DONTWAIT);
            offered += written > 0 ? static_cast<size_t>(written) : 0;
        }
        const int moved = m_link->SendFrom(m_near, 256 * 1024);
        ASSERT_NE(IZRTDataLayer::SEND_SOCKET_FAILED, moved);
        if (moved == IZRTDataLayer::SEND_USE_SEND_DATA) {
            PollReadable(m_near, 10); // the link's pipe is full: its loop is flushing
            continue;
        }
        if (moved > 0)
            taken += static_cast<size_t>(moved);
    }
    ASSERT_EQ(3, send("two"));
    EXPECT_TRUE(peer.get() == "one" + middle + "two");
    EXPECT_EQ(0u, m_link->GetSendBacklog());

    TestSockets::Close(m_far);
    m_far = -1;
    EXPECT_EQ(IZRTDataLayer::SEND_SOCKET_ENDED, m_link->SendFrom(m_near, 1024));
}

} // namespace
