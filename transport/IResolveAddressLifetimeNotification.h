#pragma once

#include <string>

#include "runtime/CRefCountPtr.h"
#include "transport/IResolveAddressCompletedNotification.h"
#include "transport/IZRTConnectionAddress.h"

namespace ZRT {

// A resolver's notification that also hears how long an answer may be kept. A resolver that knows
// it (a DNS TTL, a host's own rule) delivers to a notification of this kind (found with
// dynamic_cast) by OnResolveAddressCompletedFor; every other delivery keeps the receiver's own
// rule (the engine's name cache: an hour for an address, a minute for a failure).
class IResolveAddressLifetimeNotification : public IResolveAddressCompletedNotification {
public:
    // lifetimeSeconds: DEFAULT_LIFETIME for the receiver's own rule, else 0 (do not keep) or more.
    static constexpr int DEFAULT_LIFETIME = -1;

    virtual void OnResolveAddressCompletedFor(int status, const std::string& address,
                                              QOX::CRefCountPtr<IZRTConnectionAddress> result,
                                              int lifetimeSeconds) = 0;
};

} // namespace ZRT
