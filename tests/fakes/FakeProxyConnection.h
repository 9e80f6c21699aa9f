#pragma once

#include <condition_variable>
#include <mutex>
#include <string>

#include "fakes/FakeMultiPointLayer.h"
#include "proxy/core/IConnectionProtocol.h"
#include "proxy/core/IProxyConnection.h"
#include "transport/CTCPIPAddress.h"

namespace ZRT {
namespace Testing {

// Stands in for a client connection when a handler is tested alone: records what the handler
// sends each way, opens host links through a FakeMultiPointLayer, and calls the handler's
// Terminate once on the first DisconnectClient, as the real connection does.
class FakeProxyConnection : public Proxy::IProxyConnection {
public:
    explicit FakeProxyConnection(unsigned int clientPort = 50123);

    void SetProtocol(Proxy::IConnectionProtocol* protocol);
    void SetDatagramHandler(IDatagramHandler* handler) { m_datagramHandler = handler; }
    void SetConnectionListener(IConnectionListener* listener) { m_listener = listener; }
    FakeMultiPointLayer& GetMultiPointLayer() { return m_multiPointLayer; }

    const IZRTConnectionAddress& GetClientAddress() const override { return m_clientAddress; }
    unsigned int GetClientPort() const override { return m_clientAddress.GetPortNumber(); }
    int GetID() const override { return 1; }
    bool IsConnectedToHost() const override;
    bool IsConnectedToClient() const override;
    bool ConnectToHost(QOX::CRefCountPtr<IZRTConnectionAddress> destination) override;
    void DisconnectClient() override;
    bool SendToHost(const char* data, int length) override;
    bool SendToClient(const char* data, int length) override;
    IDatagramHandler* GetDatagramHandler() override { return m_datagramHandler; }
    IConnectionListener* GetConnectionListener() override { return m_listener; }
    unsigned int GetClientBacklog() const override;
    void WakeConnection() override;

    std::string GetToClient() const;
    std::string GetToHost() const;
    // Each SendToHost / SendToClient call as one element, to check how bytes were grouped.
    int GetSendToHostCalls() const;
    int GetSendToClientCalls() const;
    std::string WaitForClientBytes(size_t count, int timeoutMs = 5000);
    std::string WaitForHostBytes(size_t count, int timeoutMs = 5000);
    bool WaitForDisconnect(int timeoutMs = 5000);
    int GetTerminateCalls() const;
    int GetConnectCalls() const;
    int GetWakeCalls() const;
    // Pretends the host link reported its closure.
    void SetHostClosed();
    // Makes GetClientBacklog report a fixed value (flow-control tests); 0 by default.
    void SetClientBacklog(unsigned int bytes);

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    CTCPIPAddress m_clientAddress;
    FakeMultiPointLayer m_multiPointLayer;
    Proxy::IConnectionProtocol* m_protocol = nullptr;
    IDatagramHandler* m_datagramHandler = nullptr;
    IConnectionListener* m_listener = nullptr;
    QOX::CRefCountPtr<IZRTDataLayer> m_link;
    std::string m_toClient;
    std::string m_toHost;
    int m_hostSends = 0;
    int m_clientSends = 0;
    int m_terminates = 0;
    int m_connects = 0;
    int m_wakes = 0;
    unsigned int m_clientBacklog = 0;
    bool m_disconnected = false;
    bool m_hostClosed = false;
};

} // namespace Testing
} // namespace ZRT
