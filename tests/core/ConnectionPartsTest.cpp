// The connection's parts on their own: the client end over a socket pair, the relay pump with a
// scripted handler and a fake link, the connect attempts with a fake host, the PROXY protocol
// header's parser.

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <chrono>
#include <thread>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "fakes/FakeDataLayer.h"
#include "fakes/FakeMultiPointLayer.h"
#include "fakes/Polling.h"
#include "fakes/FakeResolver.h"
#include "fakes/TestSockets.h"
#include "proxy/core/CClientCounts.h"
#include "proxy/core/CClientEnd.h"
#include "proxy/core/CConnectHelpers.h"
#include "proxy/core/CConnectionWatches.h"
#include "proxy/core/CHostConnector.h"
#include "proxy/core/CHostLink.h"
#include "proxy/core/CProxy.h"
#include "proxy/core/CProxyServer.h"
#include "proxy/core/CProxyHeader.h"
#include "proxy/core/CRelayPump.h"
#include "runtime/CScratchLoan.h"
#include "runtime/CThreadPool.h"
#include "transport/CByteBufferList.h"

namespace ZRT {
namespace {

using Proxy::CClientEnd;
using Proxy::CHostConnector;
using Proxy::CHostLink;
using Proxy::CProxyHeader;
using Proxy::CRelayPump;
using Testing::FakeDataLayer;
using Testing::FakeMultiPointLayer;

// A client socket for the connection's side (non-blocking, small buffers) and the test's peer.
struct SSocketPair {
    SSocketPair()
    {
        int fds[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        ours = fds[0];
        peer = fds[1];
        fcntl(ours, F_SETFL, fcntl(ours, F_GETFL) | O_NONBLOCK);
        const int small = 16 * 1024;
        setsockopt(ours, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
        setsockopt(peer, SOL_SOCKET, SO_RCVBUF, &small, sizeof(small));
    }
    ~SSocketPair()
    {
        if (peer >= 0)
            close(peer);
    }
    std::string ReadAll()
    {
        std::string got;
        char buffer[65536];
        ssize_t count = 0;
        while ((count = recv(peer, buffer, sizeof(buffer), MSG_DONTWAIT)) > 0)
            got.append(buffer, static_cast<size_t>(count));
        return got;
    }
    int ours = -1; // adopted by a CClientEnd, which closes it
    int peer = -1;
};

// A link's reports go nowhere: the tests drive the parts themselves.
class NullSink : public IZRTDataLayerNotification {
public:
    void OnDataReceived(IZRTDataLayer&) override {}
    void OnConnectionClosed(IZRTDataLayer&) override {}
};

std::string Pattern(size_t length)
{
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; ++i)
        bytes[i] = static_cast<char>('a' + i % 23);
    return bytes;
}

sockaddr_storage Source(const char* address)
{
    sockaddr_storage storage{};
    auto* v4 = reinterpret_cast<sockaddr_in*>(&storage);
    v4->sin_family = AF_INET;
    inet_pton(AF_INET, address, &v4->sin_addr);
    return storage;
}

TEST(ClientCountsTest, LimitsHoldPerSourceAndTheLastClientToGoLetsIdleBuffersGo)
{
    Proxy::CClientCounts counts;
    using EResult = Proxy::CClientCounts::EResult;
    const sockaddr_storage a = Source("127.0.0.5"), b = Source("127.0.0.6");
    EXPECT_EQ(counts.TryAdd(a, 3, 2), EResult::Added);
    EXPECT_EQ(counts.TryAdd(a, 3, 2), EResult::Added);
    EXPECT_EQ(counts.TryAdd(a, 3, 2), EResult::OverSource);
    EXPECT_EQ(counts.TryAdd(b, 3, 2), EResult::Added);
    EXPECT_EQ(counts.TryAdd(b, 3, 2), EResult::OverTotal);
    EXPECT_FALSE(counts.Move(b, a, 2)); // a is full
    EXPECT_EQ(counts.FromSource(b), 1u);

    auto idle = [] {
        CByteBufferList::ReclaimBuffer(CByteBufferList::GetBuffer(reinterpret_cast<const unsigned char*>("x"), 1));
    };
    {
        QOX::CThreadPool first;
        counts.SetThreadPool(&first);
        counts.Remove(a);
        counts.Remove(b);
        counts.Remove(a);
        first.EndAll(); // whatever that last one asked for is done
    }
    // A busy proxy (a peak of BUSY_PEAK) gives back when its last client goes, however recently
    // it last did, on a thread of its pool (a trim takes milliseconds on a large heap).
    std::atomic<int> poolThreads{0};
    QOX::SThreadHooks hooks;
    hooks.context = &poolThreads;
    hooks.onStart = [](void* context) { ++*static_cast<std::atomic<int>*>(context); };
    QOX::CThreadPool pool(hooks);
    counts.SetThreadPool(&pool);
    for (size_t i = 0; i < Proxy::CClientCounts::BUSY_PEAK; ++i)
        ASSERT_EQ(counts.TryAdd(a, 0, 0), EResult::Added);
    idle();
    for (size_t i = 1; i < Proxy::CClientCounts::BUSY_PEAK; ++i)
        counts.Remove(a);
    EXPECT_GE(CByteBufferList::GetPoolSize(), 1u) << "a client remains: its buffers are reused";
    // Removed during a turn of its loop, which may still free what the client held: nothing is
    // given back before that turn is over.
    CEventLoop loop;
    ASSERT_TRUE(loop.Start());
    std::atomic<bool> removed{false};
    std::atomic<unsigned int> leftInTurn{0};
    loop.Post([&] {
        {
            const QOX::CScratchLoan read; // the loop thread's reads leave it a scratch buffer
            read.Get()[0] = 1;
        }
        counts.Remove(a, &loop);
        std::this_thread::sleep_for(std::chrono::milliseconds(20)); // the rest of a busy turn
        leftInTurn = CByteBufferList::GetPoolSize();
        removed = true;
    });
    ASSERT_TRUE(Testing::WaitUntil([&] { return removed.load(); }));
    EXPECT_GE(leftInTurn.load(), 1u) << "given back while the turn was still letting go";
    EXPECT_EQ(counts.Total(), 0u);
    EXPECT_TRUE(Testing::WaitUntil([] { return CByteBufferList::GetPoolSize() == 0; }))
        << "the last client went, the idle buffers stayed";
    EXPECT_TRUE(Testing::WaitUntil([] { return QOX::CScratchLoan::GetHeldCount() == 0; }))
        << "the last client went, the threads' scratch buffers stayed";
    EXPECT_EQ(poolThreads.load(), 1);
    loop.Stop();
    counts.SetThreadPool(nullptr);
}

TEST(ConnectionWatchesTest, OnlyAStreamInFullFlowSpendsTheTurnBudget)
{
    // A connection that is not bulk is served before the bulk streams of its turn: were it to
    // spend the budget, a busy one would leave them nothing, turn after turn.
    CEventLoop loop;
    ASSERT_TRUE(loop.Start());
    Proxy::CConnectionWatches watches;
    std::atomic<bool> done{false};
    size_t spentSmall = 1, spentBulk = 0;
    loop.Post([&] {
        watches.Start(loop, [](Proxy::CConnectionWatches::ERole, uint32_t) {});
        const size_t full = loop.GetTurnBudget();
        watches.SpendTurnBudget(static_cast<int>(CEventLoop::TURN_BUDGET));
        spentSmall = full - loop.GetTurnBudget();
        watches.SetBulk(true);
        watches.SpendTurnBudget(1000);
        spentBulk = full - loop.GetTurnBudget();
        done = true;
    });
    ASSERT_TRUE(Testing::WaitUntil([&] { return done.load(); }));
    loop.Stop();
    EXPECT_EQ(spentSmall, 0u);
    EXPECT_EQ(spentBulk, 1000u);
}

TEST(ClientEndTest, QueuesWhatTheSocketRefusesAndDeliversEverythingInOrder)
{
    SSocketPair pair;
    CClientEnd client;
    client.Adopt(pair.ours);
    const std::string bytes = Pattern(1024 * 1024);
    for (size_t offset = 0; offset < bytes.size(); offset += 100000) {
        const int chunk = static_cast<int>(std::min<size_t>(100000, bytes.size() - offset));
        ASSERT_TRUE(client.Send(bytes.data() + offset, chunk));
    }
    EXPECT_GT(client.GetBacklog(), CClientEnd::LOW_WATER) << "a small socket buffer cannot take a megabyte";
    std::string received = pair.ReadAll();
    bool drained = false;
    for (int round = 0; round < 10000 && client.GetBacklog() > 0; ++round) {
        const CClientEnd::EFlush flushed = client.Flush();
        ASSERT_NE(flushed, CClientEnd::EFlush::Failed);
        drained = drained || flushed == CClientEnd::EFlush::Drained;
        received += pair.ReadAll();
    }
    received += pair.ReadAll();
    EXPECT_TRUE(drained) << "falling under the low-water mark is told once";
    EXPECT_TRUE(received == bytes);
    EXPECT_EQ(client.Flush(), CClientEnd::EFlush::Unchanged);
}

// A record socket shows each write on its own: what a hold gathers arrives as one record, in
// order with a large send that could not wait, and a close or a failure does not lose it.
TEST(ClientEndTest, SendsInAHoldLeaveInOneWriteInOrderAndNothingWaitsBeyondIt)
{
    int records[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, records), 0);
    auto next = [&] {
        std::string record(64 * 1024, '\0');
        const ssize_t got = recv(records[1], &record[0], record.size(), MSG_DONTWAIT);
        record.resize(got > 0 ? static_cast<size_t>(got) : 0);
        return got < 0 ? std::string("(none)") : record;
    };
    CClientEnd client;
    client.Adopt(records[0]);
    client.BeginHold();
    ASSERT_TRUE(client.Send("HTTP/1.1 200 OK\r\n\r\n", 19));
    ASSERT_TRUE(client.Send("body", 4));
    EXPECT_EQ(next(), "(none)") << "nothing leaves before the hold ends";
    ASSERT_TRUE(client.EndHold());
    EXPECT_EQ(next(), "HTTP/1.1 200 OK\r\n\r\nbody");
    EXPECT_EQ(next(), "(none)");

