#pragma once

#include <algorithm>
#include <cstring>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <utility>

#include "fakes/Guarded.h"
#include "runtime/CRefCountImpl.h"
#include "runtime/CRefCountPtr.h"
#include "transport/IZRTDataLayer.h"
#include "transport/IZRTDataLayerNotification.h"

namespace ZRT {
namespace Testing {

// An in-memory link. The test plays the remote end: PushFromRemote makes bytes available and
// notifies the sinks on the calling thread; what the engine sends is collected (and optionally
// handed to an OnSend hook that can answer). Disconnect reports OnConnectionClosed synchronously.
// It half-closes like a TCP link unless told it cannot (as an older host's link).
class FakeDataLayer : public QOX::CRefCountImpl<IZRTDataLayer>, public Guarded {
public:
    using SendHook = std::function<void(FakeDataLayer&, const std::string&)>;

    int ReceiveData(unsigned char* buffer, int size) override
    {
        return Locked([&] {
            const int count = std::min(size, static_cast<int>(m_incoming.size()));
            if (count <= 0)
                return m_remoteEnded && m_halfClose ? -1 : 0;
            std::memcpy(buffer, m_incoming.data(), static_cast<size_t>(count));
            m_incoming.erase(0, static_cast<size_t>(count));
            return count;
        });
    }

    int SendData(const unsigned char* data, int size) override
    {
        const std::string bytes(reinterpret_cast<const char*>(data), static_cast<size_t>(std::max(size, 0)));
        bool closed = false;
        SendHook hook;
        Change([&] {
            closed = m_closed;
            if (!closed)
                m_sent += bytes;
            hook = m_onSend;
        });
        if (closed)
            return -1;
        if (hook)
            hook(*this, bytes);
        return size;
    }

    bool GetLocalAddress(sockaddr* /*address*/, int* /*length*/) const override { return false; }
    bool GetRemoteAddress(sockaddr* /*address*/, int* /*length*/) const override { return false; }
    bool AddNotification(IZRTDataLayerNotification* sink) override
    {
        Locked([&] { m_sinks.insert(sink); });
        return true;
    }
    // Waits for a call to the sink in progress on another thread, as real links do.
    bool RemoveNotification(IZRTDataLayerNotification* sink) override
    {
        std::lock_guard<std::recursive_mutex> calls(m_calls);
        return Locked([&] { return m_sinks.erase(sink) != 0; });
    }
    bool IsConnected() const override { return !WasClosed(); }
    unsigned int GetReceiveBacklog() const override
    {
        return Locked([&] { return static_cast<unsigned int>(m_incoming.size()); });
    }
    void Disconnect() override
    {
        Change([&] { ++m_disconnects; });
        NotifyClosed();
    }
    bool EnableHalfClose() override
    {
        return Locked([&] {
            m_halfClose = m_canHalfClose;
            return m_halfClose;
        });
    }
    bool ShutdownSend() override
    {
        bool done = false;
        Change([&] {
            done = m_canHalfClose && !m_closed;
            m_sendShut = m_sendShut || done;
        });
        return done;
    }
    unsigned int GetSendBacklog() const override { return 0; }

    // Remote end.
    void PushFromRemote(const std::string& bytes)
    {
        QOX::CRefCountPtr<IZRTDataLayer> keepAlive(this);
        Locked([&] { m_incoming += bytes; });
        ForEachSink([&](IZRTDataLayerNotification* sink) { sink->OnDataReceived(*this); });
    }
    void CloseFromRemote() { NotifyClosed(); }
    // The remote end finished sending: a half-closing sink reads the end, any other hears the
    // link close.
    void EndFromRemote()
    {
        QOX::CRefCountPtr<IZRTDataLayer> keepAlive(this);
        const bool halfClose = Locked([&] {
            m_remoteEnded = true;
            return m_halfClose;
        });
        if (!halfClose) {
            NotifyClosed();
            return;
        }
        ForEachSink([&](IZRTDataLayerNotification* sink) { sink->OnDataReceived(*this); });
    }
    void SetCanHalfClose(bool can) { Locked([&] { m_canHalfClose = can; }); }
    bool WasSendShut() const { return Locked([&] { return m_sendShut; }); }
    bool WaitForSendShut(int timeoutMs = 5000) { return WaitFor([&] { return m_sendShut; }, timeoutMs); }
    int GetDisconnects() const { return Locked([&] { return m_disconnects; }); }
    std::string GetSent() const { return Locked([&] { return m_sent; }); }
    // Waits until at least count bytes were sent (or the time runs out); returns what was sent.
    std::string WaitForSent(size_t count, int timeoutMs = 5000)
    {
        WaitFor([&] { return m_sent.size() >= count; }, timeoutMs);
        return GetSent();
    }
    void SetOnSend(SendHook hook) { Locked([&] { m_onSend = std::move(hook); }); }
    void SignalSendDrained()
    {
        QOX::CRefCountPtr<IZRTDataLayer> keepAlive(this);
        ForEachSink([&](IZRTDataLayerNotification* sink) { sink->OnSendDrained(*this); });
    }

    int GetSinkCount() const { return Locked([&] { return static_cast<int>(m_sinks.size()); }); }
    bool WasClosed() const { return Locked([&] { return m_closed; }); }

private:
    void NotifyClosed()
    {
        QOX::CRefCountPtr<IZRTDataLayer> keepAlive(this);
        if (Locked([&] { return std::exchange(m_closed, true); }))
            return;
        ForEachSink([&](IZRTDataLayerNotification* sink) { sink->OnConnectionClosed(*this); });
    }
    std::set<IZRTDataLayerNotification*> Sinks() const { return Locked([&] { return m_sinks; }); }
    // Calls each sink still registered, holding m_calls so RemoveNotification waits for it.
    template <class F>
    void ForEachSink(F&& call)
    {
        for (auto* sink : Sinks()) {
            std::lock_guard<std::recursive_mutex> calls(m_calls);
            if (Locked([&] { return m_sinks.count(sink) != 0; }))
                call(sink);
        }
    }

    std::recursive_mutex m_calls;

    std::set<IZRTDataLayerNotification*> m_sinks;
    std::string m_incoming;
    std::string m_sent;
    SendHook m_onSend;
    bool m_closed = false;
    bool m_canHalfClose = true;
    bool m_halfClose = false;
    bool m_remoteEnded = false;
    bool m_sendShut = false;
    int m_disconnects = 0;
};

} // namespace Testing
} // namespace ZRT
