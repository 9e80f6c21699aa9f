// The C interface: each function checks its arguments and hands over to CEmbeddedProxy.
#include "zrtproxy/zrtproxy.h"

#include <cstring>
#include <new>
#include <vector>

#include "api/CEmbeddedProxy.h"
#include "api/CLookupTable.h"
#include "api/COptionTable.h"

struct zrt_proxy {
    ZRT::Api::CEmbeddedProxy proxy;
};

zrt_proxy_t* zrt_proxy_create(void)
{
    return new (std::nothrow) zrt_proxy;
}

void zrt_proxy_destroy(zrt_proxy_t* proxy)
{
    if (proxy && !proxy->proxy.Refuses("zrt_proxy_destroy"))
        delete proxy;
}

int zrt_proxy_set_option(zrt_proxy_t* proxy, const char* name, const char* value)
{
    if (!proxy)
        return ZRT_E_INVALID;
    return proxy->proxy.SetOption(name, value);
}

int zrt_proxy_start(zrt_proxy_t* proxy)
{
    if (!proxy)
        return ZRT_E_INVALID;
    return proxy->proxy.Start();
}

int zrt_proxy_start_on_socket(zrt_proxy_t* proxy, int listening_fd)
{
    if (!proxy)
        return ZRT_E_INVALID;
    return proxy->proxy.StartOnSocket(listening_fd);
}

int zrt_proxy_network_changed(zrt_proxy_t* proxy)
{
    if (!proxy)
        return ZRT_E_INVALID;
    return proxy->proxy.NetworkChanged();
}

int zrt_proxy_port(const zrt_proxy_t* proxy)
{
    return proxy ? proxy->proxy.GetPort() : 0;
}

int zrt_proxy_listen_count(const zrt_proxy_t* proxy)
{
    return proxy ? proxy->proxy.GetListenCount() : 0;
}

int zrt_proxy_listen_port(const zrt_proxy_t* proxy, int index)
{
    return proxy ? proxy->proxy.GetListenPort(index) : 0;
}

int zrt_proxy_reload(zrt_proxy_t* proxy)
{
    if (!proxy)
        return ZRT_E_INVALID;
    return proxy->proxy.Reload();
}

int zrt_proxy_reopen_logs(zrt_proxy_t* proxy)
{
    if (!proxy)
        return ZRT_E_INVALID;
    return proxy->proxy.ReopenLogs();
}

void zrt_proxy_stop(zrt_proxy_t* proxy)
{
    if (proxy)
        proxy->proxy.Stop();
}

const char* zrt_proxy_last_error(const zrt_proxy_t* proxy)
{
    return proxy ? proxy->proxy.GetLastError().c_str() : "no proxy handle";
}

const char* zrt_proxy_version(void)
{
    return ZRT_VERSION;
}

int zrt_proxy_get_stats(const zrt_proxy_t* proxy, zrt_proxy_stats_t* out)
{
    if (!proxy || !out || out->size < sizeof(out->size))
        return ZRT_E_INVALID;
    zrt_proxy_stats_t stats;
    std::memset(&stats, 0, sizeof(stats));
    proxy->proxy.GetStats(stats);
    // A caller built against an older, shorter struct gets its part; a newer one keeps its
    // fields beyond ours as they were.
    const size_t size = out->size;
    const size_t copied = size < sizeof(stats) ? size : sizeof(stats);
    std::memcpy(reinterpret_cast<char*>(out) + sizeof(stats.size), reinterpret_cast<const char*>(&stats) + sizeof(stats.size),
                copied - sizeof(stats.size));
    out->size = copied;
    return ZRT_OK;
}

int zrt_proxy_set_log_callback(zrt_proxy_t* proxy, void (*callback)(void* context, int level, const char* line),
                               void* context)
{
    if (!proxy)
        return ZRT_E_INVALID;
    return proxy->proxy.SetLogCallback(callback, context);
}

void zrt_proxy_count_dropped_log_lines(zrt_proxy_t* proxy, unsigned count)
{
    if (proxy)
        proxy->proxy.CountDroppedLogLines(count);
}

int zrt_proxy_set_thread_hooks(zrt_proxy_t* proxy, void (*on_start)(void* context), void (*on_stop)(void* context),
                               void* context)
{
    if (!proxy)
        return ZRT_E_INVALID;
    return proxy->proxy.SetThreadHooks(on_start, on_stop, context);
}

int zrt_proxy_set_socket_hook(zrt_proxy_t* proxy, int (*hook)(void* context, int fd), void* context)
{
    if (!proxy)
        return ZRT_E_INVALID;
    return proxy->proxy.SetPlainSocketHook(hook, context);
}

int zrt_proxy_set_socket_hook_ex(zrt_proxy_t* proxy, int (*hook)(void* context, int fd, int purpose), void* context)
{
    if (!proxy)
        return ZRT_E_INVALID;
    return proxy->proxy.SetSocketHook(hook, context);
}

int zrt_proxy_set_accept_hook(zrt_proxy_t* proxy,
                              int (*hook)(void* context, const struct sockaddr* client, const struct sockaddr* local),
                              void* context)
{
    if (!proxy)
        return ZRT_E_INVALID;
    return proxy->proxy.SetAcceptHook(hook, context);
}

int zrt_proxy_set_resolver(zrt_proxy_t* proxy, void (*resolve)(void* context, const char* name, zrt_lookup_t* lookup),
                           void* context)
{
    if (!proxy)
        return ZRT_E_INVALID;
    return proxy->proxy.SetResolver(resolve, context);
}

const char* zrt_option_name(int index)
{
    const ZRT::Api::COptionTable::SOption* option = ZRT::Api::COptionTable::At(index);
    return option ? option->name : nullptr;
}

const char* zrt_option_value(const char* name)
{
    const ZRT::Api::COptionTable::SOption* option = name ? ZRT::Api::COptionTable::Find(name) : nullptr;
    return option ? option->value : nullptr;
}

int zrt_option_flags(const char* name)
{
    const ZRT::Api::COptionTable::SOption* option = name ? ZRT::Api::COptionTable::Find(name) : nullptr;
    if (!option)
        return 0;
    return ((option->flags & ZRT::Api::COptionTable::REPEATABLE) ? ZRT_OPTION_REPEATABLE : 0) |
           ((option->flags & ZRT::Api::COptionTable::LIVE) ? ZRT_OPTION_LIVE : 0);
}

const char* zrt_option_description(const char* name)
{
    const ZRT::Api::COptionTable::SOption* option = name ? ZRT::Api::COptionTable::Find(name) : nullptr;
    return option ? option->description : nullptr;
}

void zrt_lookup_answer_ttl(zrt_lookup_t* lookup, const struct sockaddr_storage* addresses, int count, int ttl_seconds)
{
    const ZRT::Api::CLookupTable::Reply reply = ZRT::Api::CLookupTable::Take(lookup);
    if (!reply)
        return; // answered already, or no lookup
    std::vector<sockaddr_storage> found;
    for (int i = 0; addresses && i < count; ++i) {
        if (addresses[i].ss_family == AF_INET || addresses[i].ss_family == AF_INET6)
            found.push_back(addresses[i]);
    }
    reply(found, ttl_seconds < 0 ? ZRT::Host::SDirectHostSettings::DEFAULT_LIFETIME : ttl_seconds);
}

void zrt_lookup_answer(zrt_lookup_t* lookup, const struct sockaddr_storage* addresses, int count)
{
    zrt_lookup_answer_ttl(lookup, addresses, count, -1);
}