    const std::string large = Pattern(Proxy::CSendHold::LIMIT + 1);
    client.BeginHold();
    ASSERT_TRUE(client.Send("head", 4));
    ASSERT_TRUE(client.Send(large.data(), static_cast<int>(large.size())));
    ASSERT_TRUE(client.Send("tail", 4));
    EXPECT_EQ(next(), "head");
    EXPECT_TRUE(next() == large);
    ASSERT_TRUE(client.EndHold());
    EXPECT_EQ(next(), "tail");
    ASSERT_TRUE(client.Send("free", 4)); // no hold: at once
    EXPECT_EQ(next(), "free");
    client.BeginHold();
    ASSERT_TRUE(client.Send("answer", 6));
    client.WriteHeld(); // before slower work: what waits leaves, the hold goes on
    EXPECT_EQ(next(), "answer");
    ASSERT_TRUE(client.Send("more", 4));
    EXPECT_EQ(next(), "(none)");
    ASSERT_TRUE(client.EndHold());
    EXPECT_EQ(next(), "more");

    client.BeginHold();
    client.BeginHold(); // holds nest: the outermost end writes
    ASSERT_TRUE(client.Send("in", 2));
    ASSERT_TRUE(client.EndHold());
    EXPECT_EQ(next(), "(none)");
    ASSERT_TRUE(client.EndHold());
    EXPECT_EQ(next(), "in");

    client.BeginHold();
    ASSERT_TRUE(client.Send("last", 4));
    client.Close(true);
    EXPECT_EQ(next(), "last");
    EXPECT_EQ(next(), "") << "then the end";
    close(records[1]);

    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, records), 0);
    CClientEnd gone;
    gone.Adopt(records[0]);
    close(records[1]);
    gone.BeginHold();
    EXPECT_TRUE(gone.Send("lost", 4)) << "waits in the hold";
    EXPECT_FALSE(gone.EndHold()) << "the failure is told when it is written";
}

