#pragma once

#include <cstdint>

#include "host/CTcpDataLayer.h"
#include "host/CUpstreamHandshake.h"
#include "runtime/CRefCountImpl.h"
#include "runtime/CRefCountPtr.h"
#include "transport/CEventLoop.h"
#include "transport/CSocketHandle.h"
#include "transport/IEventHandler.h"
#include "transport/IZRTDataLayerNotification.h"

namespace ZRT {
namespace Host {

// Opens one link through the upstream without blocking anyone: it finishes the socket's connect
// to the upstream and runs the handshake on a loop, then hands the socket over to the link
// (CTcpDataLayer::EndConnect), which says it is connecting until then. A failure, the time limit,
// or the link given up meanwhile (its closure reaches this as a sink of it) ends the attempt:
// the socket is closed and the link told why.
//
// Threads: Start on any thread (the engine's, in BeginConnect); everything else on the loop's
// thread, which is the link's too, so that its sinks are told there: no lock is needed.
class CUpstreamConnect : public QOX::CRefCountImpl<IEventHandler>, public IZRTDataLayerNotification {
public:
    // socket: connecting to the upstream (connected: it already is). link: made connecting
    // without a socket, on the same loop.
    static void Start(CSocketHandle socket, bool connected, const CUpstreamHandshake& handshake,
                      const QOX::CRefCountPtr<CTcpDataLayer>& link, CEventLoop& loop, int timeoutMs);

    long AddRef() override { return QOX::CRefCountImpl<IEventHandler>::AddRef(); }
    long ReleaseRef() override { return QOX::CRefCountImpl<IEventHandler>::ReleaseRef(); }
    void* GetReferencedObject() const override { return QOX::CRefCountImpl<IEventHandler>::GetReferencedObject(); }

    void OnEvents(uint32_t events) override;
    void OnDataReceived(IZRTDataLayer& /*dataLayer*/) override {}
    // The link was given up (Disconnect, Abort) before the handshake ended.
    void OnConnectionClosed(IZRTDataLayer& dataLayer) override;

private:
    enum class EPhase {
        Connecting,  // the TCP connect to the upstream
        Handshaking, // the upstream's handshake
        Ended        // handed over, failed or given up; nothing is watched any more
    };

    CUpstreamConnect(CSocketHandle socket, bool connected, const CUpstreamHandshake& handshake,
                     const QOX::CRefCountPtr<CTcpDataLayer>& link, CEventLoop& loop);
    ~CUpstreamConnect() override;

    void Begin(int timeoutMs);
    // The one loop: moves the phase on as far as the socket allows.
    void Advance();
    // Ends the attempt: error 0 hands the socket over; otherwise it is closed.
    void End(int error);
    void Watch(uint32_t events);

    CSocketHandle m_socket;
    EPhase m_phase;
    CUpstreamHandshake m_handshake;
    QOX::CRefCountPtr<CTcpDataLayer> m_link;
    CEventLoop& m_loop;
    uint64_t m_token = 0;
    uint32_t m_watched = 0;
    uint64_t m_timer = 0;
};

} // namespace Host
} // namespace ZRT
