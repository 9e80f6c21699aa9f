#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "transport/CEventLoopPool.h"
#include "host/CSocketPreparer.h"
#include "host/CSinkRegistry.h"
#include "host/CPlaceholderNames.h"
#include "host/CUpstreamAssociation.h"
#include "host/CUpstreamRoute.h"
#include "transport/IEventHandler.h"
#include "runtime/CRefCount_Base.h"
#include "runtime/CRefCountPtr.h"
#include "transport/IDatagramHandler.h"

namespace ZRT {
namespace Host {

// One UDP socket per registration, bound to the wildcard address on a port the system picks.
// The socket is dual-stack IPv6 where the machine allows it (IPv4 peers appear as plain IPv4
// addresses), plain IPv4 otherwise. Datagrams are read on a loop's thread; after
// UnregisterReceiver returns, none reaches the receiver.
//
// With a SOCKS5 upstream, each registration also opens a UDP association with it
// (CUpstreamAssociation): datagrams to destinations the route carries (and to placeholders) go
// to the upstream's relay wrapped in the SOCKS5 UDP header, and only the relay's datagrams are
// taken from such sources, unwrapped. Bypassed destinations are exchanged directly. An HTTP
// upstream carries no datagrams: they all go direct.
//
// Threads: RegisterReceiver, UnregisterReceiver, SendDatagram and GetLocalPort come from any
// thread (the engine's event threads); receivers are called on a loop's thread.
class CDirectDatagramHandler : public IDatagramHandler {
public:
    // Every socket goes through the preparer before it is bound; a refused one fails the
    // registration.
    explicit CDirectDatagramHandler(CEventLoopPool& loops, const CSocketPreparer& preparer = CSocketPreparer(),
                                    const CUpstreamRoute& route = CUpstreamRoute(),
                                    std::shared_ptr<CPlaceholderNames> placeholders = nullptr,
                                    int upstreamTimeoutMs = 10000)
        : m_loops(loops), m_preparer(preparer), m_route(route), m_placeholders(std::move(placeholders)),
          m_upstreamTimeoutMs(upstreamTimeoutMs)
    {
    }
    ~CDirectDatagramHandler() override;

    int RegisterReceiver(const IZRTConnectionAddress& address, IDatagramReceiver* receiver) override;
    void UnregisterReceiver(int handle) override;
    void SendDatagram(int handle, const IZRTConnectionAddress& destination, const unsigned char* data,
                      int length) override;

    // The local port of a registration's socket (0 if unknown); lets tests and tools find it.
    unsigned int GetLocalPort(int handle);

private:
    // One socket: Start, Stop, Send and GetLocalPort on the handler's caller's thread, OnEvents
    // on the loop's.
    class CRegistration : public QOX::CRefCount_Base, public IEventHandler {
    public:
        CRegistration(int socket, int handle, IDatagramReceiver* receiver, CEventLoop& loop);
        ~CRegistration() override;

        long AddRef() override { return QOX::CRefCount_Base::AddRef(); }
        long ReleaseRef() override { return QOX::CRefCount_Base::ReleaseRef(); }
        void* GetReferencedObject() const override { return QOX::CRefCount_Base::GetReferencedObject(); }

        bool Start();
        // Stops delivery; waits for a delivery running on another thread.
        void Stop();
        void Send(const IZRTConnectionAddress& destination, const unsigned char* data, int length);
        unsigned int GetLocalPort() const;
        void OnEvents(uint32_t events) override;
        // Through the upstream's relay from now on (before Start).
        void SetAssociation(QOX::CRefCountPtr<CUpstreamAssociation> association, const CUpstreamRoute& route,
                            std::shared_ptr<CPlaceholderNames> placeholders);

    private:
        // True when the upstream carries datagrams to (and from) address.
        bool Carried(const sockaddr_storage& address) const;
        // Tells the receiver, if it listens for it, that no more datagrams come.
        void OnAssociationEnded();
        // False once the receiver is gone.
        bool Deliver(const sockaddr_storage& source, socklen_t length, const unsigned char* data, size_t size);

        int m_socket;
        int m_family;
        int m_handle;
        IDatagramReceiver* m_receiver;
        CEventLoop& m_loop;
        CSinkRegistry<IDatagramReceiver> m_receivers;
        uint64_t m_token = 0;
        QOX::CRefCountPtr<CUpstreamAssociation> m_association; // null: every datagram is direct
        CUpstreamRoute m_route;
        std::shared_ptr<CPlaceholderNames> m_placeholders;
    };

    QOX::CRefCountPtr<CRegistration> Find(int handle);

    CEventLoopPool& m_loops;
    const CSocketPreparer m_preparer;
    const CUpstreamRoute m_route;
    const std::shared_ptr<CPlaceholderNames> m_placeholders;
    const int m_upstreamTimeoutMs;
    // Guards m_registrations and m_nextHandle; never held across a receiver call.
    std::mutex m_mutex;
    std::map<int, QOX::CRefCountPtr<CRegistration>> m_registrations;
    int m_nextHandle = 1;
};

} // namespace Host
} // namespace ZRT
