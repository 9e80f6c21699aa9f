#pragma once

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "fakes/Guarded.h"
#include "transport/CTCPIPAddress.h"
#include "transport/IResolveAddress.h"

namespace ZRT {
namespace Testing {

// A resolver whose answers a test scripts. Keys not scripted are answered per the default mode.
class FakeResolver : public IResolveAddress, public Guarded {
public:
    enum EMode {
        ANSWER_AT_ONCE,  // from inside ResolveAddressAsync, on the caller's thread
        ANSWER_LATER,    // from another thread after a delay
        NEVER_ANSWER,
        ANSWER_EMPTY     // at once, with an empty address (a failed resolution)
    };

    ~FakeResolver() override { JoinPending(); }

    // "host:port" -> numeric address text ("127.0.0.1" or "::1"); port taken from the key.
    void Script(const std::string& key, const std::string& numericHost)
    {
        Locked([&] { m_script[key] = numericHost; });
    }
    void SetMode(EMode mode) { Locked([&] { m_mode = mode; }); }
    void SetDelayMs(int delay) { Locked([&] { m_delayMs = delay; }); }
    // Keys without a script resolve numeric hosts (and "localhost") on their own when set.
    void SetResolveNumeric(bool enable) { Locked([&] { m_resolveNumeric = enable; }); }

    int ResolveAddressAsync(const std::string& address) override
    {
        EMode mode = ANSWER_AT_ONCE;
        Locked([&] {
            ++m_requests[address];
            mode = m_mode;
            if (mode == ANSWER_LATER) {
                m_pending.emplace_back([this, address, delay = m_delayMs] {
                    std::this_thread::sleep_for(std::chrono::milliseconds(delay));
                    Answer(address, Lookup(address));
                });
            }
        });
        if (mode == ANSWER_AT_ONCE || mode == ANSWER_EMPTY)
            Answer(address, mode == ANSWER_AT_ONCE ? Lookup(address) : QOX::CRefCountPtr<IZRTConnectionAddress>());
        return 0;
    }
    int CancelRequest(const std::string& address) override
    {
        Locked([&] { ++m_cancels[address]; });
        return 0;
    }
    int GetCancelCount(const std::string& key)
    {
        return Locked([&] {
            const auto found = m_cancels.find(key);
            return found == m_cancels.end() ? 0 : found->second;
        });
    }
    int AddNotification(IResolveAddressCompletedNotification* notification) override
    {
        Locked([&] { m_notifications.insert(notification); });
        return 0;
    }
    int RemoveNotification(IResolveAddressCompletedNotification* notification) override
    {
        Locked([&] { m_notifications.erase(notification); });
        return 0;
    }

    // Delivers an answer now, on the calling thread.
    void Answer(const std::string& key, QOX::CRefCountPtr<IZRTConnectionAddress> result)
    {
        for (auto* target : Locked([&] { return m_notifications; }))
            target->OnResolveAddressCompleted(0, key, result);
    }
    // "a,b,c": a, with b and c as its alternatives.
    static QOX::CRefCountPtr<IZRTConnectionAddress> Scripted(const std::string& list, unsigned int port)
    {
        const size_t comma = list.find(',');
        QOX::CRefCountPtr<IZRTConnectionAddress> first = CTCPIPAddress::FromText(list.substr(0, comma).c_str(), port);
        if (comma == std::string::npos || !first)
            return first;
        std::vector<sockaddr_storage> others;
        for (size_t start = comma + 1; start <= list.size();) {
            const size_t end = std::min(list.find(',', start), list.size());
            QOX::CRefCountPtr<IZRTConnectionAddress> other = CTCPIPAddress::FromText(list.substr(start, end - start).c_str(), port);
            sockaddr_storage storage{};
            int length = sizeof(storage);
            if (other && other->GetSockAddr(reinterpret_cast<sockaddr*>(&storage), &length))
                others.push_back(storage);
            start = end + 1;
        }
        static_cast<CTCPIPAddress*>(first.Get())->SetAlternatives(others);
        return first;
    }
    QOX::CRefCountPtr<IZRTConnectionAddress> Lookup(const std::string& key)
    {
        const size_t colon = key.rfind(':');
        if (colon == std::string::npos)
            return {};
        std::string host = key.substr(0, colon);
        const unsigned int port = static_cast<unsigned int>(std::atoi(key.c_str() + colon + 1));
        bool numeric = false;
        const std::string scripted = Locked([&] {
            const auto found = m_script.find(key);
            numeric = m_resolveNumeric;
            return found == m_script.end() ? std::string() : found->second;
        });
        if (!scripted.empty())
            return Scripted(scripted, port);
        if (!numeric)
            return {};
        if (host == "localhost")
            host = "127.0.0.1";
        if (host.size() > 2 && host.front() == '[' && host.back() == ']')
            host = host.substr(1, host.size() - 2);
        return CTCPIPAddress::FromText(host.c_str(), port);
    }

    int GetRequestCount(const std::string& key)
    {
        return Locked([&] {
            const auto found = m_requests.find(key);
            return found == m_requests.end() ? 0 : found->second;
        });
    }
    int GetNotificationCount() { return Locked([&] { return static_cast<int>(m_notifications.size()); }); }
    void JoinPending()
    {
        std::vector<std::thread> pending;
        Locked([&] { pending.swap(m_pending); });
        for (auto& thread : pending)
            thread.join();
    }

private:
    std::map<std::string, std::string> m_script;
    std::map<std::string, int> m_requests;
    std::map<std::string, int> m_cancels;
    std::set<IResolveAddressCompletedNotification*> m_notifications;
    std::vector<std::thread> m_pending;
    EMode m_mode = ANSWER_AT_ONCE;
    int m_delayMs = 20;
    bool m_resolveNumeric = true;
};

} // namespace Testing
} // namespace ZRT
