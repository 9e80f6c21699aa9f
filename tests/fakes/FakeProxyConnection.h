#pragma once

#include <string>
#include <utility>

#include "fakes/FakeMultiPointLayer.h"
#include "proxy/core/IConnectionProtocol.h"
#include "proxy/core/IProxyConnection.h"
#include "transport/CTCPIPAddress.h"

namespace ZRT {
namespace Testing {

// Stands in for a client connection when a handler is tested alone: records what the handler
// sends each way, opens host links through a FakeMultiPointLayer, and calls the handler's
// Terminate once on the first DisconnectClient, as the real connection does.
class FakeProxyConnection : public Proxy::IProxyConnection, public Guarded {
public:
    explicit FakeProxyConnection(unsigned int clientPort = 50123) : m_clientAddress(127, 0, 0, 1, clientPort) {}

    void SetProtocol(Proxy::IConnectionProtocol* protocol) { Locked([&] { m_protocol = protocol; }); }
    void SetDatagramHandler(IDatagramHandler* handler) { m_datagramHandler = handler; }
    void SetConnectionListener(IConnectionListener* listener) { m_listener = listener; }
    FakeMultiPointLayer& GetMultiPointLayer() { return m_multiPointLayer; }

    const IZRTConnectionAddress& GetClientAddress() const override { return m_clientAddress; }
    unsigned int GetClientPort() const override { return m_clientAddress.GetPortNumber(); }
    int GetID() const override { return 1; }
    bool IsConnectedToHost() const override { return Locked([&] { return m_link && !m_hostClosed; }); }
    bool IsConnectedToClient() const override { return Locked([&] { return !m_disconnected; }); }
    bool ConnectToHost(QOX::CRefCountPtr<IZRTConnectionAddress> destination) override
    {
        return Locked([&] {
            ++m_connects;
            if (m_link || !destination)
                return false;
            m_link = m_multiPointLayer.Connect(*destination, m_clientAddress);
            return static_cast<bool>(m_link);
        });
    }
    void DisconnectClient() override
    {
        Proxy::IConnectionProtocol* protocol = nullptr;
        Change([&] {
            if (std::exchange(m_disconnected, true))
                return;
            protocol = m_protocol;
            m_terminates += protocol ? 1 : 0;
        });
        if (protocol)
            protocol->Terminate();
    }
    bool SendToHost(const char* data, int length) override
    {
        QOX::CRefCountPtr<IZRTDataLayer> link;
        Change([&] {
            if (!m_link || m_hostClosed)
                return;
            link = m_link;
            m_toHost.append(data, static_cast<size_t>(length));
            ++m_hostSends;
        });
        if (link)
            link->SendData(reinterpret_cast<const unsigned char*>(data), length);
        return static_cast<bool>(link);
    }
    bool SendToClient(const char* data, int length) override
    {
        bool sent = false;
        Change([&] {
            if (m_disconnected)
                return;
            sent = true;
            if (length > 0)
                m_toClient.append(data, static_cast<size_t>(length));
            ++m_clientSends;
        });
        return sent;
    }
    IDatagramHandler* GetDatagramHandler() override { return m_datagramHandler; }
    IConnectionListener* GetConnectionListener() override { return m_listener; }
    unsigned int GetClientBacklog() const override { return Locked([&] { return m_clientBacklog; }); }
    void WakeConnection() override { Locked([&] { ++m_wakes; }); }

    std::string GetToClient() const { return Locked([&] { return m_toClient; }); }
    std::string GetToHost() const { return Locked([&] { return m_toHost; }); }
    // How many SendToHost / SendToClient calls carried the bytes, to check how they were grouped.
    int GetSendToHostCalls() const { return Locked([&] { return m_hostSends; }); }
    int GetSendToClientCalls() const { return Locked([&] { return m_clientSends; }); }
    std::string WaitForClientBytes(size_t count, int timeoutMs = 5000)
    {
        WaitFor([&] { return m_toClient.size() >= count; }, timeoutMs);
        return GetToClient();
    }
    std::string WaitForHostBytes(size_t count, int timeoutMs = 5000)
    {
        WaitFor([&] { return m_toHost.size() >= count; }, timeoutMs);
        return GetToHost();
    }
    bool WaitForDisconnect(int timeoutMs = 5000)
    {
        return WaitFor([&] { return m_disconnected; }, timeoutMs);
    }
    int GetTerminateCalls() const { return Locked([&] { return m_terminates; }); }
    int GetConnectCalls() const { return Locked([&] { return m_connects; }); }
    int GetWakeCalls() const { return Locked([&] { return m_wakes; }); }
    // Pretends the host link reported its closure.
    void SetHostClosed() { Locked([&] { m_hostClosed = true; }); }
    // Makes GetClientBacklog report a fixed value (flow-control tests); 0 by default.
    void SetClientBacklog(unsigned int bytes) { Locked([&] { m_clientBacklog = bytes; }); }

private:
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
