#pragma once

#include "transport/IZRTConnectionAddress.h"

namespace ZRT {

// Implemented by the engine: receives datagrams for a registration.
class IDatagramReceiver {
public:
    virtual ~IDatagramReceiver() = default;
    virtual void OnDatagramReceived(int handle, const IZRTConnectionAddress& source, const unsigned char* data,
                                    int length) = 0;
};

} // namespace ZRT
