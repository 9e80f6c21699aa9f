#include "fakes/FakeProxyConnection.h"

#include <chrono>

namespace ZRT {
namespace Testing {

FakeProxyConnection::FakeProxyConnection(unsigned int clientPort) : m_clientAddress(127, 0, 0, 1, clientPort) {}

void FakeProxyConnection::SetProtocol(Proxy::IConnectionProtocol* protocol)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_protocol = protocol;
}

bool FakeProxyConnection::IsConnectedToHost() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_link && !m_hostClosed;
}

bool FakeProxyConnection::IsConnectedToClient() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return !m_disconnected;
}

bool FakeProxyConnection::ConnectToHost(QOX::CRefCountPtr<IZRTConnectionAddress> destination)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    ++m_connects;
    if (m_link || !destination)
        return false;
    m_link = m_multiPointLayer.Connect(*destination, m_clientAddress);
    return static_cast<bool>(m_link);
}

void FakeProxyConnection::DisconnectClient()
{
    Proxy::IConnectionProtocol* protocol = nullptr;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        if (m_disconnected)
            return;
        m_disconnected = true;
        protocol = m_protocol;
        if (protocol)
            ++m_terminates;
    }
    m_changed.notify_all();
    if (protocol)
        protocol->Terminate();
}

bool FakeProxyConnection::SendToHost(const char* data, int length)
{
    QOX::CRefCountPtr<IZRTDataLayer> link;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        if (!m_link || m_hostClosed)
            return false;
        link = m_link;
        m_toHost.append(data, static_cast<size_t>(length));
        ++m_hostSends;
    }
    m_changed.notify_all();
    link->SendData(reinterpret_cast<const unsigned char*>(data), length);
    return true;
}

bool FakeProxyConnection::SendToClient(const char* data, int length)
{
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        if (m_disconnected)
            return false;
        if (length > 0)
            m_toClient.append(data, static_cast<size_t>(length));
        ++m_clientSends;
    }
    m_changed.notify_all();
    return true;
}

void FakeProxyConnection::WakeConnection()
{
    std::lock_guard<std::mutex> hold(m_mutex);
    ++m_wakes;
}

std::string FakeProxyConnection::GetToClient() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_toClient;
}

std::string FakeProxyConnection::GetToHost() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_toHost;
}

int FakeProxyConnection::GetSendToHostCalls() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_hostSends;
}

int FakeProxyConnection::GetSendToClientCalls() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_clientSends;
}

std::string FakeProxyConnection::WaitForClientBytes(size_t count, int timeoutMs)
{
    std::unique_lock<std::mutex> hold(m_mutex);
    m_changed.wait_for(hold, std::chrono::milliseconds(timeoutMs), [&] { return m_toClient.size() >= count; });
    return m_toClient;
}

std::string FakeProxyConnection::WaitForHostBytes(size_t count, int timeoutMs)
{
    std::unique_lock<std::mutex> hold(m_mutex);
    m_changed.wait_for(hold, std::chrono::milliseconds(timeoutMs), [&] { return m_toHost.size() >= count; });
    return m_toHost;
}

bool FakeProxyConnection::WaitForDisconnect(int timeoutMs)
{
    std::unique_lock<std::mutex> hold(m_mutex);
    return m_changed.wait_for(hold, std::chrono::milliseconds(timeoutMs), [&] { return m_disconnected; });
}

int FakeProxyConnection::GetTerminateCalls() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_terminates;
}

int FakeProxyConnection::GetConnectCalls() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_connects;
}

int FakeProxyConnection::GetWakeCalls() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_wakes;
}

void FakeProxyConnection::SetHostClosed()
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_hostClosed = true;
}

unsigned int FakeProxyConnection::GetClientBacklog() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_clientBacklog;
}

void FakeProxyConnection::SetClientBacklog(unsigned int bytes)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_clientBacklog = bytes;
}

} // namespace Testing
} // namespace ZRT
