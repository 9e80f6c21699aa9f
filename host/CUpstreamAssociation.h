#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "host/CPlaceholderNames.h"
#include "host/CSocketPreparer.h"
#include "host/CUpstreamHandshake.h"
#include "host/CUpstreamRoute.h"
#include "runtime/CRefCountImpl.h"
#include "runtime/CRefCountPtr.h"
#include "transport/CEventLoop.h"
#include "transport/CSocketHandle.h"
#include "transport/IEventHandler.h"

namespace ZRT {
namespace Host {

// One SOCKS5 UDP association with the upstream, for one registration of the datagram handler:
// a TCP control connection (the handshake with UDP ASSOCIATE, then kept open for the
// association's life) and the upstream's relay address, to which the registration's own UDP
// socket sends datagrams wrapped in the SOCKS5 UDP header. Datagrams sent before the relay is
// known wait, at most QUEUE_LIMIT of them; those sent after the association ended (the control
// connection closed or failed, or the handshake did not finish within the time limit) are dropped.
//
// Threads: Start, Send, Close and the static helpers from any thread (the engine's); Unwrap from
// the registration's loop; everything else on the association's loop.
class CUpstreamAssociation : public QOX::CRefCountImpl<IEventHandler> {
public:
    static constexpr size_t QUEUE_LIMIT = 64;
    // Recent destinations remembered to name the sources of replies.
    static constexpr size_t RECENT_LIMIT = 16;

    // udpSocket: the registration's, which stays open until after Close.
    static QOX::CRefCountPtr<CUpstreamAssociation> Start(const CUpstreamRoute& route, const CSocketPreparer& preparer,
                                                         int udpSocket, CEventLoop& loop, int timeoutMs);

    // Wraps payload for destination (by the name a placeholder stands for, when placeholders
    // know one) and sends it to the relay, or queues it; drops it when the association ended,
    // the queue is full or the placeholder's name was forgotten.
    void Send(const sockaddr_storage& destination, CPlaceholderNames* placeholders, const unsigned char* payload,
              size_t length);
    enum class EUnwrapped { NotFromRelay, Dropped, Unwrapped };
    // A datagram from the relay unwrapped: where it came from (a placeholder for a name, or for a
    // numeric source that answers a placeholder's recent datagram on its port) and where its
    // payload starts. Dropped: a fragment, a bad header, a name no placeholder stands for.
    EUnwrapped Unwrap(const sockaddr_storage& from, const unsigned char* datagram, size_t length,
                      CPlaceholderNames* placeholders, sockaddr_storage& source, size_t& offset);
    // The association ends (the control connection closes); the UDP socket is not touched
    // afterwards.
    void Close();
    // Called once, on the loop's thread, when the association ends (at once on the loop when it
    // has ended already); null lets go of an earlier one. Any thread.
    void SetOnEnd(std::function<void()> onEnd);

    long AddRef() override { return QOX::CRefCountImpl<IEventHandler>::AddRef(); }
    long ReleaseRef() override { return QOX::CRefCountImpl<IEventHandler>::ReleaseRef(); }
    void* GetReferencedObject() const override { return QOX::CRefCountImpl<IEventHandler>::GetReferencedObject(); }
    void OnEvents(uint32_t events) override;

    // The SOCKS5 UDP header for destination (name: the domain form), in front of payload.
    static std::string Wrap(const sockaddr_storage& destination, const std::string& name, const unsigned char* payload,
                            size_t length);

private:
    enum class EPhase {
        Connecting,  // the TCP connect to the upstream
        Handshaking, // UDP ASSOCIATE asked
        Open,        // the relay is known; the control connection is watched for its end
        Ended
    };

    CUpstreamAssociation(CSocketHandle control, bool connected, const CUpstreamHandshake& handshake, int udpSocket,
                         CEventLoop& loop);

    void Begin(int timeoutMs);
    // The one loop of the control connection.
    void Advance();
    bool StepConnecting();
    bool StepHandshaking();
    bool StepOpen();
    // A numeric source on the port of a recent datagram sent by name becomes that name's placeholder.
    void PreferPlaceholderLocked(sockaddr_storage& source) const;
    void Opened();
    void End();
    void Watch(uint32_t events);
    // Sends one wrapped datagram to the relay; the lock is held.
    void SendLocked(const std::string& datagram);

    // Loop thread only.
    CSocketHandle m_control;
    EPhase m_phase;
    CUpstreamHandshake m_handshake;
    CEventLoop& m_loop;
    uint64_t m_token = 0;
    uint32_t m_watched = 0;
    uint64_t m_timer = 0;

    // Guards the fields below; sends to the UDP socket happen under it, so Close can promise
    // that none follows it.
    std::mutex m_mutex;
    int m_udpSocket;
    bool m_open = false;  // the relay is known and the control connection stands
    bool m_ended = false; // nothing more is sent
    sockaddr_storage m_relay{};
    socklen_t m_relayLength = 0;
    std::deque<std::string> m_queue;
    std::deque<sockaddr_storage> m_recent; // destinations, newest first
    std::function<void()> m_onEnd;
};

} // namespace Host
} // namespace ZRT
