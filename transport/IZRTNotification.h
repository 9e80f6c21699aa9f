#pragma once

#include "runtime/Export.h"

namespace ZRT {

// Base of every callback interface through which the host's services report to the engine.
// The reference operations do nothing: a sink that must outlive a registration keeps itself alive.
class ZRT_EXPORT IZRTNotification {
public:
    virtual ~IZRTNotification();
    virtual void AddNotificationRef() const {}
    virtual void ReleaseNotificationRef() const {}
};

} // namespace ZRT