// A connected loopback TCP pair: {the accepted end (non-blocking), the connecting end}; the
// listener's send buffer (0: the kernel's) goes to the accepted end.
std::array<int, 2> TcpPair(int sendBuffer)
{
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    if (sendBuffer > 0)
        setsockopt(listener, SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof(sendBuffer));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    EXPECT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(listen(listener, 1), 0);
    EXPECT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
    const int connecting = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(connect(connecting, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    const int accepted = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK);
    close(listener);
    return {accepted, connecting};
}

TEST(ClientEndTest, TheRoomOfAFixedSendBufferIsTakenWholeByTheSocket)
{
    // A client of a listener with a fixed send buffer, which never reads. Host bytes come from a
    // socket through a pipe, as the relay splices them: every move sized by the room must be
    // taken whole, or its rest would wait in user space.
    const std::array<int, 2> client = TcpPair(64 * 1024);
    const std::array<int, 2> host = TcpPair(0);
    ASSERT_GE(client[0], 0);
    ASSERT_GE(host[0], 0);
    CClientEnd end;
    end.Adopt(client[0]);
    EXPECT_EQ(end.GetSendRoom(4096), -1) << "a buffer the kernel sizes must be filled to grow";
    int size = 0;
    socklen_t length = sizeof(size);
    ASSERT_EQ(getsockopt(client[0], SOL_SOCKET, SO_SNDBUF, &size, &length), 0);
    end.UseFixedSendBuffer(size);
    int pipe[2] = {-1, -1};
    ASSERT_EQ(pipe2(pipe, O_NONBLOCK), 0);
    fcntl(pipe[1], F_SETPIPE_SZ, 1 << 20);
    const std::string bytes = Pattern(1 << 20);
    size_t sent = 0;
    for (long room = end.GetSendRoom(4096); room >= 4096; room = end.GetSendRoom(4096)) {
        ASSERT_EQ(send(host[1], bytes.data(), static_cast<size_t>(room), 0), room);
        ssize_t in = 0;
        while (in < room) {
            const ssize_t count = splice(host[0], nullptr, pipe[1], nullptr, static_cast<size_t>(room - in), SPLICE_F_NONBLOCK);
            ASSERT_TRUE(count > 0 || errno == EAGAIN);
            in += std::max<ssize_t>(count, 0);
        }
        const ssize_t out = splice(pipe[0], nullptr, client[0], nullptr, static_cast<size_t>(room), SPLICE_F_NONBLOCK);
        ASSERT_EQ(out, room) << "after " << sent << " bytes";
        end.NoteSpliced(static_cast<unsigned long long>(out));
        sent += static_cast<size_t>(out);
    }
    EXPECT_GT(sent, 16u * 1024) << "the room is not so small as to starve the stream";
    for (const int descriptor : {pipe[0], pipe[1], client[1], host[0], host[1]})
        close(descriptor);
    end.Close(false);
}

TEST(ClientEndTest, ReadsTellBytesNothingAndTheEndAndCloseWithoutResetDespiteUnreadInput)
{
    SSocketPair pair;
    CClientEnd client;
    client.Adopt(pair.ours);
    char buffer[8];
    int count = 0;
    EXPECT_EQ(client.Read(buffer, sizeof(buffer), count), CClientEnd::ERead::NothingNow);
    ASSERT_EQ(send(pair.peer, "0123456789", 10, 0), 10);
    ASSERT_EQ(client.Read(buffer, sizeof(buffer), count), CClientEnd::ERead::Bytes);
    EXPECT_EQ(std::string(buffer, static_cast<size_t>(count)), "01234567");
    ASSERT_TRUE(client.Send("bye", 3));
    client.Close(false); // "89" unread
    char got[8];
    EXPECT_EQ(recv(pair.peer, got, sizeof(got), 0), 3) << "the reply is not destroyed by a reset";
    EXPECT_EQ(recv(pair.peer, got, sizeof(got), 0), 0);
    EXPECT_EQ(client.GetSocket(), -1);
    EXPECT_FALSE(client.Send("x", 1));
}

// Plays a handler: records what it is given, passes client bytes to its link, and lets host bytes
// pass unchanged once told to.
class ScriptedHandler : public Proxy::IConnectionProtocol {
public:
    explicit ScriptedHandler(CHostLink& link) : m_link(link) {}
    void Init() override {}
    void Terminate() override {}
    void HandleRequest(const char* data, int length) override
    {
        requests.emplace_back(data, static_cast<size_t>(length));
        if (onRequest)
            onRequest(data, length);
        else
            m_link.Send(data, length);
    }
    void HandleResponse(const char* data, int length) override { responses.append(data, static_cast<size_t>(length)); }
    unsigned long long GetResponseRelayAllowance() const override { return passThrough ? RELAY_ALL : 0; }
    void OnResponseRelayed(unsigned long long count) override { relayed += count; }

    std::vector<std::string> requests;
    std::string responses;
    std::function<void(const char*, int)> onRequest; // instead of passing the read to the link
    bool passThrough = false;
    unsigned long long relayed = 0;

private:
    CHostLink& m_link;
};

class PumpTest : public ::testing::Test, private CRelayPump::IOwner, private CHostLink::IListener {
protected:
    void SetUp() override
    {
        m_client.Adopt(m_pair.ours);
        m_link = new FakeDataLayer();
        const QOX::CRefCountPtr<IZRTDataLayer> link(m_link.GetRawPointer());
        ASSERT_TRUE(m_hostLink.Install(link, CHostLink::EState::Open));
    }
    // Moves client bytes until the pump waits; the moves it took.
    int PumpClient()
    {
        int moves = 0;
        while (m_pump.MoveClientBytes(&m_handler) == CRelayPump::EMove::More)
            ++moves;
        return moves;
    }

    Proxy::IConnectionProtocol* HandlerFor(const char*, int) override { return &m_handler; }
    void OnMoved(int bytes) override { moved += bytes; }
    void OnRelayed(bool toHost, int bytes) override { (toHost ? relayedToHost : relayedToClient) += bytes; }
    bool LinkTakesClientBytes() override { return linkTakes; }
    void OnLinkTaken() override { m_pump.OnNewLink(); }
    void OnLinkLeaving() override { m_pump.OnLinkGone(); }

    SSocketPair m_pair;
    CClientEnd m_client;
    NullSink m_sink;
    CHostLink m_hostLink{m_sink, *this};
    CRelayPump m_pump{*this, m_client, m_hostLink};
    ScriptedHandler m_handler{m_hostLink};
    QOX::CRefCountPtr<FakeDataLayer> m_link;
    int moved = 0;
    int relayedToHost = 0;
    int relayedToClient = 0;
    bool linkTakes = true;
};

TEST_F(PumpTest, ClientBytesSplitOrCoalescedReachTheHandlerAndTheHostInOrder)
{
    // One byte at a time, each read on its own.
    for (const char byte : std::string("split")) {
        ASSERT_EQ(send(m_pair.peer, &byte, 1, 0), 1);
        EXPECT_EQ(PumpClient(), 1);
    }
    // Many writes before one turn: coalesced into one read.
    for (const char* part : {"co", "ales", "ced"})
        ASSERT_GT(send(m_pair.peer, part, strlen(part), 0), 0);
    EXPECT_EQ(PumpClient(), 1);
    ASSERT_EQ(m_handler.requests.size(), 6u);
    EXPECT_EQ(m_handler.requests.back(), "coalesced");
    EXPECT_EQ(m_link->GetSent(), "splitcoalesced");
    EXPECT_EQ(moved, 14) << "every byte read is spent from the turn's budget";
    EXPECT_EQ(relayedToHost, 0) << "bytes through the handler are counted when it sends them";

    shutdown(m_pair.peer, SHUT_WR);
    EXPECT_EQ(m_pump.MoveClientBytes(&m_handler), CRelayPump::EMove::ClientEnded);
}

// A handler that rewrites a read sends the link its pieces; they leave in one send, and before
// anything that lets the link go or ends its output.
TEST_F(PumpTest, WhatAHandlerSendsTheLinkForOneReadLeavesInOneSendAheadOfItsEnd)
{
    std::vector<std::pair<std::string, bool>> sends; // the bytes, and whether output had ended
    m_link->SetOnSend([&](FakeDataLayer& link, const std::string& bytes) { sends.emplace_back(bytes, link.WasSendShut()); });
    m_handler.onRequest = [&](const char* data, int length) {
        m_hostLink.Send("HEAD ", 5);
        m_hostLink.Send(data, length);
    };
    ASSERT_EQ(send(m_pair.peer, "body", 4, 0), 4);
    EXPECT_EQ(PumpClient(), 1);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].first, "HEAD body");

    const std::string large(Proxy::CSendHold::LIMIT, 'x');
    m_handler.onRequest = [&](const char*, int) {
        m_hostLink.Send("a", 1);
        m_hostLink.Send(large.data(), static_cast<int>(large.size())); // cannot wait: goes behind "a"
        m_hostLink.Send("b", 1);
        m_hostLink.EndOutput(); // the end comes behind "b"
    };
    ASSERT_EQ(send(m_pair.peer, "go", 2, 0), 2);
    EXPECT_EQ(PumpClient(), 1);
    ASSERT_EQ(sends.size(), 4u);
    EXPECT_EQ(sends[1].first, "a");
    EXPECT_TRUE(sends[2].first == large);
    EXPECT_EQ(sends[3], std::make_pair(std::string("b"), false));
    EXPECT_TRUE(m_link->WasSendShut());

    m_handler.onRequest = [&](const char*, int) {
        m_hostLink.Send("last", 4);
        m_hostLink.Release(); // to a pool, say: it takes what was sent for it
        EXPECT_FALSE(m_hostLink.Send("none", 4));
    };
    ASSERT_EQ(send(m_pair.peer, "!", 1, 0), 1);
    EXPECT_EQ(PumpClient(), 1);
    ASSERT_EQ(sends.size(), 5u);
    EXPECT_EQ(sends[4].first, "last");
}

