#pragma once

#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "proxy/core/IConnectionProtocol.h"
#include "proxy/core/IProxyConnection.h"
#include "runtime/CAtomicInt.h"
#include "runtime/CCallGate.h"
#include "runtime/CEvent.h"
#include "runtime/CRecursiveMutex.h"
#include "runtime/CRefCountPtr.h"
#include "runtime/CThread.h"
#include "runtime/Export.h"
#include "transport/IConnectionReceiver.h"
#include "transport/IDatagramReceiver.h"
#include "transport/IZRTConnectionAddress.h"
#include "transport/IZRTDataLayer.h"
#include "transport/IZRTDataLayerNotification.h"

namespace ZRT {
namespace Proxy {

// Server side of SOCKS version 5 (RFC 1928) for one client: method negotiation (no
// authentication only), CONNECT, BIND and UDP ASSOCIATE.
//
// Threads: the connection's thread hands in client bytes (HandleRequest) and relays host bytes
// (HandleResponse). Steps that finish at once (greeting, a request for an address or a cached
// name, CONNECT, UDP ASSOCIATE set-up, relaying to the host) run right there, inside
// HandleRequest: no thread hop and no copy on the common path. A step that may wait without
// bound (a name the resolver must look up, BIND waiting for its peer) hands the exchange to the
// worker thread (this CThread), which is started then and does every later step, as the only
// place where the client's bytes are parsed from that moment on. The listener's, the BIND
// stream's and the datagram service's threads call back; a UDP ASSOCIATE adds a relay thread.
// Terminate may come from any of them.
//
// Teardown races: a command that registers with a host service (listener, datagram handler) may
// still be doing so when Terminate runs on another thread. Terminate therefore raises
// m_terminated first and then takes each registration out under its lock; a command that
// finds the flag raised when it comes to publish its registration undoes it itself. So nothing
// stays registered, and no lock of ours is held while a host service is called (the host's
// services hold their own locks across their callbacks, which take ours).
class ZRT_EXPORT CConnectionProtocol_SOCKS5 : public IConnectionProtocol,
                                              public IDatagramReceiver,
                                              public IConnectionReceiver,
                                              public IZRTDataLayerNotification,
                                              public QOX::CThread {
public:
    enum EState {
        AwaitingGreeting = 0,
        AwaitingRequest = 1,
        GreetingIncomplete = 2,
        Connected = 3,
        Bound = 4,
        UdpAssociated = 5,
        Closed = -1
    };

    // While the client has this much unsent, bytes from the BIND stream stay in the stream, so
    // its peer is slowed by TCP instead of growing our queue.
    static constexpr unsigned int BIND_CLIENT_BACKLOG_LIMIT = 256 * 1024;
    static constexpr int BIND_CHUNK_SIZE = 8192;
    static constexpr int UDP_DATAGRAM_SIZE = 8192;

    // Client bytes not yet processed. Lock()/Unlock() let the worker read and consume as one
    // critical section; GetData() is valid only while the lock is held.
    class ZRT_EXPORT CBuffer {
    public:
        CBuffer();
        virtual ~CBuffer();
        CBuffer(const CBuffer&) = delete;
        CBuffer& operator=(const CBuffer&) = delete;

        bool AppendData(const char* data, unsigned int length);
        bool AddData(const char* data, unsigned int length);
        void Consume(unsigned int count);
        void Clear();
        unsigned int GetSize() const;
        // The size without taking the lock, for a reader that only needs an estimate
        // (the connection asking for the backlog while the worker holds the lock).
        unsigned int PeekSize() const { return m_size.load(); }
        const unsigned char* GetData() const;
        void Lock() const;
        void Unlock() const;

    private:
        mutable QOX::CRecursiveMutex m_mutex;
        uint32_t m_capacity = 0;
        std::atomic<uint32_t> m_size{0}; // written under m_mutex only
        unsigned char* m_data = nullptr;
    };

    // Client-to-host half of the UDP relay: reads the association's socket, strips the SOCKS
    // header and hands the payload to the datagram service. Sleeps in poll() on the socket and
    // its stop event, so an idle association costs nothing and a stop is seen at once, except
    // while it resolves a domain name from a datagram header: Terminate then waits for the
    // address manager's answer (at most its 30-second limit).
    class ZRT_EXPORT CUDPListeningThread : public QOX::CThread {
    public:
        explicit CUDPListeningThread(CConnectionProtocol_SOCKS5* owner);
        ~CUDPListeningThread() override;
        int Run() override;

    private:
        void RelayDatagram(IDatagramHandler& handler, int udpSocket);

        CConnectionProtocol_SOCKS5* m_owner;
    };

    explicit CConnectionProtocol_SOCKS5(IProxyConnection& connection);

    // Checks the SOCKS header of a datagram from the client (RSV zero, known ATYP, complete
    // address block) and decodes its destination, resolving a domain name. Empty when the
    // datagram is to be dropped; otherwise headerLength is where the payload starts.
    static QOX::CRefCountPtr<IZRTConnectionAddress> ParseUdpRequest(const unsigned char* datagram, size_t length,
                                                                    unsigned int& headerLength);
    ~CConnectionProtocol_SOCKS5() override;
    CConnectionProtocol_SOCKS5(const CConnectionProtocol_SOCKS5&) = delete;
    CConnectionProtocol_SOCKS5& operator=(const CConnectionProtocol_SOCKS5&) = delete;

    // IConnectionProtocol
    void Init() override;
    void Terminate() override;
    void HandleRequest(const char* data, int length) override;
    void HandleResponse(const char* data, int length) override;
    unsigned int GetRequestBacklog() const override;
    void OnClientDrained() override;
    // Connected relays host bytes unchanged (nothing is held back once the state is reached).
    bool PassesResponsesThrough() const override { return m_state.Get() == Connected; }
    // As HandleRequest's shortcut: relaying on the connection's thread with nothing held.
    bool PassesRequestsThrough() const override
    {
        return m_state.Get() == Connected && !m_workerStarted.load() && m_buffer.PeekSize() == 0 &&
               !m_terminated.load();
    }

    // IDatagramReceiver
    void OnDatagramReceived(int handle, const IZRTConnectionAddress& source, const unsigned char* data,
                            int length) override;
    // IConnectionReceiver
    void OnConnectionEstablished(const IZRTConnectionAddress& peer, const IZRTConnectionAddress& local,
                                 IZRTDataLayer& stream) override;
    // IZRTDataLayerNotification, for the BIND stream
    void OnConnectionClosed(IZRTDataLayer& dataLayer) override;
    void OnDataReceived(IZRTDataLayer& dataLayer) override;
    void OnSendDrained(IZRTDataLayer& dataLayer) override;

    int Run() override;

    int GetState() const { return m_state.Get(); }

private:
    int Step(int state);
    int ParseGreeting();
    int ParseRequest();
    int RelayToHost();
    int RelayToBindStream();

    void SendResponse(int code, const sockaddr* address, int length);
    void SendResponse(int code, const IZRTConnectionAddress& address);
    void SendCommandResponse(int code);
    void DisconnectClient();

    int HandleTCPConnect(QOX::CRefCountPtr<IZRTConnectionAddress> address);
    int HandleTCPBind(QOX::CRefCountPtr<IZRTConnectionAddress> address);
    int HandleUDPAssociate(QOX::CRefCountPtr<IZRTConnectionAddress> address);

    bool StartBindListener(IConnectionListener& listener, const IZRTConnectionAddress& address);
    void WaitForBindConnection();
    int OpenUdpSocket();
    bool PublishUdpRelay(int udpSocket, int handle);

    void DrainBindStream(IZRTDataLayer& stream);
    void ForwardBindStream(IZRTDataLayer& stream);
    void FlushClientBytes();
    void TerminateUdpRelay();
    void TerminateBind();

    bool ProcessBuffer();
    // Runs the steps on the calling (connection) thread, then starts the worker if a step
    // asked for it.
    void ProcessInline();
    // On the connection's thread: whether this request must wait on the worker instead.
    bool NeedsWorker(const unsigned char* request) const;
    void StartWorker();
    bool IsSteppingHere() const;
    void StoreState(int next);
    void ConsumeClientBytes(unsigned int count);
    bool IsStopping();

    IProxyConnection& m_connection;
    QOX::CAtomicInt m_state;
    CBuffer m_buffer;
    QOX::CRefCountPtr<IZRTConnectionAddress> m_destination;
    QOX::CRefCountPtr<IZRTConnectionAddress> m_bindPeerAddress;
    QOX::CRefCountPtr<IZRTConnectionAddress> m_bindListenAddress;
    QOX::CRefCountPtr<IZRTDataLayer> m_bindDataLayer;
    // Read by the relay thread and the datagram callback while Terminate takes them out.
    std::atomic<int> m_udpSocket{-1};
    sockaddr_in6 m_udpClientAddress; // 28 bytes, guarded by m_udpMutex
    CUDPListeningThread* m_udpThread = nullptr;
    std::atomic<int> m_datagramHandle{-1};
    mutable QOX::CRecursiveMutex m_bindMutex;
    QOX::CEvent m_dataEvent;

    // Guards m_udpClientAddress (the relay thread writes it while the datagram callback reads
    // it) and the publication of m_udpThread, m_udpSocket and m_datagramHandle.
    QOX::CRecursiveMutex m_udpMutex;
    // Signalled by OnConnectionEstablished, so the BIND wait sleeps instead of polling.
    QOX::CEvent m_bindEvent;
    std::atomic<bool> m_terminated{false};
    // The host services' threads inside our callbacks. One of them may be the thread that tears
    // us down (a BIND peer closing drops the client from its own callback), so the destructor
    // waits for them to leave rather than trusting that Terminate has returned everywhere.
    QOX::CCallGate m_callbacks;
    // Drains of the BIND stream requested and not yet served; the thread that raises it from 0
    // drains until it falls back, so bytes are forwarded by one thread at a time, in order.
    std::atomic<int> m_bindDrainRequests{0};
    // Set once the second BIND reply is out and the handler is registered on the stream: from
    // then on OnClientDrained may pull from it.
    std::atomic<bool> m_bindRelaying{false};
    // The stream reported its end: forward what it still holds without waiting for the client.
    std::atomic<bool> m_bindFinalDrain{false};
    // Set (under m_bindMutex) when the BIND wait took the accepted stream; a later connection
    // is then turned away instead of replacing it.
    bool m_bindTaken = false;

    // Host bytes can arrive between ConnectToHost's success and the success reply; they are
    // held here and passed on right after the reply, so nothing is lost or overtakes it.
    QOX::CRecursiveMutex m_responseMutex;
    bool m_holdResponses = false;
    std::string m_heldResponses;

    // Set on the connection's thread once the worker owns the exchange; never cleared.
    std::atomic<bool> m_workerStarted{false};
    // A step on the connection's thread asked for the worker; it starts after that step.
    bool m_handOver = false;

    // Client bytes consumed so far, so the worker sees whether a step made progress
    // (Terminate consumes too, when it hands on what the client sent last).
    std::atomic<uint32_t> m_consumedBytes{0};
};

} // namespace Proxy
} // namespace ZRT
