#pragma once

#include <sys/socket.h>

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "proxy/address/CNameLookup.h"
#include "proxy/core/IProxyConnection.h"
#include "runtime/CRefCountPtr.h"
#include "transport/IDatagramEndNotification.h"
#include "transport/IDatagramHandler.h"
#include "transport/IDatagramReceiver.h"
#include "transport/IZRTConnectionAddress.h"

namespace ZRT {
namespace Proxy {

// The relay of one SOCKS5 UDP association. Its socket listens where the client reached the proxy
// and serves only that client: datagrams are taken only from the client's own address, and once
// the first has come only from that address and port. Their payload goes to the host's datagram
// service; what the service receives comes back to the client only from hosts the client has
// sent to, with the SOCKS header in front.
//
// When the client's request named the address or port it sends from, only datagrams from
// there are taken. Datagrams are relayed whole or not at all: one too long for the relay's buffer
// (or, with the header added, for the client) is dropped and counted. Every destination is judged
// by the destination rules.
//
// Threads: the connection's thread polls the socket (GetSocket) and calls OnReadable,
// SettleLookups, GetWakeDelay and Close; the datagram service calls OnDatagramReceived and
// OnDatagramsEnded on its own thread. A destination given by name is looked up without waiting:
// the datagram waits with its lookup (at most MAX_LOOKUPS at a time, each for at most the proxy's
// lookup limit), and SettleLookups sends it on once its name is known, or drops it once it is not.
class CSocks5UdpRelay : public IDatagramReceiver, public IDatagramEndNotification {
public:
    using AddressPtr = QOX::CRefCountPtr<IZRTConnectionAddress>;

    // Room for the largest UDP payload of either family (65,507 bytes over IPv4).
    static constexpr size_t DATAGRAM_SIZE = 65535;
    static constexpr int DATAGRAMS_PER_TURN = 32;
    static constexpr size_t MAX_LOOKUPS = 4;
    // Hosts whose datagrams may come back; the oldest is forgotten beyond this.
    static constexpr size_t MAX_DESTINATIONS = 256;

    explicit CSocks5UdpRelay(IProxyConnection& connection);
    ~CSocks5UdpRelay() override;
    CSocks5UdpRelay(const CSocks5UdpRelay&) = delete;
    CSocks5UdpRelay& operator=(const CSocks5UdpRelay&) = delete;

    // Opens the socket and registers with the service for the requested address; false (and
    // nothing left open) when either fails.
    bool Open(IDatagramHandler& handler, const IZRTConnectionAddress& requested);
    int GetSocket() const { return m_socket; }
    // The socket's local address, for the reply.
    bool GetLocalAddress(sockaddr_storage& address) const;
    void OnReadable();
    // After a lookup's answer woke the handler, or at the time GetWakeDelay asked for.
    void SettleLookups();
    // Milliseconds until the earliest waiting lookup runs out; -1 when none waits.
    int GetWakeDelay() const;
    // Unregisters (no callback comes afterwards) and closes the socket.
    void Close();

    // Checks the SOCKS header of a client datagram (RSV zero, a known ATYP, a complete address
    // block); false when it is to be dropped, else where the payload starts.
    static bool ParseHeader(const unsigned char* datagram, size_t length, unsigned int& headerLength);

    void OnDatagramReceived(int handle, const IZRTConnectionAddress& source, const unsigned char* data,
                            int length) override;
    // The service can carry no more: the handler ends the association when woken.
    void OnDatagramsEnded(int handle) override;
    bool HasEnded() const { return m_ended.load(); }

private:
    struct SLookup {
        std::unique_ptr<CNameLookup> lookup;
        std::string payload;
    };

    void Relay(const unsigned char* datagram, size_t length, const sockaddr_storage& sender, socklen_t senderLength);
    bool AcceptSender(const sockaddr_storage& sender, socklen_t length);
    void Forward(const AddressPtr& destination, const unsigned char* payload, size_t length);
    // Sends the datagram on once its lookup has an answer; true when the lookup is done with.
    bool Settle(SLookup& pending);

    IProxyConnection& m_connection;
    std::atomic<bool> m_ended{false};
    IDatagramHandler* m_handler = nullptr;
    int m_handle = -1;
    int m_socket = -1;
    std::string m_clientHost; // the client's TCP address: datagrams come only from there
    std::string m_namedHost;  // the address the request named, unless it was unspecified
    unsigned int m_namedPort = 0;
    std::unique_ptr<unsigned char[]> m_datagram; // DATAGRAM_SIZE, made on first use
    std::vector<SLookup> m_lookups;

    // Guards the client's UDP address and the destinations, which the service's thread reads.
    mutable std::mutex m_mutex;
    sockaddr_storage m_client{};
    socklen_t m_clientLength = 0;
    std::deque<std::string> m_destinationOrder;
    std::set<std::string> m_destinations;
};

} // namespace Proxy
} // namespace ZRT
