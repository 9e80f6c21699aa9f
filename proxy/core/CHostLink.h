#pragma once

#include <atomic>

#include "proxy/core/CSendHold.h"
#include "runtime/CRefCountPtr.h"
#include "transport/IZRTDataLayer.h"
#include "transport/IZRTDataLayerNotification.h"

namespace ZRT {
namespace Proxy {

// A connection's link to its destination: which link it is, how far it got, and how it is read.
// Every operation runs on the connection's thread, except GetState and IsCurrent, which any
// thread may ask (a link's reports come on its own threads).
//
//   None -> Connecting -> Open -> Closed (the peer closed; what it sent is still read)
//   any  -> None (the link was let go: released to the caller, or closed after a failed attempt)
//   any  -> Closed (the exchange ended: the link was closed)
class CHostLink {
public:
    enum class EState { None, Connecting, Open, Closed };
    using LinkPtr = QOX::CRefCountPtr<IZRTDataLayer>;

    // Told when a link is taken up, and when one is let go (before the link may close or take
    // back its descriptor; no report of it comes any more).
    class IListener {
    public:
        virtual ~IListener() = default;
        virtual void OnLinkTaken() = 0;
        virtual void OnLinkLeaving() = 0;
    };

    CHostLink(IZRTDataLayerNotification& sink, IListener& listener) : m_sink(sink), m_listener(listener) {}
    ~CHostLink();
    CHostLink(const CHostLink&) = delete;
    CHostLink& operator=(const CHostLink&) = delete;

    EState GetState() const { return m_state.load(); }
    // The link is this one (its report is not a stale one of an earlier link).
    bool IsCurrent(const IZRTDataLayer& link) const { return m_current.load() == &link; }
    // The link's own address, when it has one (an IP link).
    bool GetLocalAddress(sockaddr_storage& address) const;
    IZRTDataLayer* Get() const { return m_link.Get(); }
    // The link's reader descriptor, watched by the connection's loop; -1 when the link reports
    // its bytes through notifications instead.
    int GetReaderFd() const { return m_readerFd; }
    // The link tells its peer's end apart from a failure (half-close).
    bool HalfCloses() const { return m_halfCloses; }

    // Takes the link up: its reader descriptor, its notifications, half-close. False (nothing
    // done) when a link is held already.
    bool Install(const LinkPtr& link, EState state);
    // Waiting for a link that a helper thread is opening.
    void AwaitLink() { m_state = EState::Connecting; }
    // The connect is done. A link that had no descriptor while connecting (one made through an
    // upstream proxy) is asked again, so its bytes can be spliced rather than copied.
    void MarkOpen();
    // The peer closed: its bytes are still read.
    void MarkClosed();
    // Out of the connection's hands, still open: the link for the caller to keep or close.
    LinkPtr Detach();
    // Detach, and the state None: the connection may open or take another link.
    LinkPtr Release();
    // Release, and the link closed (an attempt that failed, a closed link not handed over).
    void Drop();
    // Closes the link for good; abort resets it instead of delivering what it still holds.
    void Close(bool abort);

    bool Send(const char* data, int length);
    // Small sends made from here until EndHold wait and reach the link in one send (CSendHold);
    // anything that lets the link go or ends its output writes them first. Bytes that wait are
    // not in the send backlog.
    void BeginHold() { m_hold.Begin(); }
    void EndHold();
    bool EndOutput();
    unsigned int GetSendBacklog() const { return m_link ? m_link->GetSendBacklog() : 0; }
    unsigned int GetUndeliveredBytes() const { return m_link ? m_link->GetUndeliveredBytes() : 0; }
    int GetFailure() const { return m_link ? m_link->GetFailure() : 0; }

private:
    IZRTDataLayerNotification& m_sink;
    IListener& m_listener;
    LinkPtr m_link;
    std::atomic<EState> m_state{EState::None};
    std::atomic<const IZRTDataLayer*> m_current{nullptr};
    int m_readerFd = -1;
    bool m_halfCloses = false;
    CSendHold m_hold; // sends that wait, for the link held now

    void WriteHeld();
};

} // namespace Proxy
} // namespace ZRT
