#pragma once

#include <mutex>

#include "proxy/core/IProxyConnection.h"
#include "runtime/CRefCountPtr.h"
#include "transport/IConnectionListener.h"
#include "transport/IConnectionReceiver.h"
#include "transport/IZRTConnectionAddress.h"
#include "transport/IZRTDataLayer.h"

namespace ZRT {
namespace Proxy {

// The waiting half of a SOCKS BIND (version 5, and 4 alike): listens through the host's connection listener and hands
// the accepted peer to the connection's thread (which makes it the host link). Only a peer from
// the address the client named (unless it named the unspecified address) is taken; any other,
// and any peer after the first, is closed at once.
//
// Threads: Start, TakePeer and Stop on the connection's thread; OnConnectionEstablished on the
// listener's, which then wakes the handler.
class CSocks5Bind : public IConnectionReceiver {
public:
    using AddressPtr = QOX::CRefCountPtr<IZRTConnectionAddress>;

    explicit CSocks5Bind(IProxyConnection& connection);
    ~CSocks5Bind() override;
    CSocks5Bind(const CSocks5Bind&) = delete;
    CSocks5Bind& operator=(const CSocks5Bind&) = delete;

    // Listens for the peer the client expects; the address peers are awaited on, or empty.
    AddressPtr Start(IConnectionListener& listener, const IZRTConnectionAddress& expected);
    // The accepted peer and its address, once; false while none came.
    bool TakePeer(QOX::CRefCountPtr<IZRTDataLayer>& stream, AddressPtr& peer);
    // Stops listening; no callback comes afterwards. A peer nobody took is closed.
    void Stop();

    void OnConnectionEstablished(const IZRTConnectionAddress& peer, const IZRTConnectionAddress& local,
                                 IZRTDataLayer& stream) override;

private:
    bool IsExpected(const IZRTConnectionAddress& peer) const;

    IProxyConnection& m_connection;
    // Guards everything below: the listener's thread hands the peer over.
    std::mutex m_mutex;
    IConnectionListener* m_listener = nullptr;
    AddressPtr m_listenAddress;
    AddressPtr m_expected;
    QOX::CRefCountPtr<IZRTDataLayer> m_stream;
    AddressPtr m_peer;
    bool m_settled = false; // a peer was accepted (or Stop came): later ones are turned away
};

} // namespace Proxy
} // namespace ZRT
