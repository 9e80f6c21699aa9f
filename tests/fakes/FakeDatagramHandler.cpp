#include "fakes/FakeDatagramHandler.h"

#include <chrono>

namespace ZRT {
namespace Testing {

int FakeDatagramHandler::RegisterReceiver(const IZRTConnectionAddress& address, IDatagramReceiver* receiver)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_lastRequestAddress = address.ToString();
    if (m_fail)
        return -1;
    m_lastHandle = m_nextHandle++;
    m_receivers[m_lastHandle] = receiver;
    return m_lastHandle;
}

void FakeDatagramHandler::UnregisterReceiver(int handle)
{
    // Deliver holds m_mutex for the whole callback, so none runs once this returns.
    std::lock_guard<std::mutex> hold(m_mutex);
    m_receivers.erase(handle);
    m_unregistered.push_back(handle);
}

void FakeDatagramHandler::SendDatagram(int handle, const IZRTConnectionAddress& destination,
                                       const unsigned char* data, int length)
{
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_sent.push_back({handle, destination.ToString(),
                          std::string(reinterpret_cast<const char*>(data), static_cast<size_t>(length))});
    }
    m_changed.notify_all();
}

void FakeDatagramHandler::SetFailRegistration(bool fail)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_fail = fail;
}

bool FakeDatagramHandler::Deliver(int handle, const IZRTConnectionAddress& source, const std::string& payload)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    const auto found = m_receivers.find(handle);
    if (found == m_receivers.end())
        return false;
    found->second->OnDatagramReceived(handle, source, reinterpret_cast<const unsigned char*>(payload.data()),
                                      static_cast<int>(payload.size()));
    return true;
}

std::vector<FakeDatagramHandler::SSent> FakeDatagramHandler::GetSent() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_sent;
}

std::vector<FakeDatagramHandler::SSent> FakeDatagramHandler::WaitForSent(size_t count, int timeoutMs)
{
    std::unique_lock<std::mutex> hold(m_mutex);
    m_changed.wait_for(hold, std::chrono::milliseconds(timeoutMs), [&] { return m_sent.size() >= count; });
    return m_sent;
}

std::vector<int> FakeDatagramHandler::GetUnregistered() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_unregistered;
}

int FakeDatagramHandler::GetActiveRegistrations() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return static_cast<int>(m_receivers.size());
}

int FakeDatagramHandler::GetLastHandle() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_lastHandle;
}

std::string FakeDatagramHandler::GetLastRequestAddress() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_lastRequestAddress;
}

} // namespace Testing
} // namespace ZRT
