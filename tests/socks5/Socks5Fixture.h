#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <memory>
#include <string>

#include "fakes/FakeConnectionListener.h"
#include "fakes/FakeDatagramHandler.h"
#include "fakes/FakeProxyConnection.h"
#include "fakes/FakeResolver.h"
#include "fakes/Polling.h"
#include "proxy/address/CAddressManager.h"
#include "proxy/socks5/CConnectionProtocol_SOCKS5.h"

namespace ZRT {
namespace Testing {

inline std::string Bytes(std::initializer_list<int> values)
{
    std::string bytes;
    for (int value : values)
        bytes.push_back(static_cast<char>(value));
    return bytes;
}

// A reply with REP code, 0.0.0.0 and the fixture client's own port 50123.
inline std::string CommandReply(int code)
{
    return Bytes({5, code, 0, 1, 0, 0, 0, 0, 0xC3, 0xCB});
}

// A handler of its own on connection, handed the greeting and request in one piece: for cases
// that need many connections, or one set up unlike the fixture's.
inline std::unique_ptr<Proxy::CConnectionProtocol_SOCKS5> StartOn(FakeProxyConnection& connection,
                                                                  const std::string& request)
{
    auto handler = std::make_unique<Proxy::CConnectionProtocol_SOCKS5>(connection);
    connection.SetProtocol(handler.get());
    handler->Init();
    const std::string exchange = Bytes({5, 1, 0}) + request;
    handler->HandleRequest(exchange.data(), static_cast<int>(exchange.size()));
    return handler;
}

// One handler on a fake connection (client port 50123 = C3 CB), with the address manager
// resolving through a scripted resolver.
class Socks5Fixture : public ::testing::Test {
protected:
    static constexpr unsigned int CLIENT_PORT = 50123;

    void SetUp() override
    {
        m_resolver.SetResolveNumeric(false);
        Proxy::CAddressManager::GetInstance()->Init(&m_resolver);
    }

    void TearDown() override
    {
        Stop();
        Proxy::CAddressManager::GetInstance()->Terminate();
    }

    void Create()
    {
        m_handler.reset(new Proxy::CConnectionProtocol_SOCKS5(m_connection));
        m_connection.SetProtocol(m_handler.get());
    }

    void Start()
    {
        Create();
        m_handler->Init();
    }

    void Send(const std::string& bytes) { m_handler->HandleRequest(bytes.data(), static_cast<int>(bytes.size())); }

    // Greeting and method selection; the handler then awaits a request.
    void Negotiate()
    {
        Start();
        Send(Bytes({5, 1, 0}));
        ASSERT_EQ(Bytes({5, 0}), m_connection.WaitForClientBytes(2));
    }

    // What the client receives after the greeting reply.
    std::string Replies() { return m_connection.GetToClient().substr(2); }
    std::string WaitForReplies(size_t count) { return m_connection.WaitForClientBytes(2 + count).substr(2); }

    bool WaitForState(int state)
    {
        return WaitUntil([&] { return m_handler->GetState() == state; });
    }

    // The client goes away as the connection would do it; the handler is then destroyed.
    void Stop()
    {
        if (!m_handler)
            return;
        m_connection.DisconnectClient();
        m_handler.reset();
    }

    FakeResolver m_resolver;
    FakeProxyConnection m_connection{CLIENT_PORT};
    std::unique_ptr<Proxy::CConnectionProtocol_SOCKS5> m_handler;
};

} // namespace Testing
} // namespace ZRT
