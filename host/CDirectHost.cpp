#include "host/CDirectHost.h"

#if defined(ZRT_WITH_CARES)
#include "host/CAresNameService.h"
#else
#include "host/CThreadNameService.h"
#endif

namespace ZRT {
namespace Host {

namespace {
std::unique_ptr<INameService> MakeNameService(CEventLoopPool& loops, const SDirectHostSettings& settings,
                                              bool& ready)
{
#if defined(ZRT_WITH_CARES)
    std::unique_ptr<CAresNameService> names(
        new CAresNameService(loops.Next(), settings.dnsServers, settings.lookupTimeoutMs));
    ready = names->IsReady();
    return std::unique_ptr<INameService>(names.release());
#else
    (void)loops;
    // Without c-ares the C library chooses the servers: a list of our own cannot be honoured.
    ready = settings.dnsServers.empty();
    return std::unique_ptr<INameService>(new CThreadNameService());
#endif
}
} // namespace

CDirectHost::CDirectHost(const SDirectHostSettings& settings)
    : m_loops(settings.transportThreads), m_names(MakeNameService(m_loops, settings, m_namesReady)),
      m_multiPointLayer(m_loops), m_resolver(*m_names), m_datagramHandler(m_loops),
      m_connectionListener(m_loops, settings.bindIPv4, settings.bindIPv6)
{
}

CDirectHost::~CDirectHost() = default;

bool CDirectHost::IsRunning() const
{
    return m_loops.IsRunning() && m_namesReady;
}

} // namespace Host
} // namespace ZRT
