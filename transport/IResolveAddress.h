#pragma once

#include <string>

#include "transport/IResolveAddressCompletedNotification.h"

namespace ZRT {

// The host's asynchronous name resolver. Every request is answered exactly once, to every
// registered notification, possibly from inside ResolveAddressAsync, unless it was cancelled.
// The engine calls ResolveAddressAsync and CancelRequest on its event threads and
// AddNotification and RemoveNotification on the thread that starts or stops the proxy, never
// with a lock of its own held and never from inside a notification; so an answer may come
// inside any of these calls, and any of them may wait for a lock of the resolver's own.
class IResolveAddress {
public:
    virtual ~IResolveAddress() = default;
    // address: host, ":" and a decimal port ("example.org:443", "[2001:db8::1]:80"). The result
    // is for the host's own use: the engine waits for the answer (up to its lookup time-out)
    // whatever it says, so a request the resolver cannot take is answered as unresolved.
    virtual int ResolveAddressAsync(const std::string& address) = 0;
    // Withdraws one earlier request for exactly this text (the engine's clients for it went, or
    // their wait timed out): each ResolveAddressAsync is matched by at most one CancelRequest.
    // Once every request for the text is withdrawn, the resolver should give its lookup up and
    // need not answer it; an answer that comes anyway is harmless. Returns 0, or -1 when no
    // request for the text was pending.
    virtual int CancelRequest(const std::string& address) = 0;
    virtual int AddNotification(IResolveAddressCompletedNotification* notification) = 0;
    // After it returns, no delivery to that notification may start. One already running on
    // another thread may finish: the engine waits for it before it lets the notification go,
    // and holds none of its locks here, so the resolver may wait for it too, or not (the direct
    // host's does not).
    virtual int RemoveNotification(IResolveAddressCompletedNotification* notification) = 0;
};

} // namespace ZRT
