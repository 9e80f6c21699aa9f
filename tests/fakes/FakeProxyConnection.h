#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>
#include <utility>

#include "fakes/FakeMultiPointLayer.h"
#include "proxy/address/CAddressManager.h"
#include "proxy/core/IConnectionProtocol.h"
#include "proxy/core/CProxyStats.h"
#include "proxy/address/CDestinationPolicy.h"
#include "proxy/auth/CLoginGuard.h"
#include "proxy/httpproxy/COriginPool.h"
#include "proxy/core/IProxyConnection.h"
#include "proxy/core/SProxySettings.h"
#include "transport/CTCPIPAddress.h"

namespace ZRT {
namespace Testing {

// The name cache of fakes that were given none, shared by the tests of one process.
inline Proxy::CAddressManager& TestAddressManager()
{
    static Proxy::CAddressManager manager;
    return manager;
}

// Stands in for a client connection when a handler is tested alone: records what the handler
// sends each way and opens host links through a FakeMultiPointLayer. The test's thread plays the
// connection's thread: what the real connection would run there later (the outcome of
// BeginConnectToHost, Resume after WakeHandler, OnTimer) waits until the test calls RunPending
// (or FireTimer), so a handler is never called inside its own call. DisconnectClient ends the
// client and terminates the handler inside the call, or with SetTerminatesLater only leaves a
// notice that the next RunPending acts on.
class FakeProxyConnection : public Proxy::IProxyConnection, public Guarded {
public:
    explicit FakeProxyConnection(unsigned int clientPort = 50123)
        : m_clientAddress(127, 0, 0, 1, clientPort), m_localAddress(127, 0, 0, 1, 1080)
    {
    }

    void SetProtocol(Proxy::IConnectionProtocol* protocol) { Locked([&] { m_protocol = protocol; }); }
    void SetDatagramHandler(IDatagramHandler* handler) { m_datagramHandler = handler; }
    void SetConnectionListener(IConnectionListener* listener) { m_listener = listener; }
    void SetAddressManager(Proxy::CAddressManager* manager) { m_addressManager = manager; }
    Proxy::SProxySettings& Settings() { return m_settings; }
    FakeMultiPointLayer& GetMultiPointLayer() { return m_multiPointLayer; }

