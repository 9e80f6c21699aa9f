#include <gtest/gtest.h>

#include <thread>

#include "RecordingSink.h"
#include "fakes/TestSockets.h"
#include "host/CDirectConnectionListener.h"
#include "host/CEventLoopPool.h"
#include "transport/CTCPIPAddress.h"

using namespace ZRT;
using namespace ZRT::Host;
using ZRT::Testing::Guarded;
using ZRT::Testing::RecordingSink;
using ZRT::Testing::TestSockets;

namespace {

// Takes the accepted stream the way the engine does: a reference, then a sink on it.
class AcceptingReceiver : public IConnectionReceiver, public Guarded {
public:
    void OnConnectionEstablished(const IZRTConnectionAddress& peer, const IZRTConnectionAddress& local,
                                 IZRTDataLayer& stream) override
    {
        stream.AddNotification(&sink);
        Change([&] {
            peers.push_back(peer.ToString());
            locals.push_back(local.ToString());
            streams.emplace_back(&stream);
        });
    }

    bool WaitForCount(size_t count) { return WaitFor([&] { return streams.size() >= count; }); }
    size_t Count() const { return Locked([&] { return streams.size(); }); }

    void CloseAll()
    {
        for (auto& stream : streams) {
            stream->RemoveNotification(&sink);
            stream->Disconnect();
        }
    }

    RecordingSink sink;
    std::vector<std::string> peers;
    std::vector<std::string> locals;
    std::vector<QOX::CRefCountPtr<IZRTDataLayer>> streams;
};

class DirectConnectionListenerTest : public ::testing::Test {
protected:
    CEventLoopPool m_loops{1};
    CDirectConnectionListener m_listener{m_loops};
};

TEST_F(DirectConnectionListenerTest, AcceptedStreamReportsItsPeerAndCarriesBytes)
{
    struct SCase {
        const char* request;
        const char* listenIp;
    };
    for (const SCase& test : {SCase{"0.0.0.0", "127.0.0.1"}, SCase{"::", "::1"}}) {
        SCOPED_TRACE(test.request);
        AcceptingReceiver receiver;
        QOX::CRefCountPtr<IZRTConnectionAddress> listening =
            m_listener.StartListening(*TestSockets::Address(test.request, 0), 1, &receiver);
        ASSERT_TRUE(listening);
        EXPECT_NE(listening->GetPortNumber(), 0u);
        EXPECT_EQ(listening->ToString(), TestSockets::Address(test.listenIp, listening->GetPortNumber())->ToString());

        const int client = TestSockets::Connect(test.listenIp, listening->GetPortNumber());
        ASSERT_GE(client, 0);
        ASSERT_TRUE(receiver.WaitForCount(1));
        EXPECT_EQ(receiver.peers[0], TestSockets::LocalAddress(client).ToString());
        EXPECT_EQ(receiver.locals[0], listening->ToString());

        ASSERT_TRUE(TestSockets::WriteAll(client, "hello"));
        EXPECT_TRUE(receiver.sink.WaitFor([&] { return receiver.sink.received == "hello"; }));
        receiver.streams[0]->SendData(reinterpret_cast<const unsigned char*>("world"), 5);
        EXPECT_EQ(TestSockets::Read(client, 5), "world");

        m_listener.StopListening(*listening);
        receiver.CloseAll();
        EXPECT_EQ(TestSockets::Read(client, 0), "");
        TestSockets::Close(client);
    }
}

TEST_F(DirectConnectionListenerTest, NothingIsReportedAfterStopListening)
{
    AcceptingReceiver receiver;
    QOX::CRefCountPtr<IZRTConnectionAddress> listening =
        m_listener.StartListening(CTCPIPAddress(0, 0, 0, 0, 0), 1, &receiver);
    ASSERT_TRUE(listening);
    m_listener.StopListening(*listening);
    const int client = TestSockets::Connect("127.0.0.1", listening->GetPortNumber());
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_EQ(receiver.Count(), 0u);
    TestSockets::Close(client);
}

} // namespace
