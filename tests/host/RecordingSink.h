#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>

#include "transport/IZRTDataLayer.h"
#include "transport/IZRTDataLayerNotification.h"

namespace ZRT {
namespace Testing {

// A data-layer sink that records what it hears; by default it drains the link in OnDataReceived.
class RecordingSink : public IZRTDataLayerNotification {
public:
    bool drain = true;
    std::function<void(IZRTDataLayer&)> onData;

    void OnDataReceived(IZRTDataLayer& layer) override
    {
        if (onData)
            onData(layer);
        std::string bytes;
        unsigned char buffer[32768];
        int count = 0;
        while (drain && (count = layer.ReceiveData(buffer, sizeof(buffer))) > 0)
            bytes.append(reinterpret_cast<char*>(buffer), static_cast<size_t>(count));
        std::lock_guard<std::mutex> lock(mutex);
        received += bytes;
        ++dataCalls;
        dataAfterClose = dataAfterClose || closeCalls > 0;
        changed.notify_all();
    }

    void OnConnectionClosed(IZRTDataLayer& /*layer*/) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        ++closeCalls;
        changed.notify_all();
    }

    void OnSendDrained(IZRTDataLayer& /*layer*/) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        ++drainedCalls;
        changed.notify_all();
    }

    template <class Predicate>
    bool WaitFor(Predicate predicate, int timeoutMs = 10000)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), predicate);
    }

    int Closes()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return closeCalls;
    }
    int DataCalls()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return dataCalls;
    }
    int Drained()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return drainedCalls;
    }
    std::string Received()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return received;
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::string received;
    int dataCalls = 0;
    int closeCalls = 0;
    int drainedCalls = 0;
    bool dataAfterClose = false;
};

} // namespace Testing
} // namespace ZRT
