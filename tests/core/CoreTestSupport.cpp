#include "CoreTestSupport.h"

#include "proxy/address/CAddressManager.h"
#include "transport/CTCPIPAddress.h"

namespace ZRT {
namespace Testing {

std::string Pattern(size_t offset, size_t length)
{
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; ++i)
        bytes[i] = static_cast<char>(((offset + i) * 7 + (offset + i) / 251) & 0xff);
    return bytes;
}

std::string SHandlerLog::Requests() const
{
    return Locked([&] {
        std::string all;
        for (const auto& chunk : requests)
            all += chunk;
        return all;
    });
}

RelayProtocol::RelayProtocol(Proxy::IProxyConnection& connection, std::shared_ptr<SHandlerLog> log, bool connect)
    : m_connection(connection), m_log(std::move(log)), m_connect(connect)
{
    m_log->Locked([&] {
        m_log->connection = &connection;
        m_log->id = connection.GetID();
    });
}

RelayProtocol::~RelayProtocol()
{
    m_log->Locked([&] {
        m_log->destroyed = true;
        m_log->connection = nullptr;
    });
}

void RelayProtocol::Init()
{
    m_log->Locked([&] { ++m_log->inits; });
}

void RelayProtocol::Terminate()
{
    m_log->Locked([&] { ++m_log->terminates; });
}

void RelayProtocol::HandleRequest(const char* data, int length)
{
    m_log->Locked([&] { m_log->requests.emplace_back(data, static_cast<size_t>(length)); });
    if (m_connect && !m_tried) {
        m_tried = true;
        const bool connected = m_connection.ConnectToHost(new CTCPIPAddress(127, 0, 0, 1, 80));
        m_log->Locked([&] { m_log->connectResult = connected; });
    }
    m_connection.SendToHost(data, length);
}

void RelayProtocol::HandleResponse(const char* data, int length)
{
    m_log->Locked([&] { m_log->responses.emplace_back(data, static_cast<size_t>(length)); });
    m_connection.SendToClient(data, length);
}

void ProxyTest::SetUp()
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

void ProxyTest::TearDown()
{
    m_proxy.StopProxy();
    EXPECT_EQ(m_proxy.GetConnectionCount(), 0u);
    Proxy::CConnectionProtocolFactory::GetInstance()->SetCreatorForTesting({});
    m_multiPointLayer.ForgetLinks();
}

void ProxyTest::UseRealHandlers()
{
    Proxy::CConnectionProtocolFactory::GetInstance()->SetCreatorForTesting({});
}

void ProxyTest::EchoLinks()
{
    m_multiPointLayer.SetOnConnect([](FakeDataLayer& link, const IZRTConnectionAddress&) {
        link.SetOnSend([](FakeDataLayer& self, const std::string& bytes) { self.PushFromRemote(bytes); });
    });
}

std::shared_ptr<SHandlerLog> ProxyTest::Handler(size_t index)
{
    WaitUntil([&] { return HandlerCount() > index; });
    std::lock_guard<std::mutex> hold(m_handlersMutex);
    return index < m_handlers.size() ? m_handlers[index] : std::make_shared<SHandlerLog>();
}

size_t ProxyTest::HandlerCount()
{
    std::lock_guard<std::mutex> hold(m_handlersMutex);
    return m_handlers.size();
}

bool ProxyTest::WaitForConnections(size_t count)
{
    return WaitUntil([&] { return m_proxy.GetConnectionCount() == count; });
}

QOX::CRefCountPtr<FakeDataLayer> ProxyTest::WaitForListenedLink()
{
    QOX::CRefCountPtr<FakeDataLayer> link;
    WaitUntil([&] {
        link = m_multiPointLayer.GetLastLink();
        return link && link->GetSinkCount() > 0;
    });
    return link;
}

} // namespace Testing
} // namespace ZRT
