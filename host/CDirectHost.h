#pragma once

#include <memory>
#include <string>

#include "host/CDirectConnectionListener.h"
#include "host/CDirectDatagramHandler.h"
#include "host/CDirectMultiPointLayer.h"
#include "host/CDirectResolver.h"
#include "host/CEventLoopPool.h"
#include "host/INameService.h"
#include "host/SDirectHostSettings.h"

namespace ZRT {
namespace Host {

// The four host services on real sockets of this machine, sharing one pool of transport threads
// (name lookups run on the first of them). It must outlive every use the engine makes of them:
// stop the engine first.
class CDirectHost {
public:
    static constexpr int DEFAULT_TRANSPORT_THREADS = 2;

    explicit CDirectHost(const SDirectHostSettings& settings = SDirectHostSettings());
    ~CDirectHost();
    CDirectHost(const CDirectHost&) = delete;
    CDirectHost& operator=(const CDirectHost&) = delete;

    // False when the transport threads or the name service could not start.
    bool IsRunning() const;
    CDirectMultiPointLayer& GetMultiPointLayer() { return m_multiPointLayer; }
    CDirectResolver& GetResolver() { return m_resolver; }
    CDirectDatagramHandler& GetDatagramHandler() { return m_datagramHandler; }
    CDirectConnectionListener& GetConnectionListener() { return m_connectionListener; }

private:
    // Members go in reverse order: the services stop their sockets while the loops still run.
    CEventLoopPool m_loops;
    bool m_namesReady = false; // before m_names, whose making sets it
    std::unique_ptr<INameService> m_names;
    CDirectMultiPointLayer m_multiPointLayer;
    CDirectResolver m_resolver;
    CDirectDatagramHandler m_datagramHandler;
    CDirectConnectionListener m_connectionListener;
};

} // namespace Host
} // namespace ZRT
