#include "host/CDirectServices.h"

#include "host/CHookNameService.h"
#include "host/CUpstreamNameService.h"

#if defined(ZRT_WITH_CARES)
#include "host/CAresNameService.h"
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

std::unique_ptr<INameService> MakeLocalNameService(CEventLoopPool& loops, const SDirectHostSettings& settings,
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
    // No resolver of our own whose sockets the socket hook would not see (the C library's):
    // without c-ares, names are the resolver hook's only, and without one they do not resolve.
    ready = settings.dnsServers.empty();
    return std::unique_ptr<INameService>(new CHookNameService(
        loops.Next(), [](const std::string&, CHookNameService::Reply reply) { reply({}, -1); }, settings.lookupTimeoutMs));
#endif
}

std::unique_ptr<INameService> MakeNameService(CEventLoopPool& loops, const SDirectHostSettings& settings,
                                              const CSocketPreparer& preparer,
                                              const std::shared_ptr<CPlaceholderNames>& placeholders, bool& ready)
{
    std::unique_ptr<INameService> local = MakeLocalNameService(loops, settings, preparer, ready);
    if (!placeholders)
        return local;
    return std::unique_ptr<INameService>(new CUpstreamNameService(std::move(local), *placeholders));
}
} // namespace

CDirectServices::CDirectServices(const SDirectHostSettings& settings)
    : m_dnsServers(settings.dnsServers), m_preparer(settings.socketHook, OutgoingOf(settings)),
      m_loops(settings.transportThreads, HooksOf(settings)),
      m_placeholders(settings.upstream.ResolvesNames() ? std::make_shared<CPlaceholderNames>() : nullptr),
      m_names(MakeNameService(m_loops, settings, m_preparer, m_placeholders, m_namesReady)),
      m_multiPointLayer(m_loops, m_preparer, settings.upstream, m_placeholders),
      m_resolver(*m_names),
      m_datagramHandler(m_loops, m_preparer, settings.upstream, m_placeholders, CDirectMultiPointLayer::CONNECT_TIMEOUT_MS),
      m_connectionListener(m_loops, settings.bindIPv4, settings.bindIPv6, m_preparer), m_outgoingProblem(m_preparer.Check())
{
}

std::string CDirectServices::GetError() const
{
    if (!m_loops.IsRunning())
        return "cannot start the transport threads";
    if (!m_namesReady)
        return m_dnsServers.empty() ? "cannot start the name service"
                                    : "cannot use the DNS servers '" + m_dnsServers + "'";
    return m_outgoingProblem;
}

} // namespace Host
} // namespace ZRT
