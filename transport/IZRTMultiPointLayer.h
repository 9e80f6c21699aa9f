#pragma once

#include "runtime/CRefCountPtr.h"
#include "transport/IZRTConnectionAddress.h"
#include "transport/IZRTDataLayer.h"

namespace ZRT {

// The host's service that opens stream links to destination hosts.
class IZRTMultiPointLayer {
public:
    virtual ~IZRTMultiPointLayer() = default;
    // Opens a link to destination on behalf of the local client at source; returns it once it is
    // usable, or empty on failure. May block.
    virtual QOX::CRefCountPtr<IZRTDataLayer> Connect(const IZRTConnectionAddress& destination,
                                                     const IZRTConnectionAddress& source) = 0;

    // Opens a link without blocking the caller: returns a link that may still be
    // connecting (IZRTDataLayer::IsConnecting), or empty when the attempt failed at once. The
    // outcome reaches the sinks registered on the link, also those that register after it came:
    // OnLinkConnected once the link is usable, OnConnectionClosed when the attempt failed or ran
    // out of time. The default opens the link with Connect, blocking the caller as Connect does.
    virtual QOX::CRefCountPtr<IZRTDataLayer> BeginConnect(const IZRTConnectionAddress& destination,
                                                          const IZRTConnectionAddress& source)
    {
        return Connect(destination, source);
    }
    // True when BeginConnect
    // never blocks its caller. The engine then calls it on the client's event thread; otherwise
    // (the default) on a helper thread, so that one slow connect holds up no other client.
    virtual bool ConnectsWithoutBlocking() const { return false; }
};

} // namespace ZRT
