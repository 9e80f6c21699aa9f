// zrt-proxy: the proxy engine on this machine's own sockets, until SIGINT or SIGTERM.

#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>

#include <cstdio>
#include <string>

#include "daemon/CCommandLine.h"
#include "host/CDirectHost.h"
#include "proxy/core/CProxy.h"

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

std::string Endpoint(const CCommandLine& options, int port)
{
    const std::string host = options.IsIPv6() ? "[" + options.GetListenAddress() + "]" : options.GetListenAddress();
    return host + ":" + std::to_string(port);
}

int Serve(const CCommandLine& options)
{
    ZRT::Host::SDirectHostSettings settings;
    // BIND listeners use the proxy's own address where it is of the right family.
    settings.bindIPv4 = options.IsIPv6() ? "127.0.0.1" : options.GetListenAddress();
    settings.bindIPv6 = options.IsIPv6() ? options.GetListenAddress() : "::1";
    settings.dnsServers = options.GetDnsServers();
    ZRT::Host::CDirectHost host(settings);
    if (!host.IsRunning()) {
        std::fprintf(stderr, "zrt-proxy: cannot start the transport threads or the name service\n");
        return 1;
    }
    ZRT::Proxy::CProxy proxy;
    ZRT::Proxy::SProxySettings proxySettings;
    proxySettings.bindWaitMs = options.GetBindTimeoutSeconds() * 1000;
    proxy.SetSettings(proxySettings);
    // A burst of clients must not overflow the listen queue (a refused SYN costs a client 1 s).
    proxy.SetListenBacklog(SOMAXCONN);
    if (!proxy.StartProxy(options.GetListenAddress(), options.GetPort(), &host.GetResolver(),
                          &host.GetMultiPointLayer(), &host.GetDatagramHandler(), &host.GetConnectionListener())) {
        std::fprintf(stderr, "zrt-proxy: cannot listen on %s (address in use or not available)\n",
                     Endpoint(options, options.GetPort()).c_str());
        return 1;
    }
    std::printf("zrt-proxy listening on %s\n", Endpoint(options, proxy.GetListenPort()).c_str());
    std::fflush(stdout);

    const sigset_t signals = StopSignals();
    int received = 0;
    while (sigwait(&signals, &received) != 0) {
    }
    proxy.StopProxy();
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
        std::printf("zrt-proxy %s\n", ZRT_VERSION);
        return 0;
    }
    const sigset_t signals = StopSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);
    return Serve(options);
}
