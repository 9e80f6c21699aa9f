#pragma once

#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "transport/IDatagramHandler.h"

namespace ZRT {
namespace Testing {

// Records registrations and sent datagrams; Deliver plays a remote host answering.
class FakeDatagramHandler : public IDatagramHandler {
public:
    struct SSent {
        int handle;
        std::string destination; // ToString() of the address
        std::string payload;
    };

    int RegisterReceiver(const IZRTConnectionAddress& address, IDatagramReceiver* receiver) override;
    void UnregisterReceiver(int handle) override;
    void SendDatagram(int handle, const IZRTConnectionAddress& destination, const unsigned char* data,
                      int length) override;

    void SetFailRegistration(bool fail);
    // Calls the receiver of handle on this thread; false if it is not registered.
    bool Deliver(int handle, const IZRTConnectionAddress& source, const std::string& payload);
    std::vector<SSent> GetSent() const;
    std::vector<SSent> WaitForSent(size_t count, int timeoutMs = 5000);
    std::vector<int> GetUnregistered() const;
    int GetActiveRegistrations() const;
    int GetLastHandle() const;
    std::string GetLastRequestAddress() const;

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
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