TEST_F(PumpTest, ClientBytesAfterTheLinkClosedGoNowhere)
{
    linkTakes = false;
    ASSERT_EQ(send(m_pair.peer, "late", 4, 0), 4);
    EXPECT_EQ(m_pump.MoveClientBytes(&m_handler), CRelayPump::EMove::Wait);
    EXPECT_TRUE(m_handler.requests.empty());
    EXPECT_EQ(m_link->GetSent(), "");
}

TEST_F(PumpTest, HostBytesGoThroughTheHandlerUntilTheEndOfAHalfClosingLink)
{
    m_link->PushFromRemote("first");
    m_link->PushFromRemote("second");
    EXPECT_EQ(m_pump.MoveHostBytes(m_handler), CRelayPump::EMove::More);
    while (m_pump.MoveHostBytes(m_handler) == CRelayPump::EMove::More) {
    }
    EXPECT_EQ(m_handler.responses, "firstsecond");
    EXPECT_EQ(relayedToClient, 11);
    EXPECT_FALSE(m_pump.HasHostBytes()) << "an empty link is not polled again";
    // A link that closed reports its end once its bytes are out, half-closing or not.
    m_link->PushFromRemote("last");
    m_hostLink.MarkClosed();
    m_pump.NoteHostBytes();
    EXPECT_EQ(m_pump.MoveHostBytes(m_handler), CRelayPump::EMove::More);
    EXPECT_EQ(m_pump.MoveHostBytes(m_handler), CRelayPump::EMove::HostEnded);
    EXPECT_EQ(m_handler.responses, "firstsecondlast");
}

TEST_F(PumpTest, ANewLinkIsReadAtOnceAndAGoneOneNever)
{
    EXPECT_TRUE(m_pump.HasHostBytes()) << "bytes may have come before the link was taken up";
    m_hostLink.Release();
    EXPECT_FALSE(m_pump.HasHostBytes());
    EXPECT_EQ(m_pump.MoveHostBytes(m_handler), CRelayPump::EMove::Wait);
    EXPECT_EQ(m_link->GetSinkCount(), 0) << "a released link reports to nobody";
}

