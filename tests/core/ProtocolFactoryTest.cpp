#include <memory>
#include <string>
#include <thread>

#include "fakes/FakeProxyConnection.h"
#include "proxy/core/CConnectionProtocolFactory.h"
#include "proxy/httpproxy/CConnectionProtocol_HTTP.h"
#include "proxy/socks5/CConnectionProtocol_SOCKS5.h"

#include <gtest/gtest.h>

namespace ZRT {
namespace Testing {
namespace {

using Proxy::CConnectionProtocolFactory;

TEST(ConnectionProtocolFactory, EmptyFirstChunkYieldsNoHandlerEvenWithATestCreator)
{
    FakeProxyConnection connection;
    auto* factory = CConnectionProtocolFactory::GetInstance();
    int calls = 0;
    factory->SetCreatorForTesting([&](Proxy::IProxyConnection&, const char*, int) -> Proxy::IConnectionProtocol* {
        ++calls;
        return nullptr;
    });
    EXPECT_EQ(factory->CreateProtocol(connection, nullptr, 3), nullptr);
    EXPECT_EQ(factory->CreateProtocol(connection, "\x05", 0), nullptr);
    EXPECT_EQ(factory->CreateProtocol(connection, "\x05", -1), nullptr);
    EXPECT_EQ(calls, 0);
    factory->SetCreatorForTesting({});
}

TEST(ConnectionProtocolFactory, FirstByteFiveMeansSocks5AndAnythingElseHttp)
{
    FakeProxyConnection connection;
    auto* factory = CConnectionProtocolFactory::GetInstance();
    const struct {
        std::string chunk;
        bool socks5;
    } cases[] = {{"\x05", true}, {std::string("\x05\x01\x00", 3), true}, {"\x04\x01", false},
                 {std::string(1, '\0'), false}, {"GET / HTTP/1.1\r\n", false}, {"\x06", false}};
    for (const auto& each : cases) {
        std::unique_ptr<Proxy::IConnectionProtocol> handler(
            factory->CreateProtocol(connection, each.chunk.data(), static_cast<int>(each.chunk.size())));
        ASSERT_NE(handler, nullptr);
        EXPECT_EQ(dynamic_cast<Proxy::CConnectionProtocol_SOCKS5*>(handler.get()) != nullptr, each.socks5);
        EXPECT_EQ(dynamic_cast<Proxy::CConnectionProtocol_HTTP*>(handler.get()) != nullptr, !each.socks5);
    }
}

TEST(ConnectionProtocolFactory, OneInstanceForAllThreads)
{
    CConnectionProtocolFactory* seen[2] = {nullptr, nullptr};
    std::thread a([&] { seen[0] = CConnectionProtocolFactory::GetInstance(); });
    std::thread b([&] { seen[1] = CConnectionProtocolFactory::GetInstance(); });
    a.join();
    b.join();
    EXPECT_EQ(seen[0], seen[1]);
    EXPECT_EQ(seen[0], CConnectionProtocolFactory::GetInstance());
}

} // namespace
} // namespace Testing
} // namespace ZRT
