// Feeds an arbitrary client stream, in chunks sized by the input, to the SOCKS5 handler over fake
// host services (the fuzzer's thread plays the connection's), then tears it down. The first byte picks which services exist and whether a
// host answers or a BIND peer connects, and whether the connection terminates the handler inside
// DisconnectClient or after it; crashes, leaks and sanitizer reports are the findings.
#include <cstddef>
#include <cstdint>

#include "fakes/FakeConnectionListener.h"
#include "fakes/FakeDatagramHandler.h"
#include "fakes/FakeProxyConnection.h"
#include "fakes/FakeResolver.h"
#include "proxy/address/CAddressManager.h"
#include "proxy/socks5/CConnectionProtocol_SOCKS5.h"

using namespace ZRT;

namespace {

void StartAddressManager()
{
    static Testing::FakeResolver resolver; // answers at once: numeric names resolve, others fail
    static const bool started = Testing::TestAddressManager().Init(&resolver);
    (void)started;
}

// Runs what the connection's thread would run next: connect outcomes and wake-ups.
void Settle(Testing::FakeProxyConnection& connection)
{
    connection.RunPending();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 3)
        return 0;
    StartAddressManager();
    const uint8_t flags = data[0];
    const uint8_t seed = data[1];
    data += 2;
    size -= 2;

    Testing::FakeProxyConnection connection;
    Testing::FakeDatagramHandler datagrams;
    Testing::FakeConnectionListener listener;
    if (flags & 1)
        connection.SetDatagramHandler(&datagrams);
    if (flags & 2)
        connection.SetConnectionListener(&listener);
    connection.GetMultiPointLayer().SetFail((flags & 4) != 0);
    connection.SetTerminatesLater((flags & 128) != 0);

    auto* handler = new Proxy::CConnectionProtocol_SOCKS5(connection);
    connection.SetProtocol(handler);
    handler->Init();
    size_t offset = 0;
    for (size_t i = 0; offset < size; ++i) {
        const size_t chunk = ((seed + i * 31) % 23) + 1;
        const size_t take = chunk < size - offset ? chunk : size - offset;
        handler->HandleRequest(reinterpret_cast<const char*>(data + offset), static_cast<int>(take));
        offset += take;
        if (flags & 32)
            Settle(connection);
    }
    Settle(connection);
    if (flags & 64)
        connection.FireTimer();
    if (flags & 8)
        handler->HandleResponse("host says hi", 12);
    if ((flags & 16) && listener.IsListening()) {
        auto peer = listener.ConnectPeer(CTCPIPAddress(127, 0, 0, 3, 5555));
        Settle(connection);
        if (peer)
            peer->PushFromRemote("peer bytes");
    }
    connection.DisconnectClient();
    delete handler;
    return 0;
}