// The connector's attempts against a fake host; the connection's thread is the test's.
class ConnectorTest : public ::testing::Test, protected CHostLink::IListener {
protected:
    QOX::CRefCountPtr<IZRTConnectionAddress> Destination(std::vector<unsigned char> lastOctets)
    {
        auto* address = new CTCPIPAddress(127, 0, 0, lastOctets.front(), 80);
        std::vector<sockaddr_storage> others;
        for (size_t i = 1; i < lastOctets.size(); ++i) {
            CTCPIPAddress other(127, 0, 0, lastOctets[i], 80);
            others.emplace_back();
            int length = sizeof(sockaddr_storage);
            other.GetSockAddr(reinterpret_cast<sockaddr*>(&others.back()), &length);
        }
        address->SetAlternatives(others);
        return QOX::CRefCountPtr<IZRTConnectionAddress>(address);
    }
    bool Begin(const QOX::CRefCountPtr<IZRTConnectionAddress>& destination, int timeoutMs = 5000)
    {
        return m_connector.Begin(destination, timeoutMs, [this](const IZRTConnectionAddress& address) {
            return address.ToString().find("127.0.0.9") == std::string::npos; // a refused destination
        });
    }
    void OnLinkTaken() override {}
    void OnLinkLeaving() override {}

    FakeMultiPointLayer m_layer;
    Proxy::CConnectHelpers m_helpers;
    NullSink m_sink;
    CHostLink m_link{m_sink, *this};
    std::atomic<int> m_wakes{0};
    std::vector<bool> m_outcomes;
    const CTCPIPAddress m_client{127, 0, 0, 1, 5000};
    CHostConnector m_connector{&m_layer, m_client, m_helpers, m_link, [this] { ++m_wakes; },
                               [this](bool connected) { m_outcomes.push_back(connected); }};
};

TEST_F(ConnectorTest, AnOutcomeKnownAtOnceIsToldOnlyAfterBeginReturned)
{
    ASSERT_TRUE(Begin(Destination({2})));
    EXPECT_TRUE(m_outcomes.empty());
    EXPECT_EQ(m_wakes.load(), 1);
    m_connector.OnWake();
    EXPECT_EQ(m_outcomes, std::vector<bool>{true});
    EXPECT_EQ(m_link.GetState(), CHostLink::EState::Open);
    EXPECT_FALSE(Begin(Destination({3}))) << "one link at a time";
}

TEST_F(ConnectorTest, RefusedAddressesGiveWayToTheNextAllowedOneThenTheFailureIsTold)
{
    m_layer.SetRefused({"127.0.0.2:80", "127.0.0.3:80"});
    ASSERT_TRUE(Begin(Destination({2, 9, 3, 4})));
    m_connector.OnWake();
    EXPECT_EQ(m_outcomes, std::vector<bool>{true});
    EXPECT_EQ(m_layer.GetDestinations(), (std::vector<std::string>{"127.0.0.2:80", "127.0.0.3:80", "127.0.0.4:80"}))
        << "the address the rules refuse is never tried";

    CHostLink other{m_sink, *this};
    CHostConnector refused{&m_layer, m_client, m_helpers, other, [] {},
                           [this](bool connected) { m_outcomes.push_back(connected); }};
    ASSERT_TRUE(refused.Begin(Destination({2, 3}), 5000, [](const IZRTConnectionAddress&) { return true; }));
    refused.OnWake();
    EXPECT_EQ(m_outcomes, (std::vector<bool>{true, false}));
    EXPECT_EQ(refused.GetFailure(), ECONNREFUSED);
    EXPECT_EQ(other.GetState(), CHostLink::EState::None);
}

TEST_F(ConnectorTest, AHostThatMayBlockAnswersFromAHelperAndALateAnswerIsClosed)
{
    m_layer.SetNonBlocking(false);
    ASSERT_TRUE(Begin(Destination({2})));
    EXPECT_EQ(m_link.GetState(), CHostLink::EState::Connecting);
    ASSERT_TRUE(Testing::WaitUntil([&] { return m_wakes.load() == 1; }));
    m_connector.OnWake();
    EXPECT_EQ(m_outcomes, std::vector<bool>{true});
    EXPECT_EQ(m_link.GetState(), CHostLink::EState::Open);

    // An answer that comes after a cancel goes nowhere: its link is closed.
    std::atomic<bool> answer{false};
    m_layer.SetOnConnect(
        [&](FakeDataLayer&, const IZRTConnectionAddress&) { Testing::WaitUntil([&] { return answer.load(); }); });
    m_link.Drop();
    ASSERT_TRUE(Begin(Destination({3})));
    ASSERT_TRUE(Testing::WaitUntil([&] { return m_layer.GetConnectCount() == 2; })) << "the connect is under way";
    m_connector.Cancel();
    answer = true;
    ASSERT_TRUE(Testing::WaitUntil([&] {
        const auto link = m_layer.GetLastLink();
        return link && m_layer.GetConnectCount() == 2 && link->GetDisconnects() == 1;
    }));
    EXPECT_EQ(m_wakes.load(), 1) << "nobody is woken for it";
}

// A link that connects, or fails, when the test says: a host whose connects do not block.
class PendingLink : public FakeDataLayer {
public:
    bool IsConnecting() const override { return m_connecting; }
    bool IsConnected() const override { return !m_connecting && m_failure == 0 && FakeDataLayer::IsConnected(); }
    int GetFailure() const override { return m_failure; }
    bool AddNotification(IZRTDataLayerNotification* sink) override
    {
        m_sinks.insert(sink);
        return FakeDataLayer::AddNotification(sink);
    }
    bool RemoveNotification(IZRTDataLayerNotification* sink) override
    {
        m_sinks.erase(sink);
        return FakeDataLayer::RemoveNotification(sink);
    }
    void Open()
    {
        m_connecting = false;
        for (IZRTDataLayerNotification* sink : std::set<IZRTDataLayerNotification*>(m_sinks))
            sink->OnLinkConnected(*this);
    }
    void Fail(int error)
    {
        m_failure = error;
        m_connecting = false;
        CloseFromRemote();
    }

private:
    // The test's thread alone.
    bool m_connecting = true;
    int m_failure = 0;
    std::set<IZRTDataLayerNotification*> m_sinks;
};

