#pragma once

#include <functional>
#include <string>

#include "fakes/Guarded.h"
#include "transport/IZRTDataLayer.h"
#include "transport/IZRTDataLayerNotification.h"

namespace ZRT {
namespace Testing {

// A data-layer sink that records what it hears; by default it drains the link in OnDataReceived.
// Its counters are read under the lock, through the getters or in a WaitFor condition.
class RecordingSink : public IZRTDataLayerNotification, public Guarded {
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
        Change([&] {
            received += bytes;
            ++dataCalls;
            dataAfterClose = dataAfterClose || closeCalls > 0;
        });
    }
    void OnConnectionClosed(IZRTDataLayer& /*layer*/) override { Change([&] { ++closeCalls; }); }
    void OnSendDrained(IZRTDataLayer& /*layer*/) override { Change([&] { ++drainedCalls; }); }

    int Closes() const { return Locked([&] { return closeCalls; }); }
    int DataCalls() const { return Locked([&] { return dataCalls; }); }
    int Drained() const { return Locked([&] { return drainedCalls; }); }
    std::string Received() const { return Locked([&] { return received; }); }

    std::string received;
    int dataCalls = 0;
    int closeCalls = 0;
    int drainedCalls = 0;
    bool dataAfterClose = false;
};

} // namespace Testing
} // namespace ZRT
