// zrt-proxy: the proxy library on this machine's own sockets, until SIGINT, SIGTERM or SIGHUP.
// It uses nothing but the library's C interface.

#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <string>

#include "daemon/CCommandLine.h"
#include "zrtproxy/zrtproxy.h"

using ZRT::Daemon::CCommandLine;

namespace {

// Blocked in every thread (they inherit the mask), then taken synchronously by the main thread.
// SIGHUP stops cleanly too, until the daemon learns to reload.
sigset_t StopSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    return signals;
}

// The library's warnings and errors go to standard error; a line per connection does not.
void LogLine(void* /*context*/, int level, const char* line)
{
    if (level <= ZRT_LOG_WARNING)
        std::fprintf(stderr, "zrt-proxy: %s\n", line);
}

std::string Endpoint(const std::string& address, int port)
{
    const bool ipv6 = address.find(':') != std::string::npos;
    return (ipv6 ? "[" + address + "]" : address) + ":" + std::to_string(port);
}

int Serve(zrt_proxy_t* proxy, const CCommandLine& options)
{
    for (const auto& setting : options.GetSettings()) {
        if (zrt_proxy_set_option(proxy, setting.first.c_str(), setting.second.c_str()) != ZRT_OK) {
            std::fprintf(stderr, "zrt-proxy: %s\n", zrt_proxy_last_error(proxy));
            return 2;
        }
    }
    zrt_proxy_set_log_callback(proxy, &LogLine, nullptr);
    if (zrt_proxy_start(proxy) != ZRT_OK) {
        std::fprintf(stderr, "zrt-proxy: %s\n", zrt_proxy_last_error(proxy));
        return 1;
    }
    std::string listen = options.GetValue("listen", "127.0.0.1");
    if (listen.size() > 2 && listen.front() == '[')
        listen = listen.substr(1, listen.size() - 2);
    std::printf("zrt-proxy listening on %s\n", Endpoint(listen, zrt_proxy_port(proxy)).c_str());
    std::fflush(stdout);

    const sigset_t signals = StopSignals();
    int received = 0;
    while (sigwait(&signals, &received) != 0) {
    }
    zrt_proxy_stop(proxy);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    CCommandLine options;
    if (!options.Parse(argc, argv)) {
        std::fprintf(stderr, "zrt-proxy: %s\n", options.GetError().c_str());
        return 2;
    }
    if (options.WantsHelp()) {
        std::fputs(CCommandLine::Usage().c_str(), stdout);
        return 0;
    }
    if (options.WantsVersion()) {
        std::printf("zrt-proxy %s\n", zrt_proxy_version());
        return 0;
    }
    const sigset_t signals = StopSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    zrt_proxy_t* proxy = zrt_proxy_create();
    if (!proxy) {
        std::fprintf(stderr, "zrt-proxy: out of memory\n");
        return 1;
    }
    const int status = Serve(proxy, options);
    zrt_proxy_destroy(proxy);
    return status;
}
