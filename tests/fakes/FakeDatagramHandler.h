#pragma once

#include <map>
#include <string>
#include <vector>

#include "fakes/Guarded.h"
#include "transport/IDatagramHandler.h"

namespace ZRT {
namespace Testing {

// Records registrations and sent datagrams; Deliver plays a remote host answering.
class FakeDatagramHandler : public IDatagramHandler, public Guarded {
public:
    struct SSent {
        int handle;
        std::string destination; // ToString() of the address
        std::string payload;
    };

    int RegisterReceiver(const IZRTConnectionAddress& address, IDatagramReceiver* receiver) override
    {
        return Locked([&] {
            m_lastRequestAddress = address.ToString();
            if (m_fail)
                return -1;
            m_lastHandle = m_nextHandle++;
            m_receivers[m_lastHandle] = receiver;
            return m_lastHandle;
        });
    }
    // Deliver holds the lock for the whole callback, so none runs once this returns.
    void UnregisterReceiver(int handle) override
    {
        Locked([&] {
            m_receivers.erase(handle);
            m_unregistered.push_back(handle);
        });
    }
    void SendDatagram(int handle, const IZRTConnectionAddress& destination, const unsigned char* data,
                      int length) override
    {
        Change([&] {
            m_sent.push_back({handle, destination.ToString(),
                              std::string(reinterpret_cast<const char*>(data), static_cast<size_t>(length))});
        });
    }

    void SetFailRegistration(bool fail) { Locked([&] { m_fail = fail; }); }
    // Calls the receiver of handle on this thread; false if it is not registered.
    bool Deliver(int handle, const IZRTConnectionAddress& source, const std::string& payload)
    {
        return Locked([&] {
            const auto found = m_receivers.find(handle);
            if (found == m_receivers.end())
                return false;
            found->second->OnDatagramReceived(handle, source, reinterpret_cast<const unsigned char*>(payload.data()),
                                              static_cast<int>(payload.size()));
            return true;
        });
    }
    std::vector<SSent> GetSent() const { return Locked([&] { return m_sent; }); }
    std::vector<SSent> WaitForSent(size_t count, int timeoutMs = 5000)
    {
        WaitFor([&] { return m_sent.size() >= count; }, timeoutMs);
        return GetSent();
    }
    std::vector<int> GetUnregistered() const { return Locked([&] { return m_unregistered; }); }
    int GetLastHandle() const { return Locked([&] { return m_lastHandle; }); }
    std::string GetLastRequestAddress() const { return Locked([&] { return m_lastRequestAddress; }); }

private:
    std::map<int, IDatagramReceiver*> m_receivers;
    std::vector<SSent> m_sent;
    std::vector<int> m_unregistered;
    std::string m_lastRequestAddress;
    int m_nextHandle = 7;
    int m_lastHandle = -1;
    bool m_fail = false;
};

} // namespace Testing
} // namespace ZRT
