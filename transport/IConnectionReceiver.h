#pragma once

#include "transport/IZRTConnectionAddress.h"
#include "transport/IZRTDataLayer.h"

namespace ZRT {

// Implemented by the engine: told by a connection listener about an accepted stream.
class IConnectionReceiver {
public:
    virtual ~IConnectionReceiver() = default;
    // peer: the host that connected; local: where it connected to; stream: the accepted link.
    virtual void OnConnectionEstablished(const IZRTConnectionAddress& peer, const IZRTConnectionAddress& local,
                                         IZRTDataLayer& stream) = 0;
};

} // namespace ZRT
