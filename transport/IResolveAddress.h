#pragma once

#include <string>

#include "transport/IResolveAddressCompletedNotification.h"

namespace ZRT {

// The host's asynchronous name resolver. Every request is answered exactly once, to every
// registered notification, possibly from inside ResolveAddressAsync.
class IResolveAddress {
public:
    virtual ~IResolveAddress() = default;
    // address: host, ":" and a decimal port.
    virtual int ResolveAddressAsync(const std::string& address) = 0;
    virtual int CancelRequest(const std::string& address) = 0;
    virtual int AddNotification(IResolveAddressCompletedNotification* notification) = 0;
    // Must not wait for an answer being delivered on another thread: the caller holds a lock
    // that the delivery needs.
    virtual int RemoveNotification(IResolveAddressCompletedNotification* notification) = 0;
};

} // namespace ZRT
