#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "fakes/FakeDataLayer.h"
#include "transport/CTCPIPAddress.h"
#include "transport/IConnectionListener.h"

namespace ZRT {
namespace Testing {

// Listens nowhere: StartListening reports a configured address, and ConnectPeer plays a remote
// host connecting, delivering OnConnectionEstablished on the calling thread.
class FakeConnectionListener : public IConnectionListener {
public:
    FakeConnectionListener();

    QOX::CRefCountPtr<IZRTConnectionAddress> StartListening(const IZRTConnectionAddress& address, int count,
                                                            IConnectionReceiver* receiver) override;
    void StopListening(const IZRTConnectionAddress& address) override;

    void SetFail(bool fail);
    void SetListenAddress(const CTCPIPAddress& address);
    // Null when nobody listens (never started, or stopped).
    QOX::CRefCountPtr<FakeDataLayer> ConnectPeer(const CTCPIPAddress& peer);
    bool IsListening() const;
    int GetStopCount() const;
    std::string GetLastRequestAddress() const;
    int GetLastCount() const;

private:
    mutable std::mutex m_mutex;
    CTCPIPAddress m_listenAddress;
    IConnectionReceiver* m_receiver = nullptr;
    std::string m_lastRequest;
    int m_lastCount = 0;
    int m_stops = 0;
    bool m_fail = false;
};

} // namespace Testing
} // namespace ZRT
