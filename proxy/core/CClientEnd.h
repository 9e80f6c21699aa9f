#pragma once

#include <atomic>
#include <list>

#include "proxy/core/CSendHold.h"
#include "runtime/CRefCountPtr.h"
#include "transport/CByteBuffer.h"
#include "transport/CTCPIPAddress.h"

namespace ZRT {
namespace Proxy {

// The client's socket of one connection and the bytes queued for it. Every operation runs on the
// connection's thread, which alone touches the socket and the queue, so nothing here is locked;
// only GetBacklog may be asked from elsewhere.
//
// What the socket does not take at once is queued, in order, and written as it takes more: a
// send never drops a byte and never waits.
class CClientEnd {
public:
    enum class ERead { Bytes, NothingNow, Ended, Failed };
    enum class EFlush { Failed, Unchanged, Wrote, Drained };

    // Drained is reported when the queue falls under this many bytes (or empties).
    static constexpr unsigned int LOW_WATER = 64 * 1024;

    CClientEnd() = default;
    ~CClientEnd();
    CClientEnd(const CClientEnd&) = delete;
    CClientEnd& operator=(const CClientEnd&) = delete;

    // Takes over an accepted non-blocking socket.
    void Adopt(int socket) { m_socket = socket; }
    int GetSocket() const { return m_socket; }

    // Up to size bytes; count is set with Bytes.
    ERead Read(char* buffer, int size, int& count);
    // Writes what the socket takes now and queues the rest (in a hold, small sends wait for its
    // end); false when the socket failed.
    bool Send(const char* data, int length);
    // Small sends made from here until EndHold wait and go out in one write (CSendHold). Bytes
    // that wait are not in the backlog.
    void BeginHold() { m_hold.Begin(); }
    // Ends one hold; the outermost writes what waits. False when a write of held bytes failed.
    bool EndHold();
    // Writes what waits now (before work that would delay it); the hold goes on.
    void WriteHeld();
    // Writes queued bytes as far as the socket takes them.
    EFlush Flush();
    // Any thread may ask (a relaxed read: a number for a look, not for a decision).
    unsigned int GetBacklog() const { return m_backlog.load(std::memory_order_relaxed); }
    // The socket's send buffer has this fixed size (the kernel does not grow it as it fills).
    void UseFixedSendBuffer(int size) { m_sendBufferSize = size; }
    // About how many bytes the socket takes now, at least wanted if it can say so without asking
    // the system; -1 without a fixed send buffer (one the kernel sizes must be filled to grow),
    // or where the system cannot say.
    long GetSendRoom(long wanted);
    // Bytes written into the socket other than through Send (spliced).
    void NoteSpliced(unsigned long long bytes) { m_written += bytes; }
    void DropOutput();
    // The client reads to its end: nothing more will be sent.
    void ShutdownSend();
    // clientFinished: the client ended its sending, so no input is left that would make the
    // close a reset.
    void Close(bool clientFinished);
    // The proxy's address as this client reached it; learnt on first use.
    const CTCPIPAddress& GetLocalAddress() const;

private:
    // Writes what the socket takes now and queues the rest; false when the socket failed.
    bool Write(const char* data, int length);
    void Queue(const char* data, int length);

    int m_socket = -1;
    int m_sendBufferSize = 0; // fixed; 0: the kernel sizes it
    unsigned long long m_written = 0; // every byte the socket took
    std::list<QOX::CRefCountPtr<CByteBuffer>> m_output; // empty, it allocates nothing (a deque would)
    std::atomic<unsigned int> m_backlog{0}; // written on the connection's thread only
    mutable CTCPIPAddress m_localAddress;
    CSendHold m_hold; // sends that wait, written before anything after them
    bool m_holdFailed = false; // a write of held bytes failed: EndHold tells it
};

} // namespace Proxy
} // namespace ZRT
