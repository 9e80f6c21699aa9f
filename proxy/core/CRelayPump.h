#pragma once

#include <memory>
#include <optional>

#include "proxy/core/CClientEnd.h"
#include "proxy/core/CHostLink.h"
#include "proxy/core/IConnectionProtocol.h"

namespace ZRT {
namespace Proxy {

// Moves a connection's bytes, one read at a time, each way: through the handler (HandleRequest,
// HandleResponse), or spliced between the client socket and the link once the handler lets
// them pass unchanged (its relay allowance). Every operation runs on the connection's thread.
class CRelayPump {
public:
    static constexpr int CLIENT_READ_SIZE = 32768;
    // Read size when host bytes go through the handler. The buffer is the thread's, not the
    // connection's: the handler copies what it keeps before the read returns, so a tunnel pays
    // for none of it between reads.
    static constexpr int HOST_READ_SIZE = 64 * 1024;
    // Most bytes moved per splice. What a slow client does not take of it goes back to the link.
    static constexpr int HOST_SPLICE_SIZE = 256 * 1024;
    // Until a link has carried HOST_SPLICE_RAMP bytes its splices take at most this: the kernel
    // grows a socket's receive buffer after what each read takes, and a client that never reads
    // would leave the link's buffer that large, full.
    static constexpr int HOST_SPLICE_START = 64 * 1024;
    static constexpr unsigned long long HOST_SPLICE_RAMP = 8ull << 20;
    // Least a read or splice of host bytes asks for when the client has a fixed send buffer that
    // is (nearly) full: what it refuses is queued, and the queue's drain brings the next move.
    static constexpr int MIN_ROOM_MOVE = 4 * 1024;
    static constexpr int CLIENT_SPLICE_SIZE = 256 * 1024;

    // More: go on; Wait: nothing more now; the others: that end is reached (or failed).
    enum class EMove { More, Wait, ClientEnded, HostEnded, ClientFailed };

    // What the pump asks of its connection.
    class IOwner {
    public:
        virtual ~IOwner() = default;
        // The handler for this client chunk (made from the first one); null when there is none.
        virtual IConnectionProtocol* HandlerFor(const char* data, int length) = 0;
        // Bytes were read: spent from the loop's turn budget.
        virtual void OnMoved(int bytes) = 0;
        // Bytes went one way: counted as relayed, and moved.
        virtual void OnRelayed(bool toHost, int bytes) = 0;
        // Client bytes were read: false when a closure of the link came meanwhile (they have
        // nowhere to go).
        virtual bool LinkTakesClientBytes() = 0;
    };

    CRelayPump(IOwner& owner, CClientEnd& client, CHostLink& link) : m_owner(owner), m_client(client), m_link(link) {}

    EMove MoveClientBytes(IConnectionProtocol* handler);
    // One move of host bytes towards the client.
    EMove MoveHostBytes(IConnectionProtocol& handler);

    // The link has bytes (or may have).
    void NoteHostBytes() { m_hostPending = true; }
    void ForgetHostBytes() { m_hostPending = false; }
    bool HasHostBytes() const { return m_hostPending; }
    // A new link: read it at once; its first bytes go through the handler.
    void OnNewLink();
    void OnLinkGone();
    bool IsSplicing() const { return m_spliceHost || m_spliceClient; }
    // Spliced host bytes wait in the link's socket, whose readiness tells of them.
    bool SplicesHost() const { return m_spliceHost && m_link.GetReaderFd() >= 0; }

private:
    // Nothing when the link cannot splice now: an ordinary read does this turn.
    std::optional<EMove> SpliceClientBytes(IConnectionProtocol& handler);
    // At most most, and no more than a client with a fixed send buffer has room for (what it
    // refuses would wait in user space), but at least MIN_ROOM_MOVE.
    int FitClientRoom(int most);
    std::optional<EMove> SpliceHostBytes(IConnectionProtocol& handler, unsigned long long allowance);
    EMove ReadHostBytes(IZRTDataLayer& link, IConnectionProtocol& handler);

    IOwner& m_owner;
    CClientEnd& m_client;
    CHostLink& m_link;
    bool m_hostPending = false; // the last move stopped with bytes maybe left in the link
    bool m_spliceHost = false;
    bool m_spliceClient = false;
    unsigned long long m_hostSpliced = 0; // host bytes spliced over this link
};

} // namespace Proxy
} // namespace ZRT