    const IZRTConnectionAddress& GetClientAddress() const override { return m_clientAddress; }
    unsigned int GetClientPort() const override { return m_clientAddress.GetPortNumber(); }
    int GetID() const override { return 1; }
    bool IsConnectedToHost() const override { return Locked([&] { return static_cast<bool>(m_link); }); }
    bool IsConnectedToClient() const override { return Locked([&] { return !m_disconnected; }); }
    bool BeginConnectToHost(QOX::CRefCountPtr<IZRTConnectionAddress> destination) override
    {
        return Locked([&] {
            ++m_connects;
            if (m_link || !destination || m_outcome)
                return false;
            m_link = m_multiPointLayer.Connect(*destination, m_clientAddress);
            m_outcome = static_cast<bool>(m_link);
            return true;
        });
    }
    QOX::CRefCountPtr<IZRTDataLayer> ReleaseHostLink() override
    {
        QOX::CRefCountPtr<IZRTDataLayer> link;
        Locked([&] {
            link = std::move(m_link);
            m_link.Reset();
            ++m_released;
        });
        return link;
    }
    int GetConnectFailure() const override { return Locked([&] { return m_connectFailure; }); }
    void SetConnectFailure(int failure) { Locked([&] { m_connectFailure = failure; }); }
    Proxy::COriginPool& GetOriginPool() override { return m_originPool; }
    void FinishRequest(const std::string& method, int status) override
    {
        Locked([&] { m_finishedRequests.push_back(method + " " + std::to_string(status)); });
    }
    std::vector<std::string> GetFinishedRequests() const { return Locked([&] { return m_finishedRequests; }); }
    int GetReleasedLinks() const { return Locked([&] { return m_released; }); }
    bool AdoptHostLink(QOX::CRefCountPtr<IZRTDataLayer> link) override
    {
        return Locked([&] {
            if (m_link || !link)
                return false;
            m_link = link;
            ++m_adopted;
            return true;
        });
    }
    bool EndHostOutput() override
    {
        return Locked([&] {
            if (!m_link)
                return false;
            ++m_hostOutputEnds;
            return true;
        });
    }
    void DisconnectClient() override
    {
        Proxy::IConnectionProtocol* protocol = nullptr;
        Change([&] {
            ++m_disconnectCalls;
            if (std::exchange(m_disconnectAsked, true))
                return;
            m_terminateDue = true;
            if (!m_terminatesLater)
                protocol = EndClientLocked();
        });
        if (protocol)
            protocol->Terminate();
    }
    void SetTerminatesLater(bool later) { Locked([&] { m_terminatesLater = later; }); }
    int GetDisconnectCalls() const { return Locked([&] { return m_disconnectCalls; }); }
    bool SendToHost(const char* data, int length) override
    {
        QOX::CRefCountPtr<IZRTDataLayer> link;
        Change([&] {
            if (!m_link)
                return;
            link = m_link;
            m_toHost.append(data, static_cast<size_t>(length));
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
        });
        return sent;
    }
    IDatagramHandler* GetDatagramHandler() override { return m_datagramHandler; }
    IConnectionListener* GetConnectionListener() override { return m_listener; }
    unsigned int GetClientBacklog() const override { return 0; }
    void WakeConnection() override { Change([&] { ++m_wakes; }); }
    void WakeHandler() override
    {
        Change([&] {
            ++m_wakes;
            m_resumeDue = true;
        });
    }
    void SetHandlerTimer(int milliseconds) override
    {
        Locked([&] {
            m_timerMs = milliseconds;
            m_timerDue = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
        });
    }
    Proxy::CAddressManager& GetAddressManager() override
    {
        return m_addressManager ? *m_addressManager : TestAddressManager();
    }
    Proxy::CLoginGuard& GetLoginGuard() override { return m_loginGuard; }
    const IZRTConnectionAddress& GetLocalAddress() const override { return m_localAddress; }
    const Proxy::SProxySettings& GetSettings() const override { return m_settings; }
    bool IsDestinationAllowed(const IZRTConnectionAddress& destination) override
    {
        Proxy::CDestinationPolicy policy;
        std::string error;
        sockaddr_storage storage{};
        int length = sizeof(storage);
        return policy.Build(m_settings.allowDestinations, m_settings.denyDestinations, m_settings.privatePorts, error) &&
               destination.GetSockAddr(reinterpret_cast<sockaddr*>(&storage), &length) &&
               policy.Allows(storage, GetAddressManager(), false);
    }
    void DescribeExchange(const char* protocol, const std::string& destination) override
    {
        Locked([&] {
            m_protocolName = protocol;
            m_destinationText = destination;
        });
    }
    void SetOutcome(Proxy::EOutcome outcome) override
    {
        Locked([&] {
            if (!m_exchangeOutcome)
                m_exchangeOutcome = outcome;
        });
    }
    Proxy::CProxyStats& GetStats() override { return m_stats; }
    void MarkRequestComplete() override { Locked([&] { m_requestComplete = true; }); }
    void CountDatagram(bool toHost, uint64_t payloadBytes) override
    {
        Locked([&] { (toHost ? m_datagramBytesToHost : m_datagramBytesToClient) += payloadBytes; });
    }
    uint64_t GetDatagramBytes(bool toHost) const
    {
        return Locked([&] { return toHost ? m_datagramBytesToHost : m_datagramBytesToClient; });
    }
    void SetUser(const std::string& user) override { Locked([&] { m_user = user.empty() ? "-" : user; }); }
    bool IsRequestComplete() const { return Locked([&] { return m_requestComplete; }); }
    std::string GetUser() const { return Locked([&] { return m_user; }); }
    std::string GetProtocolName() const { return Locked([&] { return m_protocolName; }); }
    std::string GetDestinationText() const { return Locked([&] { return m_destinationText; }); }
    // The first outcome a handler set, if any.
    std::optional<Proxy::EOutcome> GetOutcome() const { return Locked([&] { return m_exchangeOutcome; }); }

