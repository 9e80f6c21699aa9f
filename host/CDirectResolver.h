#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "runtime/CRefCountPtr.h"
#include "transport/IResolveAddress.h"
#include "transport/IZRTConnectionAddress.h"

namespace ZRT {
namespace Host {

// Resolves "host:port" texts ("[v6]:port" too) with getaddrinfo on a few worker threads.
// Every request is answered once to every registered notification, with the text exactly as
// given and an empty address on failure. IPv4 results are preferred, as local services often
// listen on 127.0.0.1 only.
//
// RemoveNotification never waits for an answer being delivered: its caller may hold the lock that
// the delivery is waiting for. It marks the registration removed, so no answer starts towards it
// afterwards; one that had already started may still finish.
class CDirectResolver : public IResolveAddress {
public:
    static constexpr int DEFAULT_WORKERS = 4;
    static constexpr int STATUS_RESOLVED = 0;
    static constexpr int STATUS_FAILED = -1;

    explicit CDirectResolver(int workers = DEFAULT_WORKERS);
    // Waits for the workers; requests not yet started are dropped.
    ~CDirectResolver() override;
    CDirectResolver(const CDirectResolver&) = delete;
    CDirectResolver& operator=(const CDirectResolver&) = delete;

    int ResolveAddressAsync(const std::string& address) override;
    // Not supported (-1): every request is answered.
    int CancelRequest(const std::string& address) override;
    int AddNotification(IResolveAddressCompletedNotification* notification) override;
    int RemoveNotification(IResolveAddressCompletedNotification* notification) override;

    // Resolves on the calling thread; empty when the text is malformed or the name unknown.
    static QOX::CRefCountPtr<IZRTConnectionAddress> Resolve(const std::string& address);

private:
    struct SRegistration {
        IResolveAddressCompletedNotification* notification;
        bool removed;
    };

    void Work();
    void Deliver(const std::string& address, const QOX::CRefCountPtr<IZRTConnectionAddress>& result);

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<std::string> m_requests;
    std::vector<std::shared_ptr<SRegistration>> m_registrations;
    bool m_stopping = false;
    std::vector<std::thread> m_workers;
};

} // namespace Host
} // namespace ZRT
