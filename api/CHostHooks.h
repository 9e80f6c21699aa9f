#pragma once

#include <sys/socket.h>

#include <mutex>
#include <string>

#include "host/SDirectHostSettings.h"
#include "zrtproxy/zrtproxy.h"

namespace ZRT {
namespace Api {

// The host's callbacks of one proxy. Each is called inside a CCallbackScope of the proxy, so that
// the proxy's calls that would wait refuse from inside it. The log callback and the socket and
// accept hooks may change while the proxy runs: a call copies the one in place under the lock
// and calls it without, so a call already under way may still reach the one replaced. The thread
// hooks and the resolver are read when the proxy starts.
//
// Threads: the setters on the controlling thread (the log, socket and accept ones on any thread);
// the calls on the proxy's threads, several at once.
class CHostHooks {
public:
    using LogCallback = void (*)(void* context, int level, const char* line);
    using SocketHook = int (*)(void* context, int fd, int purpose);
    using PlainSocketHook = int (*)(void* context, int fd);
    using AcceptHook = int (*)(void* context, const sockaddr* client, const sockaddr* local);
    using ThreadHook = void (*)(void* context);
    using Resolve = void (*)(void* context, const char* name, zrt_lookup_t* lookup);

    explicit CHostHooks(const void* owner) : m_owner(owner) {}
    CHostHooks(const CHostHooks&) = delete;
    CHostHooks& operator=(const CHostHooks&) = delete;

    void SetLog(LogCallback callback, void* context);
    // One slot for both kinds: setting one replaces the other.
    void SetSocket(SocketHook hook, void* context);
    void SetPlainSocket(PlainSocketHook hook, void* context);
    void SetAccept(AcceptHook hook, void* context);
    void SetThreadHooks(ThreadHook onStart, ThreadHook onStop, void* context);
    void SetResolver(Resolve resolve, void* context);

    bool HasThreadHooks() const { return m_threadStart || m_threadStop; }
    bool HasResolver() const { return m_resolve != nullptr; }

    // Calls of the hooks in place, for the engine and the host services. Log, ThreadStart and
    // ThreadStop take the CHostHooks as their context.
    static void Log(void* self, int level, const char* line);
    static void ThreadStart(void* self);
    static void ThreadStop(void* self);
    // True when the socket may be used (no hook, or it returned 0).
    bool AllowsSocket(int fd, int purpose);
    // True when the client may stay (no hook, or it returned 0).
    bool AllowsClient(const sockaddr_storage& client, const sockaddr_storage& local);
    void Ask(const std::string& name, Host::SDirectHostSettings::LookupReply reply);

private:
    const void* const m_owner;
    // Guards the log, socket and accept hooks with their contexts.
    mutable std::mutex m_mutex;
    LogCallback m_log = nullptr;
    void* m_logContext = nullptr;
    SocketHook m_socket = nullptr;
    PlainSocketHook m_plainSocket = nullptr;
    void* m_socketContext = nullptr;
    AcceptHook m_accept = nullptr;
    void* m_acceptContext = nullptr;
    // The controlling thread's while stopped, read by the proxy's threads while it runs.
    ThreadHook m_threadStart = nullptr;
    ThreadHook m_threadStop = nullptr;
    void* m_threadContext = nullptr;
    Resolve m_resolve = nullptr;
    void* m_resolveContext = nullptr;
};

} // namespace Api
} // namespace ZRT