    // Runs what the connection's thread would run next: the connect outcome, then Resume, until
    // nothing is left.
    void RunPending()
    {
        for (;;) {
            Proxy::IConnectionProtocol* protocol = nullptr;
            std::optional<bool> outcome;
            bool resume = false;
            if (Proxy::IConnectionProtocol* ending = Locked([&] { return EndClientLocked(); })) {
                ending->Terminate();
                return;
            }
            Change([&] {
                protocol = m_disconnected ? nullptr : m_protocol;
                outcome = std::exchange(m_outcome, std::nullopt);
                resume = std::exchange(m_resumeDue, false);
            });
            if (!protocol || (!outcome && !resume))
                return;
            if (outcome)
                protocol->OnHostConnected(*outcome);
            if (resume)
                protocol->Resume();
        }
    }
    // Waits until another thread woke the handler, then runs what is pending.
    bool RunWhenWoken(int timeoutMs = 5000)
    {
        if (!WaitFor([&] { return m_resumeDue || m_disconnected; }, timeoutMs))
            return false;
        RunPending();
        return true;
    }
    // The handler's timer came due (the test decides when).
    void FireTimer()
    {
        Proxy::IConnectionProtocol* protocol = nullptr;
        Locked([&] {
            protocol = m_disconnected || m_timerMs < 0 ? nullptr : m_protocol;
            m_timerMs = -1;
        });
        if (protocol)
            protocol->OnTimer();
    }
    // Waits until the time the handler asked for has come, then fires its timer.
    void FireTimerWhenDue()
    {
        std::this_thread::sleep_until(Locked([&] { return m_timerDue; }));
        FireTimer();
    }
    int GetTimerMs() const { return Locked([&] { return m_timerMs; }); }

    std::string GetToClient() const { return Locked([&] { return m_toClient; }); }
    std::string GetToHost() const { return Locked([&] { return m_toHost; }); }
    int GetTerminateCalls() const { return Locked([&] { return m_terminates; }); }
    int GetConnectCalls() const { return Locked([&] { return m_connects; }); }
    int GetAdoptedLinks() const { return Locked([&] { return m_adopted; }); }
    int GetHostOutputEnds() const { return Locked([&] { return m_hostOutputEnds; }); }

private:
    // The handler to terminate when a disconnect is due.
    Proxy::IConnectionProtocol* EndClientLocked()
    {
        if (!std::exchange(m_terminateDue, false))
            return nullptr;
        m_disconnected = true;
        m_terminates += m_protocol ? 1 : 0;
        return m_protocol;
    }

    CTCPIPAddress m_clientAddress;
    CTCPIPAddress m_localAddress;
    FakeMultiPointLayer m_multiPointLayer;
    Proxy::SProxySettings m_settings;
    bool m_requestComplete = false;
    uint64_t m_datagramBytesToHost = 0;
    uint64_t m_datagramBytesToClient = 0;
    std::string m_user = "-";
    Proxy::CProxyStats m_stats;
    Proxy::CLoginGuard m_loginGuard;
    Proxy::CAddressManager* m_addressManager = nullptr;
    std::string m_protocolName;
    std::string m_destinationText;
    std::optional<Proxy::EOutcome> m_exchangeOutcome;
    Proxy::IConnectionProtocol* m_protocol = nullptr;
    IDatagramHandler* m_datagramHandler = nullptr;
    IConnectionListener* m_listener = nullptr;
    QOX::CRefCountPtr<IZRTDataLayer> m_link;
    std::optional<bool> m_outcome;
    bool m_resumeDue = false;
    int m_timerMs = -1;
    std::chrono::steady_clock::time_point m_timerDue;
    bool m_terminatesLater = false;
    bool m_terminateDue = false;
    bool m_disconnectAsked = false;
    int m_disconnectCalls = 0;
    std::string m_toClient;
    std::string m_toHost;
    int m_terminates = 0;
    int m_connects = 0;
    int m_adopted = 0;
    int m_hostOutputEnds = 0;
    int m_wakes = 0;
    bool m_disconnected = false;
    int m_connectFailure = 0;
    int m_released = 0;
    std::vector<std::string> m_finishedRequests;
    Proxy::COriginPool m_originPool;
};

} // namespace Testing
} // namespace ZRT
