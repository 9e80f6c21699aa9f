#include "fakes/FakeDataLayer.h"

#include <algorithm>
#include <chrono>
#include <cstring>

namespace ZRT {
namespace Testing {

FakeDataLayer::FakeDataLayer() = default;
FakeDataLayer::~FakeDataLayer() = default;

int FakeDataLayer::ReceiveData(unsigned char* buffer, int size)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    const int count = std::min(size, static_cast<int>(m_incoming.size()));
    if (count <= 0)
        return 0;
    std::memcpy(buffer, m_incoming.data(), static_cast<size_t>(count));
    m_incoming.erase(0, static_cast<size_t>(count));
    return count;
}

int FakeDataLayer::SendData(const unsigned char* data, int size)
{
    std::function<void(FakeDataLayer&, const std::string&)> hook;
    const std::string bytes(reinterpret_cast<const char*>(data), static_cast<size_t>(std::max(size, 0)));
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        if (m_closed)
            return -1;
        m_sent += bytes;
        hook = m_onSend;
    }
    m_sentChanged.notify_all();
    if (hook)
        hook(*this, bytes);
    return size;
}

bool FakeDataLayer::GetLocalAddress(sockaddr* /*address*/, int* /*length*/) const
{
    return false;
}

bool FakeDataLayer::GetRemoteAddress(sockaddr* /*address*/, int* /*length*/) const
{
    return false;
}

bool FakeDataLayer::AddNotification(IZRTDataLayerNotification* sink)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_sinks.insert(sink);
    return true;
}

bool FakeDataLayer::RemoveNotification(IZRTDataLayerNotification* sink)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_sinks.erase(sink) != 0;
}

bool FakeDataLayer::IsConnected() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return !m_closed;
}

unsigned int FakeDataLayer::GetReceiveBacklog() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return static_cast<unsigned int>(m_incoming.size());
}

void FakeDataLayer::Disconnect()
{
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        ++m_disconnects;
    }
    NotifyClosed();
}

unsigned int FakeDataLayer::GetSendBacklog() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_reportedBacklog;
}

std::set<IZRTDataLayerNotification*> FakeDataLayer::SnapshotSinks() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_sinks;
}

void FakeDataLayer::PushFromRemote(const std::string& bytes)
{
    QOX::CRefCountPtr<IZRTDataLayer> keepAlive(this);
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_incoming += bytes;
    }
    for (auto* sink : SnapshotSinks())
        sink->OnDataReceived(*this);
}

void FakeDataLayer::CloseFromRemote()
{
    NotifyClosed();
}

void FakeDataLayer::NotifyClosed()
{
    QOX::CRefCountPtr<IZRTDataLayer> keepAlive(this);
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        if (m_closed)
            return;
        m_closed = true;
    }
    for (auto* sink : SnapshotSinks())
        sink->OnConnectionClosed(*this);
}

std::string FakeDataLayer::GetSent() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_sent;
}

std::string FakeDataLayer::TakeSent()
{
    std::lock_guard<std::mutex> hold(m_mutex);
    std::string sent;
    sent.swap(m_sent);
    return sent;
}

std::string FakeDataLayer::WaitForSent(size_t count, int timeoutMs)
{
    std::unique_lock<std::mutex> hold(m_mutex);
    m_sentChanged.wait_for(hold, std::chrono::milliseconds(timeoutMs), [&] { return m_sent.size() >= count; });
    return m_sent;
}

void FakeDataLayer::SetOnSend(std::function<void(FakeDataLayer&, const std::string&)> hook)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_onSend = std::move(hook);
}

void FakeDataLayer::SetReportedSendBacklog(unsigned int bytes)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_reportedBacklog = bytes;
}

void FakeDataLayer::SignalSendDrained()
{
    QOX::CRefCountPtr<IZRTDataLayer> keepAlive(this);
    for (auto* sink : SnapshotSinks())
        sink->OnSendDrained(*this);
}

int FakeDataLayer::GetDisconnectCount() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_disconnects;
}

int FakeDataLayer::GetSinkCount() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return static_cast<int>(m_sinks.size());
}

bool FakeDataLayer::WasClosed() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_closed;
}

} // namespace Testing
} // namespace ZRT
