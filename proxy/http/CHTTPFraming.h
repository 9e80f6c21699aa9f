#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "proxy/http/CHTTPPacket.h"
#include "runtime/Export.h"

namespace ZRT {
namespace Proxy {

class CHTTPRequest;
class CHTTPResponse;

// What a parsed head says about its message (RFC 9112 §6, RFC 9110 §7.6.1 and §7.8): how its
// body is framed, whether the connection may carry another message after it, whether it asks to
// switch protocols. A message whose fields contradict each other gets a fault and no body: the
// handler answers a request with 400, a response with 502, and closes.
//
// A value decided once from the fields; used on the connection's thread only.
class ZRT_EXPORT CHTTPFraming {
public:
    enum class EBody {
        None,      // the head is the whole message
        Length,    // GetLength() bytes follow (0 included)
        Chunked,   // the chunked coding, followed by CChunkedBody
        UntilClose // a response whose body ends when the origin closes
    };

    enum class EFault {
        None,
        SeveralHosts,              // a request with more than one Host field
        BadConnection,             // a Connection element that is not a token
        BadContentLength,          // not all digits, empty, or past 63 bits
        DifferentContentLengths,   // several values that differ
        LengthAndTransferEncoding, // both fields
        BadTransferEncoding        // no coding, a coding not a token, chunked not last or twice,
                                   // HTTP/1.0, or a request whose last coding is not chunked
    };

    static CHTTPFraming OfRequest(const CHTTPRequest& request);
    // requestMethod is the method of the request answered: HEAD and CONNECT change the framing.
    static CHTTPFraming OfResponse(const CHTTPResponse& response, const std::string& requestMethod);

    EFault GetFault() const { return m_fault; }
    EBody GetBody() const { return m_body; }
    // 0 unless the body is EBody::Length.
    uint64_t GetLength() const { return m_body == EBody::Length ? m_length : 0; }
    unsigned int GetHostCount() const { return m_hostCount; }
    // The elements of every Connection field, in lower case, in order.
    const std::vector<std::string>& GetConnectionOptions() const { return m_connectionOptions; }
    // option in lower case.
    bool HasConnectionOption(const char* option) const;
    // Whether the sender lets the connection carry another message: HTTP/1.1 unless "close",
    // HTTP/1.0 only with "keep-alive" (and no "close"); never with a fault or a body that runs
    // until the close.
    bool IsPersistent() const;
    // An Upgrade field named by Connection in an HTTP/1.1 message.
    bool AsksUpgrade() const;

private:
    CHTTPFraming() = default;

    void ReadFields(const CHTTPPacket::HeaderList& fields);
    void ReadContentLength(const std::string& value);
    void ReadTransferEncoding(const std::string& value);
    void ReadConnection(const std::string& value);
    // The checks common to both directions, once every field is read.
    void CheckFields();
    void SetFault(EFault fault);

    EFault m_fault = EFault::None;
    EBody m_body = EBody::None;
    uint64_t m_length = 0;
    unsigned int m_lengthValues = 0;
    unsigned int m_hostCount = 0;
    unsigned int m_transferEncodingFields = 0;
    std::vector<std::string> m_codings;
    std::vector<std::string> m_connectionOptions;
    bool m_upgradeField = false;
    bool m_http11 = false;
};

} // namespace Proxy
} // namespace ZRT
