#pragma once

#include <memory>
#include <string>

#include "host/CDirectConnectionListener.h"
#include "host/CDirectDatagramHandler.h"
#include "host/CDirectMultiPointLayer.h"
#include "host/CDirectResolver.h"
#include "host/CPlaceholderNames.h"
#include "host/CSocketPreparer.h"
#include "host/INameService.h"
#include "host/SDirectHostSettings.h"
#include "transport/CEventLoopPool.h"

namespace ZRT {
namespace Host {

// The four host services on real sockets of this machine, sharing a few transport threads (name
// lookups run on the first of them), made whole from their settings: what CDirectHost runs, and
// the C interface with hooks of its own. It must outlive every use the engine makes of them.
// Its destructor returns when none of its threads runs any more.
//
// Threads: made and destroyed on the controlling thread; the services are used as their
// interfaces say.
class CDirectServices {
public:
    explicit CDirectServices(const SDirectHostSettings& settings);
    ~CDirectServices() = default;
    CDirectServices(const CDirectServices&) = delete;
    CDirectServices& operator=(const CDirectServices&) = delete;

    // Why the services cannot be used ("" when they can): no transport threads, no name
    // service, an outgoing address or interface this machine does not have.
    std::string GetError() const;
    IZRTMultiPointLayer& GetMultiPointLayer() { return m_multiPointLayer; }
    IResolveAddress& GetResolver() { return m_resolver; }
    IDatagramHandler& GetDatagramHandler() { return m_datagramHandler; }
    IConnectionListener& GetConnectionListener() { return m_connectionListener; }

private:
    // Members go in reverse order: the services stop their sockets while the loops still run,
    // and the loops (whose destructor waits for their threads) go last.
    const std::string m_dnsServers;
    CSocketPreparer m_preparer;
    CEventLoopPool m_loops;
    bool m_namesReady = false; // before m_names, whose making sets it
    // The names the upstream resolves (socks5h); null otherwise.
    const std::shared_ptr<CPlaceholderNames> m_placeholders;
    std::unique_ptr<INameService> m_names;
    CDirectMultiPointLayer m_multiPointLayer;
    CDirectResolver m_resolver;
    CDirectDatagramHandler m_datagramHandler;
    CDirectConnectionListener m_connectionListener;
    const std::string m_outgoingProblem;
};

} // namespace Host
} // namespace ZRT
