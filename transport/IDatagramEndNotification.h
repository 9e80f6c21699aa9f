#pragma once

namespace ZRT {

// Implemented by the engine beside IDatagramReceiver (a host finds it with dynamic_cast, as the
// engine finds IResolveAddressLifetimeNotification): a registration can carry no more datagrams
// (e.g. the host relays through an upstream proxy whose association ended), so the engine ends
// the client's association instead of leaving it silent. Called at most once per registration,
// on the host's thread, and never after UnregisterReceiver returned.
class IDatagramEndNotification {
public:
    virtual ~IDatagramEndNotification() = default;
    virtual void OnDatagramsEnded(int handle) = 0;
};

} // namespace ZRT
