#pragma once

#include "transport/IZRTNotification.h"

namespace ZRT {

class IZRTDataLayer;

class IZRTConnectionClosedNotification : public IZRTNotification {
public:
    // Once per link, after the remote end closed it or Disconnect() was called.
    virtual void OnConnectionClosed(IZRTDataLayer& dataLayer) = 0;
};

} // namespace ZRT
