#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/FakeConnectionListener.h"
#include "fakes/FakeDatagramHandler.h"
#include "fakes/FakeMultiPointLayer.h"
#include "fakes/FakeResolver.h"
#include "fakes/Polling.h"
#include "fakes/TestSockets.h"
#include "proxy/address/CAddressManager.h"
#include "proxy/core/CConnectionProtocolFactory.h"
#include "proxy/core/CProxy.h"
#include "proxy/core/CProxyConnection.h"
#include "transport/CTCPIPAddress.h"

namespace ZRT {
namespace Testing {

// Deterministic bytes, so a relayed stream can be checked at any offset.
inline std::string Pattern(size_t offset, size_t length)
{
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; ++i)
        bytes[i] = static_cast<char>(((offset + i) * 7 + (offset + i) / 251) & 0xff);
    return bytes;
}

// A blocking loopback client with receive time-outs.
class TestClient {
public:
    TestClient() = default;
    ~TestClient() { Close(); }
    TestClient(const TestClient&) = delete;
    TestClient& operator=(const TestClient&) = delete;

    bool Connect(int port, const char* host = "127.0.0.1")
    {
        m_socket = TestSockets::Connect(host, static_cast<unsigned int>(port));
        return m_socket >= 0;
    }
    bool Send(const std::string& bytes) { return TestSockets::WriteAll(m_socket, bytes); }
    // Sends bytes and reads the same back, through an echoing link.
    bool Echoes(const std::string& bytes) { return Send(bytes) && Read(bytes.size()) == bytes; }
    // Exactly count bytes, or fewer if the peer closed or the time ran out.
    std::string Read(size_t count, int timeoutMs = 10000) { return TestSockets::Read(m_socket, count, timeoutMs); }
    // Everything until the peer closes; closed tells whether it did.
    std::string ReadToEnd(bool* closed = nullptr, int timeoutMs = 10000)
    {
        return TestSockets::Read(m_socket, 0, timeoutMs, closed);
    }
    bool WaitForClose(int timeoutMs = 10000)
    {
        bool closed = false;
        ReadToEnd(&closed, timeoutMs);
        return closed;
    }
    void SetReceiveBuffer(int bytes) { setsockopt(m_socket, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes)); }
    void Close() { TestSockets::Close(std::exchange(m_socket, -1)); }
    int Socket() const { return m_socket; }

private:
    int m_socket = -1;
};

// Everything one test handler saw; outlives the handler.
struct SHandlerLog : Guarded {
    Proxy::IProxyConnection* connection = nullptr;
    int id = 0;
    std::vector<std::string> requests;
    std::vector<std::string> responses;
    int inits = 0;
    int terminates = 0;
    bool destroyed = false;
    bool connectResult = false;

    std::string Requests() const
    {
        return Locked([&] {
            std::string all;
            for (const auto& chunk : requests)
                all += chunk;
            return all;
        });
    }
    Proxy::CProxyConnection* Connection() const
    {
        return Locked([&] { return dynamic_cast<Proxy::CProxyConnection*>(connection); });
    }
};

// Makes Link objects and keeps the newest, for tests that need a link unlike FakeDataLayer.
template <class Link>
class SingleLinkLayer : public IZRTMultiPointLayer, public Guarded {
public:
    QOX::CRefCountPtr<IZRTDataLayer> Connect(const IZRTConnectionAddress&, const IZRTConnectionAddress&) override
    {
        return Locked([&] {
            m_last = new Link();
            return QOX::CRefCountPtr<IZRTDataLayer>(m_last.GetRawPointer());
        });
    }
    QOX::CRefCountPtr<Link> Last() const { return Locked([&] { return m_last; }); }

private:
    QOX::CRefCountPtr<Link> m_last;
};

