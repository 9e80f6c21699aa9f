#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "transport/CEventLoopPool.h"
#include "host/CSinkRegistry.h"
#include "host/CSocketPreparer.h"
#include "transport/IEventHandler.h"
#include "runtime/CRefCount_Base.h"
#include "runtime/CRefCountPtr.h"
#include "transport/IConnectionListener.h"

namespace ZRT {
namespace Host {

// Listens for SOCKS5 BIND on real TCP sockets. Each StartListening binds a new socket on a port
// the system picks, on the configured local address of the request's family (127.0.0.1 and ::1
// unless told otherwise), and accepts up to `count` connections, each handed to the receiver as
// a CTcpDataLayer. Only peers from the requested address count (any peer when it is the
// unspecified address): others are closed at once and the socket goes on listening. After
// StopListening returns, the receiver hears nothing more.
//
// Threads: StartListening and StopListening come from any thread (the engine's event threads);
// accepts run on a loop's thread, which hands each connection to the receiver.
class CDirectConnectionListener : public IConnectionListener {
public:
    // Each listening socket is shown to the preparer's hook (Listen) before it listens.
    CDirectConnectionListener(CEventLoopPool& loops, std::string ipv4Address = "127.0.0.1",
                              std::string ipv6Address = "::1", const CSocketPreparer& preparer = CSocketPreparer());
    ~CDirectConnectionListener() override;

    QOX::CRefCountPtr<IZRTConnectionAddress> StartListening(const IZRTConnectionAddress& address, int count,
                                                            IConnectionReceiver* receiver) override;
    void StopListening(const IZRTConnectionAddress& address) override;

private:
    // One listening socket: Start and Stop on the listener's caller's thread, OnEvents on the loop's.
    class CListeningSocket : public QOX::CRefCount_Base, public IEventHandler {
    public:
        // expected: the peer's address bytes, or empty for any peer.
        CListeningSocket(int socket, int count, std::string expected, IConnectionReceiver* receiver,
                         CEventLoopPool& loops, CEventLoop& loop);
        ~CListeningSocket() override;

        long AddRef() override { return QOX::CRefCount_Base::AddRef(); }
        long ReleaseRef() override { return QOX::CRefCount_Base::ReleaseRef(); }
        void* GetReferencedObject() const override { return QOX::CRefCount_Base::GetReferencedObject(); }

        bool Start();
        // No call reaches the receiver after it returns (unless made from inside that call).
        void Stop();
        const IZRTConnectionAddress& GetAddress() const { return *m_address; }
        void OnEvents(uint32_t events) override;

    private:
        void PauseAccepting();

        int m_socket;
        int m_remaining;
        std::string m_expected;
        IConnectionReceiver* m_receiver;
        CEventLoopPool& m_loops;
        CEventLoop& m_loop;
        CSinkRegistry<IConnectionReceiver> m_receivers;
        QOX::CRefCountPtr<IZRTConnectionAddress> m_address;
        // Guards m_token (the loop registration) and m_remaining; taken on the loop and by Stop.
        std::mutex m_mutex;
        uint64_t m_token = 0;
    };

    CEventLoopPool& m_loops;
    std::string m_ipv4Address;
    std::string m_ipv6Address;
    const CSocketPreparer m_preparer;
    // Guards m_sockets; never held across a receiver call.
    std::mutex m_mutex;
    std::vector<QOX::CRefCountPtr<CListeningSocket>> m_sockets;
};

} // namespace Host
} // namespace ZRT
