#pragma once

#include <string>

#include "proxy/core/IProxyConnection.h"
#include "runtime/CRefCountPtr.h"
#include "runtime/Export.h"
#include "transport/IZRTConnectionAddress.h"

namespace ZRT {
namespace Proxy {

// The origin connection of one client's HTTP requests: where it came from, and where it goes
// when a request is done with it. A connection that answered cleanly is kept (Parked) for the
// client's next request, which most often goes to the same place; it goes to the proxy's
// COriginPool when that request goes elsewhere or the client goes. A request that finds none
// takes an idle one of the pool, or connects anew.
//
//   None -> Fresh (connecting, then in use) | Reused (parked or from the pool) -> Parked | None
//   Reused -> Fresh (its origin closed it before any answer: a new connection, once)
//   Parked -> Reused | None (its origin closed or spoke unasked; the client went)
//
// Every operation is called on the connection's thread, by its HTTP handler.
class ZRT_EXPORT CHTTPOriginLink {
public:
    using AddressPtr = QOX::CRefCountPtr<IZRTConnectionAddress>;
    enum class EState { None, Parked, Fresh, Reused };
    enum class EOpened { Reused, Connecting, Failed };

    CHTTPOriginLink(IProxyConnection& connection, int keepAliveMs);

    // A connection to destination for the request under way. mayReuse: the request may go over a
    // kept connection, and its own may be kept afterwards.
    EOpened Open(const AddressPtr& destination, bool mayReuse);
    // A new connection to the destination in place of a reused one; false when none can be begun.
    bool Replace();
    void Park();
    // Lets go of the connection: into the pool when reusable, else it is closed.
    void Release(bool reusable);

    EState GetState() const { return m_state; }

private:
    EOpened Reuse();

    IProxyConnection& m_connection;
    const int m_keepAliveMs;
    EState m_state = EState::None;
    AddressPtr m_destination;
    std::string m_key; // the destination's address and port, for the pool
};

} // namespace Proxy
} // namespace ZRT