// Relays like a handler after its negotiation: the first request opens a link to 127.0.0.1:80,
// requests go to the host, host bytes go back to the client.
class RelayProtocol : public Proxy::IConnectionProtocol {
public:
    RelayProtocol(Proxy::IProxyConnection& connection, std::shared_ptr<SHandlerLog> log, bool connect)
        : m_connection(connection), m_log(std::move(log)), m_connect(connect)
    {
        m_log->Locked([&] {
            m_log->connection = &connection;
            m_log->id = connection.GetID();
        });
    }
    ~RelayProtocol() override
    {
        m_log->Locked([&] {
            m_log->destroyed = true;
            m_log->connection = nullptr;
        });
    }
    void Init() override { m_log->Locked([&] { ++m_log->inits; }); }
    void Terminate() override { m_log->Locked([&] { ++m_log->terminates; }); }
    void HandleRequest(const char* data, int length) override
    {
        m_log->Locked([&] { m_log->requests.emplace_back(data, static_cast<size_t>(length)); });
        if (m_connect && !m_tried) {
            m_tried = true;
            const bool connected = m_connection.ConnectToHost(new CTCPIPAddress(127, 0, 0, 1, 80));
            m_log->Locked([&] { m_log->connectResult = connected; });
        }
        m_connection.SendToHost(data, length);
    }
    void HandleResponse(const char* data, int length) override
    {
        m_log->Locked([&] { m_log->responses.emplace_back(data, static_cast<size_t>(length)); });
        m_connection.SendToClient(data, length);
    }

private:
    Proxy::IProxyConnection& m_connection;
    std::shared_ptr<SHandlerLog> m_log;
    bool m_connect;
    bool m_tried = false;
};

// A started CProxy on 127.0.0.1 and a free port, over the shared fakes, with RelayProtocol
// handlers (or the real ones when UseRealHandlers is called).
class ProxyTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        Proxy::CConnectionProtocolFactory::GetInstance()->SetCreatorForTesting(
            [this](Proxy::IProxyConnection& connection, const char*, int) -> Proxy::IConnectionProtocol* {
                auto log = std::make_shared<SHandlerLog>();
                {
                    std::lock_guard<std::mutex> hold(m_handlersMutex);
                    m_handlers.push_back(log);
                }
                return new RelayProtocol(connection, log, m_connectOnFirstRequest);
            });
        Proxy::CAddressManager::GetInstance()->SetLocalAddressesForTesting({"localhost", "127.0.0.1"});
        ASSERT_TRUE(m_proxy.StartProxy("127.0.0.1", 0, &m_resolver, &m_multiPointLayer, &m_datagramHandler,
                                       &m_connectionListener));
        m_port = m_proxy.GetListenPort();
        ASSERT_NE(m_port, 0);
    }

    void TearDown() override
    {
        m_proxy.StopProxy();
        EXPECT_EQ(m_proxy.GetConnectionCount(), 0u);
        UseRealHandlers();
        m_multiPointLayer.ForgetLinks();
    }

    void UseRealHandlers() { Proxy::CConnectionProtocolFactory::GetInstance()->SetCreatorForTesting({}); }
    // Makes every new link answer each send with the same bytes.
    void EchoLinks()
    {
        m_multiPointLayer.SetOnConnect([](FakeDataLayer& link, const IZRTConnectionAddress&) {
            link.SetOnSend([](FakeDataLayer& self, const std::string& bytes) { self.PushFromRemote(bytes); });
        });
    }
    std::shared_ptr<SHandlerLog> Handler(size_t index)
    {
        WaitUntil([&] { return HandlerCount() > index; });
        std::lock_guard<std::mutex> hold(m_handlersMutex);
        return index < m_handlers.size() ? m_handlers[index] : std::make_shared<SHandlerLog>();
    }
    size_t HandlerCount()
    {
        std::lock_guard<std::mutex> hold(m_handlersMutex);
        return m_handlers.size();
    }
    bool WaitForConnections(size_t count)
    {
        return WaitUntil([&] { return m_proxy.GetConnectionCount() == count; });
    }
    // The newest link once its connection listens to it: bytes pushed earlier would reach no one.
    QOX::CRefCountPtr<FakeDataLayer> WaitForListenedLink()
    {
        QOX::CRefCountPtr<FakeDataLayer> link;
        WaitUntil([&] {
            link = m_multiPointLayer.GetLastLink();
            return link && link->GetSinkCount() > 0;
        });
        return link;
    }

    FakeResolver m_resolver;
    FakeMultiPointLayer m_multiPointLayer;
    FakeDatagramHandler m_datagramHandler;
    FakeConnectionListener m_connectionListener;
    Proxy::CProxy m_proxy;
    int m_port = 0;
    bool m_connectOnFirstRequest = true;

private:
    std::mutex m_handlersMutex;
    std::vector<std::shared_ptr<SHandlerLog>> m_handlers;
};

} // namespace Testing
} // namespace ZRT
