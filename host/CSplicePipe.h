#pragma once

#include <sys/types.h>

#include <cstddef>

#include "host/CByteQueue.h"

namespace ZRT {
namespace Host {

// A kernel pipe between two stream sockets: bytes are spliced from one socket into it and from
// it into the other without being copied through user space (Linux and Android). Both relay
// directions of a TCP link use one each. Made on first use and given back once it is empty and
// its source had nothing more, so a quiet link holds no pipe; it counts what it holds. Not
// thread-safe: every call comes from whichever thread holds its owner's lock.
class CSplicePipe {
public:
    // The pipe's size, a wish: its slots hold one socket buffer fragment each, so small
    // fragments need many to carry one move.
    static constexpr size_t CAPACITY = 1024 * 1024;
    // Most bytes it holds: one relay move's worth (CRelayPump's splice sizes). More would only
    // keep, outside every socket's buffer, what a destination that stopped reading refuses.
    static constexpr size_t MOST_HELD = 256 * 1024;

    enum class EResult {
        Moved,       // count bytes moved
        NothingNow,  // the source had nothing, or the destination took nothing (would block)
        End,         // the source socket's peer ended its sending
        Failed,      // the socket failed (errno kept in Error())
        Unsupported  // splice cannot serve this socket or platform: copy instead
    };

    CSplicePipe() = default;
    ~CSplicePipe();
    CSplicePipe(const CSplicePipe&) = delete;
    CSplicePipe& operator=(const CSplicePipe&) = delete;

    size_t Held() const { return m_held; }
    size_t Room() const { return m_held >= MOST_HELD ? 0 : MOST_HELD - m_held; }
    int Error() const { return m_error; }

    // Moves up to max bytes from socket into the pipe.
    EResult FillFrom(int socket, size_t max, size_t& count);
    // Moves what the pipe holds into socket, until it is empty or the socket would block.
    EResult DrainTo(int socket, size_t& count);
    // Copies what the pipe holds to the back of queue (for bytes a socket would not take).
    void DrainInto(CByteQueue& queue);
    // Drops what it holds and the pipe with it.
    void Close();

private:
    bool Open();
    // Gives the pipe back when it is empty and its source had nothing more after the last fill.
    void ReleaseIfIdle();
    // Whether socket has bytes waiting (true when it cannot tell).
    static bool HasMore(int socket);

    int m_fds[2] = {-1, -1};
    size_t m_held = 0;
    int m_error = 0;
    bool m_sourceDry = false; // the last fill left its source with nothing to read
};

} // namespace Host
} // namespace ZRT
