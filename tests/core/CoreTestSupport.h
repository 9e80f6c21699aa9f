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
#include "proxy/core/CConnectionProtocolFactory.h"
#include "proxy/core/CProxy.h"
#include "proxy/core/CProxyConnection.h"

namespace ZRT {
namespace Testing {

// Deterministic bytes, so a relayed stream can be checked at any offset.
std::string Pattern(size_t offset, size_t length);

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

    std::string Requests() const;
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
    RelayProtocol(Proxy::IProxyConnection& connection, std::shared_ptr<SHandlerLog> log, bool connect);
    ~RelayProtocol() override;
    void Init() override;
    void Terminate() override;
    void HandleRequest(const char* data, int length) override;
    void HandleResponse(const char* data, int length) override;

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
    void SetUp() override;
    void TearDown() override;

    void UseRealHandlers();
    // Makes every new link answer each send with the same bytes.
    void EchoLinks();
    std::shared_ptr<SHandlerLog> Handler(size_t index);
    size_t HandlerCount();
    bool WaitForConnections(size_t count);
    // The newest link once its connection listens to it: bytes pushed earlier would reach no one.
    QOX::CRefCountPtr<FakeDataLayer> WaitForListenedLink();

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
