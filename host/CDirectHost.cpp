#include "host/CDirectHost.h"

#include "host/CDirectConnectionListener.h"
#include "host/CDirectDatagramHandler.h"
#include "host/CDirectMultiPointLayer.h"
#include "host/CDirectResolver.h"
#include "transport/CEventLoopPool.h"
#include "host/CHookNameService.h"
#include "host/CSocketPreparer.h"
#include "host/INameService.h"

#if defined(ZRT_WITH_CARES)
#include "host/CAresNameService.h"
#else
#include "host/CThreadNameService.h"
#endif

namespace ZRT {
namespace Host {

namespace {
CSocketPreparer::SOutgoing OutgoingOf(const SDirectHostSettings& settings)
{
    CSocketPreparer::SOutgoing outgoing;
    outgoing.ipv4 = settings.outgoingIPv4;
    outgoing.ipv6 = settings.outgoingIPv6;
    outgoing.interfaceName = settings.outgoingInterface;
    return outgoing;
}

QOX::SThreadHooks HooksOf(const SDirectHostSettings& settings)
{
    QOX::SThreadHooks hooks;
    hooks.onStart = settings.threadStart;
    hooks.onStop = settings.threadStop;
    hooks.context = settings.threadContext;
    return hooks;
}

std::unique_ptr<INameService> MakeNameService(CEventLoopPool& loops, const SDirectHostSettings& settings,
                                              const CSocketPreparer& preparer, bool& ready)
{
    if (settings.resolveHook) {
        ready = true;
        return std::unique_ptr<INameService>(
            new CHookNameService(loops.Next(), settings.resolveHook, settings.lookupTimeoutMs));
    }
#if defined(ZRT_WITH_CARES)
    std::unique_ptr<CAresNameService> names(
        new CAresNameService(loops.Next(), settings.dnsServers, settings.lookupTimeoutMs, preparer));
    ready = names->IsReady();
    return std::unique_ptr<INameService>(names.release());
#else
    (void)preparer;
    // Without c-ares the C library chooses the servers: a list of our own cannot be honoured.
    ready = settings.dnsServers.empty();
    return std::unique_ptr<INameService>(new CThreadNameService(HooksOf(settings)));
#endif
}
} // namespace

// Members go in reverse order: the services stop their sockets while the loops still run, and
// the loops (whose destructor waits for their threads) go last.
struct CDirectHost::SServices {
    explicit SServices(const SDirectHostSettings& settings)
        : dnsServers(settings.dnsServers), preparer(settings.socketHook, OutgoingOf(settings)), loops(settings.transportThreads, HooksOf(settings)),
          names(MakeNameService(loops, settings, preparer, namesReady)), multiPointLayer(loops, preparer),
          resolver(*names), datagramHandler(loops, preparer),
          connectionListener(loops, settings.bindIPv4, settings.bindIPv6), outgoingProblem(preparer.Check())
    {
    }

    std::string dnsServers;
    CSocketPreparer preparer;
    CEventLoopPool loops;
    bool namesReady = false; // before names, whose making sets it
    std::unique_ptr<INameService> names;
    CDirectMultiPointLayer multiPointLayer;
    CDirectResolver resolver;
    CDirectDatagramHandler datagramHandler;
    CDirectConnectionListener connectionListener;
    const std::string outgoingProblem;
};

CDirectHost::CDirectHost(const SDirectHostSettings& settings) : m_services(new SServices(settings)) {}

CDirectHost::~CDirectHost() = default;

bool CDirectHost::IsRunning() const
{
    return GetError().empty();
}

std::string CDirectHost::GetError() const
{
    if (!m_services->loops.IsRunning())
        return "cannot start the transport threads";
    if (!m_services->namesReady)
        return m_services->dnsServers.empty() ? "cannot start the name service"
                                              : "cannot use the DNS servers '" + m_services->dnsServers + "'";
    return m_services->outgoingProblem;
}

IZRTMultiPointLayer& CDirectHost::GetMultiPointLayer()
{
    return m_services->multiPointLayer;
}

IResolveAddress& CDirectHost::GetResolver()
{
    return m_services->resolver;
}

IDatagramHandler& CDirectHost::GetDatagramHandler()
{
    return m_services->datagramHandler;
}

IConnectionListener& CDirectHost::GetConnectionListener()
{
    return m_services->connectionListener;
}

} // namespace Host
} // namespace ZRT
