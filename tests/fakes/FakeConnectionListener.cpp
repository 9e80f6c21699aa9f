#include "fakes/FakeConnectionListener.h"

namespace ZRT {
namespace Testing {

FakeConnectionListener::FakeConnectionListener() : m_listenAddress(127, 0, 0, 1, 40000) {}

QOX::CRefCountPtr<IZRTConnectionAddress> FakeConnectionListener::StartListening(const IZRTConnectionAddress& address,
                                                                                int count,
                                                                                IConnectionReceiver* receiver)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_lastRequest = address.ToString();
    m_lastCount = count;
    if (m_fail)
        return {};
    m_receiver = receiver;
    return QOX::CRefCountPtr<IZRTConnectionAddress>(m_listenAddress.Clone());
}

void FakeConnectionListener::StopListening(const IZRTConnectionAddress& /*address*/)
{
    // ConnectPeer holds m_mutex through the callback, so none runs once this returns.
    std::lock_guard<std::mutex> hold(m_mutex);
    m_receiver = nullptr;
    ++m_stops;
}

void FakeConnectionListener::SetFail(bool fail)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_fail = fail;
}

void FakeConnectionListener::SetListenAddress(const CTCPIPAddress& address)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_listenAddress = address;
}

QOX::CRefCountPtr<FakeDataLayer> FakeConnectionListener::ConnectPeer(const CTCPIPAddress& peer)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    if (!m_receiver)
        return {};
    QOX::CRefCountPtr<FakeDataLayer> stream(new FakeDataLayer());
    m_receiver->OnConnectionEstablished(peer, m_listenAddress, *stream);
    return stream;
}

bool FakeConnectionListener::IsListening() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_receiver != nullptr;
}

int FakeConnectionListener::GetStopCount() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_stops;
}

std::string FakeConnectionListener::GetLastRequestAddress() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_lastRequest;
}

int FakeConnectionListener::GetLastCount() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_lastCount;
}

} // namespace Testing
} // namespace ZRT