class RacingHost : public IZRTMultiPointLayer {
public:
    QOX::CRefCountPtr<IZRTDataLayer> Connect(const IZRTConnectionAddress& destination,
                                             const IZRTConnectionAddress& source) override
    {
        return BeginConnect(destination, source);
    }
    QOX::CRefCountPtr<IZRTDataLayer> BeginConnect(const IZRTConnectionAddress& destination,
                                                  const IZRTConnectionAddress& /*source*/) override
    {
        const std::string to = destination.ToString();
        tried.push_back(to);
        if (refused.count(to) != 0)
            return {};
        links[to] = new PendingLink();
        if (failAtOnce.count(to) != 0)
            links[to]->Fail(failAtOnce[to]); // told on the link's thread before the engine takes it
        return QOX::CRefCountPtr<IZRTDataLayer>(links[to].GetRawPointer());
    }
    bool ConnectsWithoutBlocking() const override { return true; }

    std::vector<std::string> tried;
    std::set<std::string> refused; // fail at once
    std::map<std::string, int> failAtOnce;
    std::map<std::string, QOX::CRefCountPtr<PendingLink>> links;
};

// A name with IPv6 and IPv4 addresses raced on a host whose connects do not block, on a clock
// that the test steps; the test plays the connection, which calls OnWake when woken.
class RaceTest : public ::testing::Test, protected CHostLink::IListener {
protected:
    void SetUp() override { m_connector.SetClock([this] { return m_now; }); }
    // The resolver's answer: the first address, the others as its alternatives.
    static QOX::CRefCountPtr<IZRTConnectionAddress> Name(const std::vector<const char*>& hosts)
    {
        const QOX::CRefCountPtr<IZRTConnectionAddress> first = CTCPIPAddress::FromText(hosts.front(), 80);
        std::vector<sockaddr_storage> others(hosts.size() - 1);
        for (size_t i = 1; i < hosts.size(); ++i) {
            int length = sizeof(sockaddr_storage);
            CTCPIPAddress::FromText(hosts[i], 80)->GetSockAddr(reinterpret_cast<sockaddr*>(&others[i - 1]), &length);
        }
        static_cast<CTCPIPAddress*>(first.Get())->SetAlternatives(others);
        return first;
    }
    void Begin(const std::vector<const char*>& hosts, int timeoutMs = 5000)
    {
        ASSERT_TRUE(m_connector.Begin(Name(hosts), timeoutMs, [](const IZRTConnectionAddress& address) {
            return address.ToString() != "127.0.0.9:80"; // refused by the rules
        }));
    }
    // Time passes until the connection's next wake-up is due.
    void After(int milliseconds)
    {
        m_now += std::chrono::milliseconds(milliseconds);
        m_connector.GiveUpSlowAttempt();
    }
    PendingLink& Link(const std::string& to) { return *m_host.links.at(to); }
    void OnLinkTaken() override {}
    void OnLinkLeaving() override {}

    const CHostConnector::Clock::time_point m_start = CHostConnector::Clock::now();
    CHostConnector::Clock::time_point m_now = m_start;
    RacingHost m_host;
    Proxy::CConnectHelpers m_helpers;
    NullSink m_sink;
    CHostLink m_link{m_sink, *this};
    int m_wakes = 0;
    std::vector<bool> m_outcomes;
    const CTCPIPAddress m_client{127, 0, 0, 1, 5000};
    CHostConnector m_connector{&m_host, m_client, m_helpers, m_link, [this] { ++m_wakes; },
                               [this](bool connected) { m_outcomes.push_back(connected); }};
};

using Tried = std::vector<std::string>;

TEST_F(RaceTest, IPv4JoinsASilentIPv6AfterTheDelayAndTheWinnerAloneStays)
{
    Begin({"127.0.0.2", "::1"});
    EXPECT_EQ(m_host.tried, Tried{"[::1]:80"});
    EXPECT_EQ(m_link.GetState(), CHostLink::EState::Connecting);
    EXPECT_EQ(m_connector.GetAttemptDeadline(),
              m_start + std::chrono::milliseconds(CHostConnector::ATTEMPT_DELAY_MS));
    After(CHostConnector::ATTEMPT_DELAY_MS - 1);
    EXPECT_EQ(m_host.tried.size(), 1u);
    After(1);
    EXPECT_EQ(m_host.tried, (Tried{"[::1]:80", "127.0.0.2:80"}));
    EXPECT_EQ(m_connector.GetAttemptDeadline(), m_start + std::chrono::milliseconds(5000)) << "nobody left to start";

    Link("127.0.0.2:80").Open();
    EXPECT_EQ(m_wakes, 1);
    m_connector.OnWake();
    EXPECT_EQ(m_outcomes, std::vector<bool>{true});
    EXPECT_EQ(m_link.GetState(), CHostLink::EState::Open);
    EXPECT_EQ(m_link.Get(), &Link("127.0.0.2:80"));
    EXPECT_EQ(Link("127.0.0.2:80").GetSinkCount(), 1) << "the connection's sink alone";
    EXPECT_EQ(Link("[::1]:80").GetDisconnects(), 1);
    EXPECT_EQ(Link("[::1]:80").GetSinkCount(), 0);
    Link("[::1]:80").Open();
    EXPECT_EQ(m_wakes, 1) << "the loser's late answer reaches nobody";
    EXPECT_EQ(m_outcomes.size(), 1u);
}

TEST_F(RaceTest, AFailureStartsTheNextAtOnceAndTheLastFailureIsToldOnce)
{
    Begin({"127.0.0.2", "127.0.0.3", "127.0.0.9", "::1"});
    Link("[::1]:80").Fail(ENETUNREACH);
    m_connector.OnWake();
    EXPECT_EQ(m_host.tried, (Tried{"[::1]:80", "127.0.0.2:80"})) << "no delay after a failure";
    After(CHostConnector::ATTEMPT_DELAY_MS);
    EXPECT_EQ(m_host.tried, (Tried{"[::1]:80", "127.0.0.2:80", "127.0.0.3:80"})) << "the rules' refusal never tried";
    Link("127.0.0.2:80").Fail(ECONNREFUSED);
    m_connector.OnWake();
    EXPECT_TRUE(m_outcomes.empty());
    Link("127.0.0.3:80").Fail(EHOSTUNREACH);
    m_connector.OnWake();
    m_connector.OnWake();
    EXPECT_EQ(m_outcomes, std::vector<bool>{false});
    EXPECT_EQ(m_connector.GetFailure(), EHOSTUNREACH);
    EXPECT_EQ(m_link.GetState(), CHostLink::EState::None);
    EXPECT_FALSE(m_connector.GetAttemptDeadline());
}

