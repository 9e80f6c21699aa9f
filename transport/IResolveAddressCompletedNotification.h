#pragma once

#include <string>

#include "runtime/CRefCountPtr.h"
#include "transport/IZRTConnectionAddress.h"
#include "transport/IZRTNotification.h"

namespace ZRT {

class IResolveAddressCompletedNotification : public IZRTNotification {
public:
    // address is the request text exactly as given; result is empty when it could not be resolved.
    virtual void OnResolveAddressCompleted(int status, const std::string& address,
                                           QOX::CRefCountPtr<IZRTConnectionAddress> result) = 0;
};

} // namespace ZRT
