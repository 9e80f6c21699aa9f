#pragma once

#include "transport/IZRTConnectionClosedNotification.h"

namespace ZRT {

class IZRTDataLayerNotification : public IZRTConnectionClosedNotification {
public:
    // Bytes are waiting in the link; the sink drains them with ReceiveData. A sink that stops
    // draining early (its own buffers are full) pulls the rest later from its own thread: the
    // link reads no more from its peer until its pending bytes are taken.
    virtual void OnDataReceived(IZRTDataLayer& dataLayer) = 0;

    // The link's send backlog, after having passed its high-water mark, fell back under its
    // low-water mark, so a sender that paused may send again (IZRTDataLayer::SEND_BACKLOG_PAUSE).
    virtual void OnSendDrained(IZRTDataLayer& /*dataLayer*/) {}

    // A link that IZRTMultiPointLayer::BeginConnect returned still connecting is now open. A
    // failed attempt is reported as OnConnectionClosed.
    virtual void OnLinkConnected(IZRTDataLayer& /*dataLayer*/) {}
};

} // namespace ZRT
