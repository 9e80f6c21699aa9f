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
};

} // namespace ZRT
