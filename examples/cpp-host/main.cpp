// A C++ host that brings a name resolver of its own and takes the other three services from
// the direct host: names given as NAME=IPV4 arguments resolve to that address, every other name
// fails, numeric addresses resolve to themselves. Serves until SIGINT or SIGTERM.
//
//   cpp-host PORT [NAME=IPV4]...
#include <signal.h>

#include <cstdio>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include <zrtproxy/zrtproxy.hpp>

namespace {

class CTableResolver : public ZRT::IResolveAddress {
public:
    void Add(const std::string& name, const std::string& address) { m_names[name] = address; }

    // Answers inside the call: a table needs no waiting. The engine holds no lock of its own
    // while it calls us, so answering here is allowed.
    int ResolveAddressAsync(const std::string& address) override
    {
        const size_t colon = address.rfind(':');
        const std::string host = address.substr(0, colon);
        const unsigned int port = static_cast<unsigned int>(std::stoul(address.substr(colon + 1)));
        const auto known = m_names.find(host);
        const std::string numeric = known != m_names.end() ? known->second : host;
        QOX::CRefCountPtr<ZRT::IZRTConnectionAddress> result = ZRT::CTCPIPAddress::FromText(numeric.c_str(), port);
        std::set<ZRT::IResolveAddressCompletedNotification*> notifications;
        {
            std::lock_guard<std::mutex> hold(m_mutex);
            notifications = m_notifications;
        }
        // Status 0 with an address: resolved; an empty address: the name does not resolve.
        for (ZRT::IResolveAddressCompletedNotification* notification : notifications)
            notification->OnResolveAddressCompleted(result ? 0 : -1, address, result);
        return 0;
    }
    int CancelRequest(const std::string& /*address*/) override { return 0; }
    int AddNotification(ZRT::IResolveAddressCompletedNotification* notification) override
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_notifications.insert(notification);
        return 0;
    }
    int RemoveNotification(ZRT::IResolveAddressCompletedNotification* notification) override
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_notifications.erase(notification);
        return 0;
    }

private:
    std::map<std::string, std::string> m_names; // filled before the proxy starts
    std::mutex m_mutex;                         // guards m_notifications
    std::set<ZRT::IResolveAddressCompletedNotification*> m_notifications;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: cpp-host PORT [NAME=IPV4]...\n");
        return 2;
    }
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    CTableResolver resolver;
    for (int i = 2; i < argc; ++i) {
        const std::string mapping = argv[i];
        const size_t equals = mapping.find('=');
        if (equals != std::string::npos)
            resolver.Add(mapping.substr(0, equals), mapping.substr(equals + 1));
    }
    // The services outlive the proxy: declared first, destroyed last.
    ZRT::Host::CDirectHost host;
    ZRT::Proxy::CProxy proxy;
    std::string error;
    if (proxy.SetOption("idle-timeout", "600", &error) != ZRT::Proxy::CProxy::OPTION_OK) {
        std::fprintf(stderr, "cpp-host: %s\n", error.c_str());
        return 1;
    }
    if (!host.Start()) {
        std::fprintf(stderr, "cpp-host: %s\n", host.GetError().c_str());
        return 1;
    }
    // On 127.0.0.1, as the C interface.
    if (!proxy.StartProxy(std::stoi(argv[1]), &resolver, &host.GetMultiPointLayer(), &host.GetDatagramHandler(),
                          &host.GetConnectionListener())) {
        std::fprintf(stderr, "cpp-host: %s\n", proxy.GetStartError().c_str());
        return 1;
    }
    std::printf("port %d\n", proxy.GetListenPort());
    std::fflush(stdout);
    int received = 0;
    sigwait(&stop, &received);
    proxy.StopProxy();
    std::printf("connections %llu\n",
                static_cast<unsigned long long>(proxy.GetCounter(ZRT::Proxy::CProxy::COUNTER_CONNECTIONS_TOTAL)));
    return 0;
}
