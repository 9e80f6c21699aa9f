
#include <atomic>

#include "Socks5Fixture.h"
#include "fakes/TestSockets.h"

namespace ZRT {
namespace Testing {
namespace {

using Handler = Proxy::CConnectionProtocol_SOCKS5;

const std::string ASSOCIATE_REQUEST = Bytes({5, 3, 0, 1, 0, 0, 0, 0, 0, 0});
// RSV RSV FRAG, then 127.0.0.1:53.
const std::string TO_LOCAL_DNS = Bytes({0, 0, 0, 1, 127, 0, 0, 1, 0, 53});

// A client's UDP socket on loopback.
class CUdpClient {
public:
    ~CUdpClient() { TestSockets::Close(m_socket); }
    void SendTo(unsigned int port, const std::string& bytes) const
    {
        TestSockets::SendTo(m_socket, "127.0.0.1", port, bytes);
    }
    // One datagram, or empty when none comes within the time given.
    std::string Receive(int timeoutMs = 5000) const { return TestSockets::ReceiveDatagram(m_socket, timeoutMs); }

private:
    unsigned int m_port = 0;
    int m_socket = TestSockets::BindUdp("127.0.0.1", m_port);
};

bool UdpPortIsFree(unsigned int port)
{
    const int probe = TestSockets::BindUdp("0.0.0.0", port);
    TestSockets::Close(probe);
    return probe >= 0;
}

class Socks5UdpTest : public Socks5Fixture {
protected:
    // Associates and returns the relay port from the reply.
    unsigned int Associate()
    {
        m_connection.SetDatagramHandler(&m_datagrams);
        Negotiate();
        Send(ASSOCIATE_REQUEST);
        const std::string reply = WaitForReplies(10);
        EXPECT_EQ(10u, reply.size());
        EXPECT_EQ(Bytes({5, 0, 0, 1, 0, 0, 0, 0}), reply.substr(0, 8));
        EXPECT_TRUE(WaitForState(Handler::UdpAssociated));
        m_handle = m_datagrams.GetLastHandle();
        return reply.size() == 10 ? static_cast<unsigned char>(reply[8]) * 256u + static_cast<unsigned char>(reply[9])
                                  : 0;
    }

