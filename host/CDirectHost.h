#pragma once

#include <string>

#include "host/CDirectConnectionListener.h"
#include "host/CDirectDatagramHandler.h"
#include "host/CDirectMultiPointLayer.h"
#include "host/CDirectResolver.h"
#include "host/CEventLoopPool.h"

namespace ZRT {
namespace Host {

// The four host services on real sockets of this machine, sharing one pool of transport threads.
// It must outlive every use the engine makes of them: stop the engine first.
class CDirectHost {
public:
    static constexpr int DEFAULT_TRANSPORT_THREADS = 2;

    // bindIPv4/bindIPv6: the local addresses that BIND listeners use.
    explicit CDirectHost(int transportThreads = DEFAULT_TRANSPORT_THREADS, const std::string& bindIPv4 = "127.0.0.1",
                         const std::string& bindIPv6 = "::1");
    ~CDirectHost();
    CDirectHost(const CDirectHost&) = delete;
    CDirectHost& operator=(const CDirectHost&) = delete;

    bool IsRunning() const { return m_loops.IsRunning(); }
    CDirectMultiPointLayer& GetMultiPointLayer() { return m_multiPointLayer; }
    CDirectResolver& GetResolver() { return m_resolver; }
    CDirectDatagramHandler& GetDatagramHandler() { return m_datagramHandler; }
    CDirectConnectionListener& GetConnectionListener() { return m_connectionListener; }

private:
    CEventLoopPool m_loops;
    CDirectMultiPointLayer m_multiPointLayer;
    CDirectResolver m_resolver;
    CDirectDatagramHandler m_datagramHandler;
    CDirectConnectionListener m_connectionListener;
};

} // namespace Host
} // namespace ZRT
