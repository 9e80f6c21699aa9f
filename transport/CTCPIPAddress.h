#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <vector>

#include "runtime/CRefCountImpl.h"
#include "runtime/CRefCountPtr.h"
#include "runtime/Export.h"
#include "transport/IZRTConnectionAddress.h"

namespace ZRT {

// An IPv4 or IPv6 address with port; empty until set. A name's address may carry the name's
// other addresses (alternatives): a connection that cannot reach this one tries them in order.
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

    // The other addresses, each with its own port (at most MAX_ALTERNATIVES are kept).
    static constexpr size_t MAX_ALTERNATIVES = 15;
    void SetAlternatives(const std::vector<sockaddr_storage>& alternatives);
    const std::vector<sockaddr_storage>& GetAlternatives() const { return m_alternatives; }
    // A copy with every address, alternatives included, on port.
    QOX::CRefCountPtr<IZRTConnectionAddress> WithPort(unsigned int port) const;

    IZRTConnectionAddress* Clone() const override;
    int GetFamily() const override;
    unsigned int GetPortNumber() const override;
    std::string ToString() const override;
    bool IsEqual(const IZRTConnectionAddress& other) const override;
    bool GetSockAddr(sockaddr* address, int* length) const override;

private:
    sockaddr_storage m_address;
    socklen_t m_length = 0;
    std::vector<sockaddr_storage> m_alternatives;
};

} // namespace ZRT
