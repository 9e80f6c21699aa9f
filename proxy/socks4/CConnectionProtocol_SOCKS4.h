#pragma once

#include <memory>
#include <string>

#include "proxy/address/CNameLookup.h"
#include "proxy/core/IProxyConnection.h"
#include "proxy/socks5/CSocks5Bind.h"
#include "proxy/socks5/CSocksHandler.h"
#include "runtime/CRefCountPtr.h"
#include "runtime/Export.h"
#include "transport/CTCPIPAddress.h"
#include "transport/IZRTConnectionAddress.h"

namespace ZRT {
namespace Proxy {

// Server side of SOCKS version 4 and its 4A extension for one client: CONNECT and BIND, the
// destination as an IPv4 address or (4A) a name the proxy resolves. SOCKS4 carries no password:
// while the proxy has users it is refused unless the settings let it in (socks4WithUsers).
//
// One state machine (see CSocksHandler) on the connection's thread; its events: client bytes, a
// lookup answered or a BIND peer arrived (Resume), CONNECT's outcome, a timer, Terminate. A BIND's peer becomes the connection's host link, so CONNECT
// and BIND relay alike, through the connection.
//
//   Request -> [Resolve] -> Connect -> Relay
//                        -> BindAccept -> Relay
//   any state -> Closed (a refusal, an error, the client's end, Terminate)
enum class ESocks4State { Request, Resolve, Connect, BindAccept, Relay, Closed };

class ZRT_EXPORT CConnectionProtocol_SOCKS4 : public CSocksHandler<ESocks4State> {
public:
    using EState = ESocks4State;

    // The longest user id and host name taken, without their NUL.
    static constexpr unsigned int MAX_FIELD_LENGTH = 255;

    explicit CConnectionProtocol_SOCKS4(IProxyConnection& connection);
    ~CConnectionProtocol_SOCKS4() override;
    CConnectionProtocol_SOCKS4(const CConnectionProtocol_SOCKS4&) = delete;
    CConnectionProtocol_SOCKS4& operator=(const CConnectionProtocol_SOCKS4&) = delete;

    void Init() override {}
    void Terminate() override;
    const char* GetFamily() const override { return "socks4"; }

private:
    using AddressPtr = QOX::CRefCountPtr<IZRTConnectionAddress>;

    // Where the request's fields end in the buffer, once it is whole.
    struct SRequestLayout {
        size_t userEnd = 0; // the user id's NUL
        size_t nameEnd = 0; // the host name's NUL (4A), or 0
    };
    enum class EParse { Incomplete, Whole, Malformed };
    // A whole request's destination, taken out of the buffer.
    struct SDestination {
        CTCPIPAddress numeric;
        bool named = false; // 4A: the name decides (an empty one is refused)
        std::string name;
        std::string key;  // name:port, or the numeric address's text
    };

    EState DoStep(EState state, ESocksEvent event) override;
    EState DoRequest();
    EState DoResolveComplete();
    EState DoCommand(const AddressPtr& destination);
    EState DoConnect(const AddressPtr& destination);
    EState DoConnectOutcome(ESocksEvent event);
    EState DoBind(const AddressPtr& destination);
    EState DoBindAccept(ESocksEvent event);
    EState DoRelay();
    EParse ParseRequest(SRequestLayout& layout) const;
    // Records the request's command, user and destination and drops it from the buffer.
    SDestination TakeRequest(const SRequestLayout& layout);
    // Replies 91 (with no address) and records the outcome; Closed.
    EState Refuse(EOutcome outcome);
    // VN 0, the code, then the address's port and IPv4 address (zeros for none, or for IPv6).
    void SendReply(int code, const IZRTConnectionAddress* address);

    unsigned char m_command = 0;
    CNameLookup m_lookup;
    std::unique_ptr<CSocks5Bind> m_bind;
};

} // namespace Proxy
} // namespace ZRT
