#pragma once

#include <sys/socket.h>

#include <chrono>
#include <memory>
#include <string>

#include "transport/CEventLoopPool.h"
#include "transport/CSocketHandle.h"
#include "host/CPlaceholderNames.h"
#include "host/CSocketPreparer.h"
#include "host/CUpstreamRoute.h"
#include "transport/IZRTMultiPointLayer.h"

namespace ZRT {
namespace Host {

// Opens host links as plain TCP connections from this machine, each driven by one of the pool's
// loops, or through the upstream proxy of the route for the destinations it carries (the link
// says it is connecting until the upstream's handshake is done). Connect blocks its caller (up to
// CONNECT_TIMEOUT_MS); BeginConnect returns at once with a link that reports the outcome, within
// the same time limit. With placeholders (socks5h), a destination in their block always goes
// through the upstream, by the name it stands for; one whose name was forgotten fails
// (EHOSTUNREACH).
//
// Threads: both come from any thread (Connect blocks it; the engine uses BeginConnect, on its
// event threads); the links they return say how they are called.
class CDirectMultiPointLayer : public IZRTMultiPointLayer {
public:
    static constexpr int CONNECT_TIMEOUT_MS = 10000;

    // Every socket goes through the preparer before it connects; a refused one fails the link.
    explicit CDirectMultiPointLayer(CEventLoopPool& loops, const CSocketPreparer& preparer = CSocketPreparer(),
                                    const CUpstreamRoute& route = CUpstreamRoute(),
                                    std::shared_ptr<CPlaceholderNames> placeholders = nullptr)
        : m_loops(loops), m_preparer(preparer), m_route(route), m_placeholders(std::move(placeholders))
    {
    }

    // The source (the engine's client) plays no part in a direct connection.
    QOX::CRefCountPtr<IZRTDataLayer> Connect(const IZRTConnectionAddress& destination,
                                             const IZRTConnectionAddress& source) override;
    QOX::CRefCountPtr<IZRTDataLayer> BeginConnect(const IZRTConnectionAddress& destination,
                                                  const IZRTConnectionAddress& source) override;
    bool ConnectsWithoutBlocking() const override { return true; }

private:
    struct SDestination {
        sockaddr_storage address{};
        socklen_t length = 0;
        std::string name; // the upstream resolves it (a placeholder's)
        bool carried = false;
    };
    using Clock = std::chrono::steady_clock;

    // Where a connection to destination goes first: itself, or the upstream that carries it.
    // 0, or an errno value: EINVAL for an address that is not IP, EHOSTUNREACH for a forgotten
    // placeholder.
    int Plan(const IZRTConnectionAddress& destination, SDestination& to, SDestination& hop) const;
    // A link that fails with error, told through the loop as every outcome is.
    QOX::CRefCountPtr<IZRTDataLayer> Failed(const SDestination& to, int error) const;
    // Opens a prepared socket towards hop and starts connecting it; done when the connect
    // finished at once. Invalid when the socket or the connect fails, with why in error.
    CSocketHandle StartConnect(const SDestination& hop, bool& done, int& error) const;
    // Connect's wait for the upstream's handshake; false when it failed or ran out of time.
    bool HandshakeBlocking(int socket, const SDestination& to, Clock::time_point deadline) const;

    CEventLoopPool& m_loops;
    const CSocketPreparer m_preparer;
    const CUpstreamRoute m_route;
    const std::shared_ptr<CPlaceholderNames> m_placeholders;
};

} // namespace Host
} // namespace ZRT
