#include <thread>

#include "fakes/FakeProxyConnection.h"
#include "proxy/core/CConnectionProtocolFactory.h"

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
