// zrt-proxy: the proxy library on this machine's own sockets. SIGHUP reloads the configuration;
// SIGINT or SIGTERM stops. It uses nothing but the library's C interface.

#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>

#include <cstdio>
#include <string>
#include <vector>

#include "daemon/CCommandLine.h"
#include "daemon/CConfigFile.h"
#include "daemon/CDaemonOptions.h"
#include "zrtproxy/zrtproxy.h"

using ZRT::Daemon::CCommandLine;
using ZRT::Daemon::CConfigFile;
using ZRT::Daemon::CDaemonOptions;

namespace {

// Blocked in every thread (they inherit the mask), then taken synchronously by the main thread.
sigset_t HandledSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    return signals;
}

// The library's lines, up to its log-level, go to standard error.
void LogLine(void* /*context*/, int /*level*/, const char* line)
{
    std::fprintf(stderr, "zrt-proxy: %s\n", line);
}

long DescriptorLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY)
        return 1024;
    return static_cast<long>(limit.rlim_cur);
}

std::string Endpoint(std::string address, int port)
{
    if (address.size() > 2 && address.front() == '[')
        address = address.substr(1, address.size() - 2);
    const bool ipv6 = address.find(':') != std::string::npos;
    return (ipv6 ? "[" + address + "]" : address) + ":" + std::to_string(port);
}

// The settings from the defaults, the configuration file and the command line.
bool Gather(const CCommandLine& options, CDaemonOptions::Entries& merged, std::string& error)
{
    CDaemonOptions::Entries file;
    if (!options.GetConfigFile().empty() && !CConfigFile::Read(options.GetConfigFile(), file, error))
        return false;
    merged = CDaemonOptions::Merge(CDaemonOptions::Defaults(DescriptorLimit()), file, options.GetSettings());
    return CDaemonOptions::CheckNames(merged, error);
}

// Reads everything again and applies what may change while running; a bad file changes nothing.
void Reload(zrt_proxy_t* proxy, const CCommandLine& options, CDaemonOptions::Entries& current)
{
    CDaemonOptions::Entries next;
    std::string error;
    bool valid = Gather(options, next, error);
    if (valid) {
        // Tried on a handle of its own first, so that a bad value is found before anything changes.
        zrt_proxy_t* trial = zrt_proxy_create();
        valid = trial && CDaemonOptions::Apply(trial, next, error);
        zrt_proxy_destroy(trial);
    }
    std::vector<std::string> restartOnly;
    if (!valid || !CDaemonOptions::ApplyLive(proxy, current, next, restartOnly, error)) {
        std::fprintf(stderr, "zrt-proxy: reload failed, nothing changed: %s\n", error.c_str());
        return;
    }
    if (zrt_proxy_reload(proxy) != ZRT_OK) {
        std::fprintf(stderr, "zrt-proxy: reload failed: %s\n", zrt_proxy_last_error(proxy));
        return;
    }
    for (const std::string& name : restartOnly)
        std::fprintf(stderr, "zrt-proxy: '%s' changed; it takes effect at the next start\n", name.c_str());
    current = next;
}

int Serve(zrt_proxy_t* proxy, const CCommandLine& options)
{
    CDaemonOptions::Entries current;
    std::string error;
    if (!Gather(options, current, error) || !CDaemonOptions::Apply(proxy, current, error)) {
        std::fprintf(stderr, "zrt-proxy: %s\n", error.c_str());
        return 2;
    }
    zrt_proxy_set_log_callback(proxy, &LogLine, nullptr);
    if (zrt_proxy_start(proxy) != ZRT_OK) {
        std::fprintf(stderr, "zrt-proxy: %s\n", zrt_proxy_last_error(proxy));
        return 1;
    }
    const std::string listen = CDaemonOptions::ValueOf(current, "listen", "127.0.0.1");
    std::printf("zrt-proxy listening on %s\n", Endpoint(listen, zrt_proxy_port(proxy)).c_str());
    std::fflush(stdout);

    const sigset_t signals = HandledSignals();
    for (;;) {
        int received = 0;
        if (sigwait(&signals, &received) != 0)
            continue;
        if (received != SIGHUP)
            break;
        Reload(proxy, options, current);
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
    const sigset_t signals = HandledSignals();
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
