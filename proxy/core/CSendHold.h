#pragma once

#include <cstddef>
#include <string>

namespace ZRT {
namespace Proxy {

// Small sends gathered while their owner holds them, to go out in one write when the hold ends:
// a head the proxy rewrote and the body bytes read with it then reach the peer in one segment
// (one write, one wake-up of the peer instead of two). Holds nest; what waits is written by the
// owner when the outermost ends, and before anything that must come behind it.
//
// Threads: its owner's thread alone (the client end's or the host link's connection thread).
class CSendHold {
public:
    // At most this many bytes wait; a send that would pass it goes out at once, behind them.
    static constexpr size_t LIMIT = 16 * 1024;

    void Begin() { ++m_depth; }
    // Ends one hold; true when it was the outermost (what waits is to be written now).
    bool End();
    // Keeps the bytes while a hold is on and they fit; false: the owner writes them (after Take).
    bool Keep(const char* data, size_t length);
    // What waits, handed over; the hold goes on.
    std::string Take();
    void Drop() { m_held.clear(); }

private:
    int m_depth = 0; // holds begun and not ended
    std::string m_held;
};

} // namespace Proxy
} // namespace ZRT
