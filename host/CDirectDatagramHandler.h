#pragma once

#include <cstdint>
#include <map>
#include <mutex>

#include "transport/CEventLoopPool.h"
#include "host/CSocketPreparer.h"
#include "host/CSinkRegistry.h"
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
// Threads: RegisterReceiver, UnregisterReceiver, SendDatagram and GetLocalPort come from any
// thread (the engine's event threads); receivers are called on a loop's thread.
class CDirectDatagramHandler : public IDatagramHandler {
public:
    // Every socket goes through the preparer before it is bound; a refused one fails the
    // registration.
    explicit CDirectDatagramHandler(CEventLoopPool& loops, const CSocketPreparer& preparer = CSocketPreparer())
        : m_loops(loops), m_preparer(preparer)
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

    private:
        int m_socket;
        int m_family;
        int m_handle;
        IDatagramReceiver* m_receiver;
        CEventLoop& m_loop;
        CSinkRegistry<IDatagramReceiver> m_receivers;
        uint64_t m_token = 0;
    };

    QOX::CRefCountPtr<CRegistration> Find(int handle);

    CEventLoopPool& m_loops;
    const CSocketPreparer m_preparer;
    // Guards m_registrations and m_nextHandle; never held across a receiver call.
    std::mutex m_mutex;
    std::map<int, QOX::CRefCountPtr<CRegistration>> m_registrations;
    int m_nextHandle = 1;
};

} // namespace Host
} // namespace ZRT