    FakeDatagramHandler m_datagrams;
    int m_handle = -1;
};

TEST_F(Socks5UdpTest, ClientDatagramsAreCheckedDecodedAndHandedOn)
{
    m_resolver.Script("dns.test:53", "127.0.0.1");
    const unsigned int port = Associate();
    ASSERT_NE(0u, port);
    EXPECT_EQ("0.0.0.0:0", m_datagrams.GetLastRequestAddress());
    CUdpClient client;
    client.SendTo(port, Bytes({0, 0, 0, 1, 127, 0}));                        // too short
    client.SendTo(port, Bytes({0, 1, 0, 1, 127, 0, 0, 1, 0, 53}) + "rsv");  // RSV not zero
    client.SendTo(port, Bytes({0, 0, 0, 9, 127, 0, 0, 1, 0, 53}) + "atyp"); // unknown type
    client.SendTo(port, Bytes({0, 0, 0, 3, 200}) + std::string(15, 'x'));   // shorter than its name
    client.SendTo(port, Bytes({0, 0, 5, 1, 127, 0, 0, 1, 0, 53}) + "P");    // FRAG is not examined
    client.SendTo(port, Bytes({0, 0, 0, 3, 8}) + "dns.test" + Bytes({0, 53}) + "Q");
    const auto sent = m_datagrams.WaitForSent(2);
    ASSERT_EQ(2u, sent.size());
    EXPECT_EQ(m_handle, sent[0].handle);
    EXPECT_EQ("127.0.0.1:53", sent[0].destination);
    EXPECT_EQ("P", sent[0].payload);
    EXPECT_EQ("127.0.0.1:53", sent[1].destination);
    EXPECT_EQ("Q", sent[1].payload);
}

TEST_F(Socks5UdpTest, HostDatagramsGoToTheLastClientSourceWithTheirSendersAddress)
{
    const unsigned int port = Associate();
    m_handler->HandleResponse("tcp", 3); // no host link in an association: dropped
    CUdpClient first;
    CUdpClient second;
    first.SendTo(port, TO_LOCAL_DNS + "1");
    m_datagrams.WaitForSent(1);
    ASSERT_TRUE(m_datagrams.Deliver(m_handle, CTCPIPAddress(10, 0, 0, 1, 99), "pong"));
    EXPECT_EQ(Bytes({0, 0, 0, 1, 10, 0, 0, 1, 0, 99}) + "pong", first.Receive());
    auto v6 = CTCPIPAddress::FromText("::1", 99);
    ASSERT_TRUE(m_datagrams.Deliver(m_handle, *v6, "six"));
    EXPECT_EQ(Bytes({0, 0, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 99}) + "six", first.Receive());

    second.SendTo(port, TO_LOCAL_DNS + "2");
    m_datagrams.WaitForSent(2);
    ASSERT_TRUE(m_datagrams.Deliver(m_handle, CTCPIPAddress(10, 0, 0, 1, 99), "moved"));
    EXPECT_EQ(Bytes({0, 0, 0, 1, 10, 0, 0, 1, 0, 99}) + "moved", second.Receive());
    EXPECT_EQ("", first.Receive(50));
    EXPECT_EQ(CommandReply(0).size(), Replies().size());
}

TEST_F(Socks5UdpTest, AByteOnTheTcpConnectionUndoesEverything)
{
    const int threadsBefore = ThreadBaseline();
    const unsigned int port = Associate();
    EXPECT_FALSE(UdpPortIsFree(port));
    Send("x");
    ASSERT_TRUE(m_connection.WaitForDisconnect());
    // The connection reports the disconnection before it terminates the handler.
    EXPECT_TRUE(WaitUntil([&] { return UdpPortIsFree(port); }));
    EXPECT_EQ(std::vector<int>{m_handle}, m_datagrams.GetUnregistered());
    EXPECT_EQ(0, m_datagrams.GetActiveRegistrations());
    m_handler->Terminate(); // a second time: nothing more happens
    EXPECT_EQ(1u, m_datagrams.GetUnregistered().size());
    m_handler.reset();
    EXPECT_TRUE(ThreadsBackTo(threadsBefore));
}

// Without a datagram handler, and with one that refuses the registration.
TEST_F(Socks5UdpTest, RefusedAssociationLeavesNoSocket)
{
    for (bool withHandler : {false, true}) {
        const int descriptorsBefore = CountDescriptors();
        FakeProxyConnection connection;
        m_datagrams.SetFailRegistration(true);
        connection.SetDatagramHandler(withHandler ? &m_datagrams : nullptr);
        auto handler = StartOn(connection, ASSOCIATE_REQUEST);
        ASSERT_TRUE(connection.WaitForDisconnect());
        handler.reset();
        EXPECT_EQ(Bytes({5, 0}) + CommandReply(5), connection.GetToClient());
        EXPECT_EQ(descriptorsBefore, CountDescriptors());
    }
}

// Datagrams keep flowing both ways while the client goes away; afterwards no registration,
// thread or socket is left.
class Socks5UdpRaceTest : public Socks5Fixture {};

TEST_F(Socks5UdpRaceTest, TrafficRacingTerminateLeavesNothingBehind)
{
    const int threadsBefore = ThreadBaseline();
    const int descriptorsBefore = CountDescriptors();
    for (int round = 0; round < 20; ++round) {
        FakeProxyConnection connection;
        FakeDatagramHandler datagrams;
        connection.SetDatagramHandler(&datagrams);
        auto handler = StartOn(connection, ASSOCIATE_REQUEST);
        const std::string reply = connection.WaitForClientBytes(12);
        ASSERT_EQ(12u, reply.size());
        const unsigned int port = static_cast<unsigned char>(reply[10]) * 256u + static_cast<unsigned char>(reply[11]);
        ASSERT_TRUE(WaitUntil([&] { return handler->GetState() == Handler::UdpAssociated; }));
        const int handle = datagrams.GetLastHandle();
        std::atomic<bool> running{true};
        std::thread host([&] {
            while (running.load())
                datagrams.Deliver(handle, CTCPIPAddress(10, 0, 0, 1, 99), "pong");
        });
        std::thread client([&] {
            CUdpClient udp;
            while (running.load())
                udp.SendTo(port, TO_LOCAL_DNS + "ping");
        });
        datagrams.WaitForSent(static_cast<size_t>(round % 3));
        connection.DisconnectClient();
        running.store(false);
        host.join();
        client.join();
        EXPECT_EQ(0, datagrams.GetActiveRegistrations());
        handler.reset();
    }
    EXPECT_TRUE(ThreadsBackTo(threadsBefore));
    EXPECT_EQ(descriptorsBefore, CountDescriptors());
}

} // namespace
} // namespace Testing
} // namespace ZRT
