#include "api/CHostHooks.h"

#include "api/CCallbackScope.h"
#include "api/CLookupTable.h"

namespace ZRT {
namespace Api {

void CHostHooks::SetLog(LogCallback callback, void* context)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_log = callback;
    m_logContext = context;
}

void CHostHooks::SetSocket(SocketHook hook, void* context)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_socket = hook;
    m_plainSocket = nullptr;
    m_socketContext = context;
}

void CHostHooks::SetPlainSocket(PlainSocketHook hook, void* context)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_socket = nullptr;
    m_plainSocket = hook;
    m_socketContext = context;
}

void CHostHooks::SetAccept(AcceptHook hook, void* context)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_accept = hook;
    m_acceptContext = context;
}

void CHostHooks::SetThreadHooks(ThreadHook onStart, ThreadHook onStop, void* context)
{
    m_threadStart = onStart;
    m_threadStop = onStop;
    m_threadContext = context;
}

void CHostHooks::SetResolver(Resolve resolve, void* context)
{
    m_resolve = resolve;
    m_resolveContext = context;
}

void CHostHooks::Log(void* self, int level, const char* line)
{
    CHostHooks& hooks = *static_cast<CHostHooks*>(self);
    LogCallback callback = nullptr;
    void* context = nullptr;
    {
        std::lock_guard<std::mutex> hold(hooks.m_mutex);
        callback = hooks.m_log;
        context = hooks.m_logContext;
    }
    if (!callback)
        return;
    const CCallbackScope scope(hooks.m_owner);
    callback(context, level, line);
}

void CHostHooks::ThreadStart(void* self)
{
    const CHostHooks& hooks = *static_cast<CHostHooks*>(self);
    if (!hooks.m_threadStart)
        return;
    const CCallbackScope scope(hooks.m_owner);
    hooks.m_threadStart(hooks.m_threadContext);
}

void CHostHooks::ThreadStop(void* self)
{
    const CHostHooks& hooks = *static_cast<CHostHooks*>(self);
    if (!hooks.m_threadStop)
        return;
    const CCallbackScope scope(hooks.m_owner);
    hooks.m_threadStop(hooks.m_threadContext);
}

bool CHostHooks::AllowsSocket(int fd, int purpose)
{
    SocketHook hook = nullptr;
    PlainSocketHook plain = nullptr;
    void* context = nullptr;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        hook = m_socket;
        plain = m_plainSocket;
        context = m_socketContext;
    }
    if (!hook && !plain)
        return true;
    const CCallbackScope scope(m_owner);
    return (hook ? hook(context, fd, purpose) : plain(context, fd)) == 0;
}

bool CHostHooks::AllowsClient(const sockaddr_storage& client, const sockaddr_storage& local)
{
    AcceptHook hook = nullptr;
    void* context = nullptr;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        hook = m_accept;
        context = m_acceptContext;
    }
    if (!hook)
        return true;
    const CCallbackScope scope(m_owner);
    return hook(context, reinterpret_cast<const sockaddr*>(&client), reinterpret_cast<const sockaddr*>(&local)) == 0;
}

void CHostHooks::Ask(const std::string& name, Host::SDirectHostSettings::LookupReply reply)
{
    zrt_lookup_t* const lookup = CLookupTable::Add(std::move(reply));
    const CCallbackScope scope(m_owner);
    m_resolve(m_resolveContext, name.c_str(), lookup);
}

} // namespace Api
} // namespace ZRT
