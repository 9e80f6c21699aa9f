#pragma once

#include <cstdint>

namespace ZRT {

// Something watched by a CEventLoop: reference counted so that the loop can keep it alive while
// it delivers an event, even when the owner lets go of it on another thread.
class IEventHandler {
public:
    virtual ~IEventHandler() = default;
    virtual long AddRef() = 0;
    virtual long ReleaseRef() = 0;
    virtual void* GetReferencedObject() const = 0;
    // Called on the loop's thread with the epoll event bits.
    virtual void OnEvents(uint32_t events) = 0;
};

} // namespace ZRT
