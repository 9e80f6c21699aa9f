#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include "runtime/CRefCountImpl.h"
#include "runtime/CRefCountPtr.h"
#include "runtime/Export.h"
#include "transport/IZRTConnectionAddress.h"

namespace ZRT {

// An IPv4 or IPv6 address with port; empty until set.
class ZRT_EXPORT CTCPIPAddress : public QOX::CRefCountImpl<IZRTConnectionAddress> {
public:
    CTCPIPAddress();
    CTCPIPAddress(unsigned char a, unsigned char b, unsigned char c, unsigned char d, unsigned int port);
    CTCPIPAddress(const CTCPIPAddress& other);
    CTCPIPAddress& operator=(const CTCPIPAddress& other);
    ~CTCPIPAddress() override;

    // Parses a numeric IPv4 or IPv6 text (no brackets) and a port; false if it is not one.
    static QOX::CRefCountPtr<IZRTConnectionAddress> FromText(const char* host, unsigned int port);

    bool SetAddress(const sockaddr& address, unsigned int length);
    bool IsEmpty() const { return m_length == 0; }

    IZRTConnectionAddress* Clone() const override;
    int GetFamily() const override;
    unsigned int GetPortNumber() const override;
    std::string ToString() const override;
    bool IsEqual(const IZRTConnectionAddress& other) const override;
    bool GetSockAddr(sockaddr* address, int* length) const override;

private:
    sockaddr_storage m_address;
    socklen_t m_length = 0;
};

} // namespace ZRT
