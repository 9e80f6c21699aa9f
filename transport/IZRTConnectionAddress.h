#pragma once

#include <sys/socket.h>

#include <string>

namespace ZRT {

// A network address with port, reference counted.
class IZRTConnectionAddress {
public:
    virtual ~IZRTConnectionAddress() = default;
    virtual long AddRef() = 0;
    virtual long ReleaseRef() = 0;
    virtual void* GetReferencedObject() const = 0;

    // A new heap copy with a count of 0; the caller wraps it in a CRefCountPtr.
    virtual IZRTConnectionAddress* Clone() const = 0;

    virtual int GetFamily() const = 0;
    virtual unsigned int GetPortNumber() const = 0;
    virtual std::string ToString() const = 0;
    virtual bool IsEqual(const IZRTConnectionAddress& other) const = 0;

    // Writes the socket form; *length holds the room on entry and the length used on return.
    virtual bool GetSockAddr(sockaddr* address, int* length) const = 0;
};

} // namespace ZRT
