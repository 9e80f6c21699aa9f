// A C++ host built against an installed copy with nothing but zrtproxy.hpp: it implements every
// interface a host implements, hands them to a CProxy, sets it up by option and reads a counter.
// Built and run by test_install.sh; the libc++ build of it must be refused at compile time.
#include <zrtproxy/zrtproxy.hpp>

#include <cstdio>
#include <string>

namespace {

class CLink : public QOX::CRefCountImpl<ZRT::IZRTDataLayer> {
public:
    int ReceiveData(unsigned char*, int) override { return 0; }
    int SendData(const unsigned char*, int size) override { return size; }
    bool GetLocalAddress(sockaddr*, int*) const override { return false; }
    bool GetRemoteAddress(sockaddr*, int*) const override { return false; }
    bool AddNotification(ZRT::IZRTDataLayerNotification*) override { return true; }
    bool RemoveNotification(ZRT::IZRTDataLayerNotification*) override { return true; }
    bool IsConnected() const override { return false; }
    unsigned int GetReceiveBacklog() const override { return 0; }
    void Disconnect() override {}
};

class CLayer : public ZRT::IZRTMultiPointLayer {
public:
    QOX::CRefCountPtr<ZRT::IZRTDataLayer> Connect(const ZRT::IZRTConnectionAddress&,
                                                  const ZRT::IZRTConnectionAddress&) override
    {
        return new CLink();
    }
};

class CResolver : public ZRT::IResolveAddress {
public:
    int ResolveAddressAsync(const std::string&) override { return -1; }
    int CancelRequest(const std::string&) override { return 0; }
    int AddNotification(ZRT::IResolveAddressCompletedNotification*) override { return 0; }
    int RemoveNotification(ZRT::IResolveAddressCompletedNotification*) override { return 0; }
};

class CDatagrams : public ZRT::IDatagramHandler {
public:
    int RegisterReceiver(const ZRT::IZRTConnectionAddress&, ZRT::IDatagramReceiver*) override { return -1; }
    void UnregisterReceiver(int) override {}
    void SendDatagram(int, const ZRT::IZRTConnectionAddress&, const unsigned char*, int) override {}
};

class CListener : public ZRT::IConnectionListener {
public:
    QOX::CRefCountPtr<ZRT::IZRTConnectionAddress> StartListening(const ZRT::IZRTConnectionAddress&, int,
                                                                 ZRT::IConnectionReceiver*) override
    {
        return {};
    }
    void StopListening(const ZRT::IZRTConnectionAddress&) override {}
};

class CObserver : public ZRT::Proxy::IProxyObserver {
public:
    void OnStarted(const std::string&, int port) override { std::printf("started %d\n", port); }
    void OnStopped() override { std::printf("stopped\n"); }
    void OnConnectionFinished(const ZRT::Proxy::SConnectionRecord&) override {}
    void OnError(const std::string&) override {}
};

} // namespace

int main()
{
    CLayer layer;
    CResolver resolver;
    CDatagrams datagrams;
    CListener listener;
    CObserver observer;
    ZRT::Proxy::CProxy proxy;
    proxy.SetObserver(&observer);
    std::string error;
    if (proxy.SetOption("max-clients", "8", &error) != ZRT::Proxy::CProxy::OPTION_OK ||
        proxy.SetOption("max-clients", "many", &error) != ZRT::Proxy::CProxy::OPTION_BAD_VALUE ||
        !proxy.StartProxy(0, &resolver, &layer, &datagrams, &listener)) {
        std::printf("failed: %s %s\n", error.c_str(), proxy.GetStartError().c_str());
        return 1;
    }
    proxy.StopProxy();
    std::printf("connections %llu\n",
                static_cast<unsigned long long>(proxy.GetCounter(ZRT::Proxy::CProxy::COUNTER_CONNECTIONS_TOTAL)));
    return 0;
}
