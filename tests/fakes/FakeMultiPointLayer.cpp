#include "fakes/FakeMultiPointLayer.h"

namespace ZRT {
namespace Testing {

QOX::CRefCountPtr<IZRTDataLayer> FakeMultiPointLayer::Connect(const IZRTConnectionAddress& destination,
                                                              const IZRTConnectionAddress& /*source*/)
{
    ConnectHook hook;
    QOX::CRefCountPtr<FakeDataLayer> link;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_destinations.push_back(destination.ToString());
        if (m_fail)
            return {};
        link = new FakeDataLayer();
        m_links.push_back(link);
        hook = m_hook;
    }
    if (hook)
        hook(*link, destination);
    return QOX::CRefCountPtr<IZRTDataLayer>(link.GetRawPointer());
}

void FakeMultiPointLayer::SetFail(bool fail)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_fail = fail;
}

void FakeMultiPointLayer::SetOnConnect(ConnectHook hook)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_hook = std::move(hook);
}

std::vector<std::string> FakeMultiPointLayer::GetDestinations() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_destinations;
}

std::vector<QOX::CRefCountPtr<FakeDataLayer>> FakeMultiPointLayer::GetLinks() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_links;
}

QOX::CRefCountPtr<FakeDataLayer> FakeMultiPointLayer::GetLastLink() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_links.empty() ? QOX::CRefCountPtr<FakeDataLayer>() : m_links.back();
}

int FakeMultiPointLayer::GetConnectCount() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return static_cast<int>(m_destinations.size());
}

void FakeMultiPointLayer::ForgetLinks()
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_links.clear();
}

} // namespace Testing
} // namespace ZRT
