#pragma once

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "transport/IResolveAddress.h"

namespace ZRT {
namespace Testing {

// A resolver whose answers a test scripts. Keys not scripted are answered per the default mode.
class FakeResolver : public IResolveAddress {
public:
    enum EMode {
        ANSWER_AT_ONCE,  // from inside ResolveAddressAsync, on the caller's thread
        ANSWER_LATER,    // from another thread after a delay
        NEVER_ANSWER,
        ANSWER_EMPTY     // at once, with an empty address (a failed resolution)
    };

    FakeResolver();
    ~FakeResolver() override;

    // "host:port" -> numeric address text ("127.0.0.1" or "::1"); port taken from the key.
    void Script(const std::string& key, const std::string& numericHost);
    void SetMode(EMode mode) { m_mode = mode; }
    void SetDelayMs(int delay) { m_delayMs = delay; }
    // Keys without a script resolve numeric hosts (and "localhost") on their own when set.
    void SetResolveNumeric(bool enable) { m_resolveNumeric = enable; }

    int ResolveAddressAsync(const std::string& address) override;
    int CancelRequest(const std::string& address) override;
    int AddNotification(IResolveAddressCompletedNotification* notification) override;
    int RemoveNotification(IResolveAddressCompletedNotification* notification) override;

    // Delivers an answer now, on the calling thread.
    void Answer(const std::string& key, QOX::CRefCountPtr<IZRTConnectionAddress> result);
    QOX::CRefCountPtr<IZRTConnectionAddress> Lookup(const std::string& key);

    int GetRequestCount(const std::string& key);
    int GetTotalRequests();
    int GetNotificationCount();
    void JoinPending();

private:
    std::mutex m_mutex;
    std::map<std::string, std::string> m_script;
    std::map<std::string, int> m_requests;
    std::set<IResolveAddressCompletedNotification*> m_notifications;
    std::vector<std::thread> m_pending;
    EMode m_mode = ANSWER_AT_ONCE;
    int m_delayMs = 20;
    bool m_resolveNumeric = true;
};

} // namespace Testing
} // namespace ZRT
