#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <set>
#include <string>

#include "runtime/CRefCountImpl.h"
#include "runtime/CRefCountPtr.h"
#include "transport/IZRTDataLayer.h"
#include "transport/IZRTDataLayerNotification.h"

namespace ZRT {
namespace Testing {

// An in-memory link. The test plays the remote end: PushFromRemote makes bytes available and
// notifies the sinks on the calling thread; what the engine sends is collected (and optionally
// handed to an OnSend hook that can answer). Disconnect reports OnConnectionClosed synchronously.
class FakeDataLayer : public QOX::CRefCountImpl<IZRTDataLayer> {
public:
    FakeDataLayer();
    ~FakeDataLayer() override;

    int ReceiveData(unsigned char* buffer, int size) override;
    int SendData(const unsigned char* data, int size) override;
    bool GetLocalAddress(sockaddr* address, int* length) const override;
    bool GetRemoteAddress(sockaddr* address, int* length) const override;
    bool AddNotification(IZRTDataLayerNotification* sink) override;
    bool RemoveNotification(IZRTDataLayerNotification* sink) override;
    bool IsConnected() const override;
    unsigned int GetReceiveBacklog() const override;
    void Disconnect() override;
    unsigned int GetSendBacklog() const override;

    // Remote end.
    void PushFromRemote(const std::string& bytes);
    void CloseFromRemote();
    std::string GetSent() const;
    std::string TakeSent();
    // Waits until at least count bytes were sent (or the time runs out); returns what was sent.
    std::string WaitForSent(size_t count, int timeoutMs = 5000);
    void SetOnSend(std::function<void(FakeDataLayer&, const std::string&)> hook);
    // Makes GetSendBacklog report a fixed value (flow-control tests); 0 restores normal behaviour.
    void SetReportedSendBacklog(unsigned int bytes);
    void SignalSendDrained();

    int GetDisconnectCount() const;
    int GetSinkCount() const;
    bool WasClosed() const;

private:
    void NotifyClosed();
    std::set<IZRTDataLayerNotification*> SnapshotSinks() const;

    mutable std::mutex m_mutex;
    std::condition_variable m_sentChanged;
    std::set<IZRTDataLayerNotification*> m_sinks;
    std::string m_incoming;
    std::string m_sent;
    std::function<void(FakeDataLayer&, const std::string&)> m_onSend;
    unsigned int m_reportedBacklog = 0;
    int m_disconnects = 0;
    bool m_closed = false;
};

} // namespace Testing
} // namespace ZRT
