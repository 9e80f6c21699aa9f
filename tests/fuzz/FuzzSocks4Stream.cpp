// Feeds an arbitrary client stream, in chunks sized by the input, to the SOCKS4/4A handler over
// fake host services (the fuzzer's thread plays the connection's), then tears it down. The first
// byte picks whether the proxy has users, whether a BIND can listen and a host answers, and
// whether a BIND peer connects or a timer fires; crashes, leaks and sanitizer reports are the
// findings.
#include <cstddef>
#include <cstdint>

#include "fakes/FakeConnectionListener.h"
#include "fakes/FakeProxyConnection.h"
#include "fakes/FakeResolver.h"
#include "proxy/address/CAddressManager.h"
#include "proxy/socks4/CConnectionProtocol_SOCKS4.h"

using namespace ZRT;

namespace {

void StartAddressManager()
{
    static Testing::FakeResolver resolver; // answers at once: numeric names resolve, others fail
    static const bool started = Testing::TestAddressManager().Init(&resolver);
    (void)started;
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
    Testing::FakeConnectionListener listener;
    if (flags & 1)
        connection.Settings().users = {{"alice", "pw"}};
    connection.Settings().socks4WithUsers = (flags & 128) != 0;
    if (flags & 2)
        connection.SetConnectionListener(&listener);
    connection.GetMultiPointLayer().SetFail((flags & 4) != 0);

    auto* handler = new Proxy::CConnectionProtocol_SOCKS4(connection);
    connection.SetProtocol(handler);
    handler->Init();
    size_t offset = 0;
    for (size_t i = 0; offset < size; ++i) {
        const size_t chunk = ((seed + i * 31) % 23) + 1;
        const size_t take = chunk < size - offset ? chunk : size - offset;
        handler->HandleRequest(reinterpret_cast<const char*>(data + offset), static_cast<int>(take));
        offset += take;
        if (flags & 32)
            connection.RunPending();
    }
    connection.RunPending();
    if (flags & 64)
        connection.FireTimer();
    if (flags & 8)
        handler->HandleResponse("host says hi", 12);
    if ((flags & 16) && listener.IsListening()) {
        auto peer = listener.ConnectPeer(CTCPIPAddress(127, 0, 0, 3, 5555));
        connection.RunPending();
        if (peer)
            peer->PushFromRemote("peer bytes");
    }
    handler->HandleClientEnd();
    connection.DisconnectClient();
    delete handler;
    return 0;
}
