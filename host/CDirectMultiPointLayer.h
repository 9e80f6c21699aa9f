#pragma once

#include <sys/socket.h>

#include "transport/CEventLoopPool.h"
#include "transport/CSocketHandle.h"
#include "host/CSocketPreparer.h"
#include "transport/IZRTMultiPointLayer.h"

namespace ZRT {
namespace Host {

// Opens host links as plain TCP connections from this machine, each driven by one of the pool's
// loops. Connect blocks its caller (up to CONNECT_TIMEOUT_MS); BeginConnect returns at once with
// a link that reports the outcome, within the same time limit.
//
// Threads: both come from any thread (Connect blocks it; the engine uses BeginConnect, on its
// event threads); the links they return say how they are called.
class CDirectMultiPointLayer : public IZRTMultiPointLayer {
public:
    static constexpr int CONNECT_TIMEOUT_MS = 10000;

    // Every socket goes through the preparer before it connects; a refused one fails the link.
    explicit CDirectMultiPointLayer(CEventLoopPool& loops, const CSocketPreparer& preparer = CSocketPreparer())
        : m_loops(loops), m_preparer(preparer)
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
    };
    // Opens a prepared socket towards destination and starts connecting it; done when the
    // connect finished at once. Invalid when the address, the socket or the connect fails.
    CSocketHandle StartConnect(const IZRTConnectionAddress& destination, SDestination& to, bool& done) const;

    CEventLoopPool& m_loops;
    const CSocketPreparer m_preparer;
};

} // namespace Host
} // namespace ZRT