TEST_F(RaceTest, ALinkThatFailedBeforeItWasTakenIsAFailedAttemptWithItsReason)
{
    m_host.failAtOnce["127.0.0.2:80"] = ENETUNREACH;
    Begin({"127.0.0.2"});
    m_connector.OnWake();
    EXPECT_EQ(m_outcomes, std::vector<bool>{false});
    EXPECT_EQ(m_connector.GetFailure(), ENETUNREACH);
    EXPECT_EQ(m_link.GetState(), CHostLink::EState::None);
    EXPECT_EQ(Link("127.0.0.2:80").GetDisconnects(), 1);
}

TEST_F(RaceTest, TheConnectTimeoutEndsTheWholeRaceAndAnAnswerAtOnceEndsItAtOnce)
{
    m_host.refused = {"[::1]:80"};
    Begin({"127.0.0.2", "::1", "::2"}, 1000);
    EXPECT_EQ(m_host.tried, (Tried{"[::1]:80", "127.0.0.2:80"}));
    After(CHostConnector::ATTEMPT_DELAY_MS);
    EXPECT_EQ(m_host.tried.size(), 3u);
    After(1000 - CHostConnector::ATTEMPT_DELAY_MS);
    EXPECT_EQ(m_outcomes, std::vector<bool>{false});
    EXPECT_EQ(m_connector.GetFailure(), ETIMEDOUT);
    for (const char* to : {"127.0.0.2:80", "[::2]:80"}) {
        EXPECT_EQ(Link(to).GetDisconnects(), 1) << to;
        EXPECT_EQ(Link(to).GetSinkCount(), 0) << to;
    }

    // A host that answers open at once: the race is won inside Begin, told after it.
    m_host.refused.clear();
    m_host.links.clear();
    FakeMultiPointLayer opening;
    CHostConnector atOnce{&opening, m_client, m_helpers, m_link, [this] { ++m_wakes; },
                          [this](bool connected) { m_outcomes.push_back(connected); }};
    ASSERT_TRUE(atOnce.Begin(Name({"127.0.0.2", "::1"}), 1000, [](const IZRTConnectionAddress&) { return true; }));
    EXPECT_EQ(opening.GetDestinations(), Tried{"[::1]:80"});
    EXPECT_EQ(m_outcomes.size(), 1u);
    atOnce.OnWake();
    EXPECT_EQ(m_outcomes, (std::vector<bool>{false, true}));
    EXPECT_EQ(m_link.GetState(), CHostLink::EState::Open);
}

using EHeader = CProxyHeader::EState;

std::string Binary(unsigned char command, unsigned char family, const std::string& block)
{
    const std::string signature("\r\n\r\n\0\r\nQUIT\n", 12);
    return signature + static_cast<char>(command) + static_cast<char>(family) +
           static_cast<char>(block.size() >> 8) + static_cast<char>(block.size() & 0xFF) + block;
}

// What a parser made of the header: its state, and the client it names ("-": none).
std::string Outcome(const CProxyHeader& header)
{
    static const char* const STATES[] = {"incomplete", "done", "malformed"};
    std::string text = STATES[static_cast<int>(header.GetState())];
    if (!header.NamesClient())
        return text + " -";
    const sockaddr_storage& client = header.GetClient();
    CTCPIPAddress address;
    address.SetAddress(reinterpret_cast<const sockaddr&>(client), sizeof(client));
    return text + " " + address.ToString();
}

