#pragma once

#include "runtime/CRefCountPtr.h"
#include "transport/IConnectionReceiver.h"
#include "transport/IZRTConnectionAddress.h"

namespace ZRT {

// The host's service that accepts incoming TCP connections on the engine's behalf (SOCKS5 BIND).
class IConnectionListener {
public:
    virtual ~IConnectionListener() = default;
    // Returns the address connections are awaited on, or empty on failure.
    virtual QOX::CRefCountPtr<IZRTConnectionAddress> StartListening(const IZRTConnectionAddress& address, int count,
                                                                    IConnectionReceiver* receiver) = 0;
    // Given the address StartListening returned; afterwards no call reaches that receiver: one
    // running on another thread is waited for (the engine may free the receiver at once).
    virtual void StopListening(const IZRTConnectionAddress& address) = 0;
};

} // namespace ZRT
