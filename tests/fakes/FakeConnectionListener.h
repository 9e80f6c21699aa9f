#pragma once

#include <string>

#include "fakes/FakeDataLayer.h"
#include "transport/CTCPIPAddress.h"
#include "transport/IConnectionListener.h"

namespace ZRT {
namespace Testing {

// Listens nowhere: StartListening reports a configured address, and ConnectPeer plays a remote
// host connecting, delivering OnConnectionEstablished on the calling thread.
class FakeConnectionListener : public IConnectionListener, public Guarded {
public:
    QOX::CRefCountPtr<IZRTConnectionAddress> StartListening(const IZRTConnectionAddress& address, int /*count*/,
                                                            IConnectionReceiver* receiver) override
    {
        return Locked([&] {
            m_lastRequest = address.ToString();
            if (m_fail)
                return QOX::CRefCountPtr<IZRTConnectionAddress>();
            m_receiver = receiver;
            return QOX::CRefCountPtr<IZRTConnectionAddress>(m_listenAddress.Clone());
        });
    }
    // ConnectPeer holds the lock through the callback, so none runs once this returns.
    void StopListening(const IZRTConnectionAddress& /*address*/) override
    {
        Change([&] {
            m_receiver = nullptr;
            ++m_stops;
        });
    }

    void SetFail(bool fail) { Locked([&] { m_fail = fail; }); }
    void SetListenAddress(const CTCPIPAddress& address) { Locked([&] { m_listenAddress = address; }); }
    // Null when nobody listens (never started, or stopped).
    QOX::CRefCountPtr<FakeDataLayer> ConnectPeer(const CTCPIPAddress& peer)
    {
        return Locked([&] {
            QOX::CRefCountPtr<FakeDataLayer> stream;
            if (m_receiver) {
                stream = new FakeDataLayer();
                m_receiver->OnConnectionEstablished(peer, m_listenAddress, *stream);
            }
            return stream;
        });
    }
    bool IsListening() const { return Locked([&] { return m_receiver != nullptr; }); }
    int GetStopCount() const { return Locked([&] { return m_stops; }); }
    std::string GetLastRequestAddress() const { return Locked([&] { return m_lastRequest; }); }

private:
    CTCPIPAddress m_listenAddress{127, 0, 0, 1, 40000};
    IConnectionReceiver* m_receiver = nullptr;
    std::string m_lastRequest;
    int m_stops = 0;
    bool m_fail = false;
};

} // namespace Testing
} // namespace ZRT