TEST(ProxyHeaderTest, EveryFormWholeSplitAnywhereOrFollowedByRequestBytes)
{
    const std::string v4(std::string("\xC0\x00\x02\x07\xC6\x33\x64\x01", 8) + "\xDC\x04\x01\xBB");
    const std::string v6 = std::string("\x20\x01\x0D\xB8", 4) + std::string(11, '\0') + "\x07" +
                           std::string(16, '\x01') + "\xFF\xFF\x04\x38";
    const std::string ffff = "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff";
    const std::string longest = "PROXY UNKNOWN " + ffff + " " + ffff + " 65535 65535\r\n";
    const struct {
        std::string bytes;
        const char* outcome;
    } cases[] = {
        {"PROXY TCP4 192.0.2.7 198.51.100.1 56324 443\r\n", "done 192.0.2.7:56324"},
        {"PROXY TCP6 2001:db8::7 ::1 0 1080\r\n", "done [2001:db8::7]:0"},
        {"PROXY UNKNOWN\r\n", "done -"},
        {longest, "done -"}, // 107 bytes, the most a line may have
        {Binary(0x21, 0x11, v4), "done 192.0.2.7:56324"},
        {Binary(0x21, 0x21, v6 + std::string("\x04\x00\x02xy", 5) + std::string(600, 'T')), "done [2001:db8::7]:65535"},
        {Binary(0x20, 0x11, v4), "done -"}, // LOCAL: its addresses are ignored
        {Binary(0x20, 0x00, ""), "done -"},
        {Binary(0x21, 0x00, ""), "done -"},
        {Binary(0x21, 0x10, v4), "done -"},                 // no transport named
        {Binary(0x21, 0x31, std::string(216, '/')), "done -"}, // UNIX
        {"PROXY TCP4 192.0.2.7 198.51.100.1 56324 443\r", "incomplete -"},
        {Binary(0x21, 0x11, v4).substr(0, 20), "incomplete -"},
        {"GET / HTTP/1.1\r\n", "malformed -"},
        {"PROXY TCP4 192.0.2.7 198.51.100.1 56324 443\n", "malformed -"},
        {"PROXY TCP4 192.0.2.7 198.51.100.1 56324 443\rX\r\n", "malformed -"},
        {"PROXY TCP4 192.0.2.07 198.51.100.1 56324 443\r\n", "malformed -"},
        {"PROXY TCP4 192.0.2.7 198.51.100.1 056324 443\r\n", "malformed -"},
        {"PROXY TCP4 192.0.2.7 198.51.100.1 65536 443\r\n", "malformed -"},
        {"PROXY TCP4 2001:db8::7 ::1 1 2\r\n", "malformed -"},
        {"PROXY TCP4  192.0.2.7 198.51.100.1 1 2\r\n", "malformed -"},
        {"PROXY TCP4 192.0.2.7 198.51.100.1 1\r\n", "malformed -"},
        {"PROXY TCP4 192.0.2.7 198.51.100.1 1 2 3\r\n", "malformed -"},
        {"PROXY UDP4 192.0.2.7 198.51.100.1 1 2\r\n", "malformed -"},
        {std::string("PROXY TCP4 192.0.2.7 198.51.100.1 1 2\0\r\n", 40), "malformed -"},
        {longest.substr(0, 105) + "f\r\n", "malformed -"}, // 108 bytes
        {Binary(0x21, 0x11, v4).replace(7, 1, "X"), "malformed -"},
        {Binary(0x11, 0x11, v4), "malformed -"}, // version 1 in binary
        {Binary(0x22, 0x11, v4), "malformed -"}, // no such command
        {Binary(0x21, 0x41, v4), "malformed -"},
        {Binary(0x21, 0x13, v4), "malformed -"},
        {Binary(0x21, 0x21, v4), "malformed -"}, // too short for IPv6 addresses
    };
    const std::string request = "GET / HTTP/1.1\r\n";
    for (const auto& test : cases) {
        const auto* bytes = reinterpret_cast<const unsigned char*>(test.bytes.data());
        const size_t size = test.bytes.size();
        const bool done = std::strncmp(test.outcome, "done", 4) == 0;
        CProxyHeader whole;
        const std::string followed = test.bytes + (done ? request : "");
        const size_t taken = whole.Feed(reinterpret_cast<const unsigned char*>(followed.data()), followed.size());
        EXPECT_EQ(Outcome(whole), test.outcome) << test.bytes;
        EXPECT_TRUE(done ? taken == size : taken <= size) << test.bytes; // never a request byte
        if (whole.GetState() != EHeader::Incomplete) {
            EXPECT_EQ(whole.Feed(bytes, size), 0u) << test.bytes; // settled: nothing more is taken
        }
        for (size_t split = 1; split < size; ++split) {
            CProxyHeader pieces;
            const size_t first = pieces.Feed(bytes, split);
            const size_t second = pieces.Feed(bytes + first, size - first);
            if (Outcome(pieces) != test.outcome || first + second != taken) {
                ADD_FAILURE() << test.bytes << " split at " << split << ": " << Outcome(pieces);
                break;
            }
        }
    }
}

TEST(ProxyHeaderTest, ReadFromASocketLeavesWhatFollowsTheHeaderAndTakesAnEndAsMalformed)
{
    SSocketPair split;
    const std::string line = "PROXY TCP4 192.0.2.7 198.51.100.1 56324 443\r\n";
    CProxyHeader header;
    ASSERT_EQ(send(split.peer, line.data(), 20, 0), 20);
    EXPECT_EQ(header.Take(split.ours), EHeader::Incomplete);
    const std::string rest = line.substr(20) + "GET / HTTP/1.1\r\n";
    ASSERT_EQ(send(split.peer, rest.data(), rest.size(), 0), static_cast<ssize_t>(rest.size()));
    EXPECT_EQ(header.Take(split.ours), EHeader::Done);
    char left[64];
    EXPECT_EQ(std::string(left, static_cast<size_t>(recv(split.ours, left, sizeof(left), 0))), "GET / HTTP/1.1\r\n");
    close(split.ours);

    SSocketPair cut;
    CProxyHeader other;
    ASSERT_EQ(send(cut.peer, line.data(), 30, 0), 30);
    shutdown(cut.peer, SHUT_WR);
    EXPECT_EQ(other.Take(cut.ours), EHeader::Malformed);
    close(cut.ours);
}

} // namespace
} // namespace ZRT

namespace ZRT {
namespace {

// A host whose connects block until the test lets them go: at most connect-helpers of them are
// asked at once, and a stop does not wait for one.
TEST(BlockingHostTest, HelpersAreBoundedAndAStopLeavesABlockedConnectBehind)
{
    FakeMultiPointLayer layer;
    layer.SetNonBlocking(false);
    std::atomic<int> inside{0};
    std::atomic<int> most{0};
    std::atomic<bool> release{false};
    layer.SetOnConnect([&](FakeDataLayer&, const IZRTConnectionAddress&) {
        const int now = ++inside;
        for (int seen = most; now > seen && !most.compare_exchange_weak(seen, now);) {
        }
        Testing::WaitUntil([&] { return release.load(); }, 30000);
        --inside;
    });
    Testing::FakeResolver resolver;
    Proxy::CProxy proxy;
    Proxy::SProxySettings settings = proxy.GetServer().GetSettings();
    settings.connectHelpers = 3;
    ASSERT_TRUE(proxy.GetServer().SetSettings(settings));
    ASSERT_TRUE(proxy.StartProxy("127.0.0.1", 0, &resolver, &layer, nullptr, nullptr));
    std::vector<int> clients;
    for (int i = 0; i < 8; ++i) {
        clients.push_back(Testing::TestSockets::Connect("127.0.0.1", static_cast<unsigned>(proxy.GetListenPort())));
        const unsigned char request[] = {5, 1, 0, 5, 1, 0, 1, 127, 0, 0, 2, 0, 80};
        ASSERT_EQ(send(clients.back(), request, sizeof(request), 0), static_cast<ssize_t>(sizeof(request)));
    }
    ASSERT_TRUE(Testing::WaitUntil([&] { return inside.load() == 3; }));

    proxy.StopProxy(); // returns while three connects are still blocked in the host
    EXPECT_EQ(inside.load(), 3);
    EXPECT_EQ(proxy.GetConnectionCount(), 0u);
    release = true;
    ASSERT_TRUE(Testing::WaitUntil([&] { return inside.load() == 0; }));
    EXPECT_EQ(most.load(), 3) << "the five others waited in line and were dropped at the stop";
    for (const int client : clients)
        close(client);
}

} // namespace
} // namespace ZRT
