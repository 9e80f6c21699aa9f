#pragma once

// The part both SOCKS stream targets share: the input's stream fed in chunks sized by its seed
// byte, then host bytes, a timer, a BIND peer and the client's end as the flag bits say, and the
// teardown. The fuzzer's thread plays the connection's.
#include <cstddef>
#include <cstdint>

#include "fakes/FakeConnectionListener.h"
#include "fakes/FakeProxyConnection.h"
#include "fakes/FakeResolver.h"
#include "proxy/address/CAddressManager.h"

namespace FuzzDriver {

// Flag bits of the input's first byte that the driver reads; the targets use the others.
enum : uint8_t { LISTENS = 2, HOST_FAILS = 4, HOST_SPEAKS = 8, PEER_COMES = 16, SETTLE_EACH = 32, TIMER = 64 };

inline void StartAddressManager()
{
    static ZRT::Testing::FakeResolver resolver; // answers at once: numeric names resolve, others fail
    static const bool started = ZRT::Testing::TestAddressManager().Init(&resolver);
    (void)started;
}

template <class Handler>
void Drive(ZRT::Testing::FakeProxyConnection& connection, uint8_t flags, uint8_t seed, const uint8_t* data, size_t size)
{
    StartAddressManager();
    ZRT::Testing::FakeConnectionListener listener;
    if (flags & LISTENS)
        connection.SetConnectionListener(&listener);
    connection.GetMultiPointLayer().SetFail((flags & HOST_FAILS) != 0);

    auto* handler = new Handler(connection);
    connection.SetProtocol(handler);
    handler->Init();
    size_t offset = 0;
    for (size_t i = 0; offset < size; ++i) {
        const size_t chunk = ((seed + i * 31) % 23) + 1;
        const size_t take = chunk < size - offset ? chunk : size - offset;
        handler->HandleRequest(reinterpret_cast<const char*>(data + offset), static_cast<int>(take));
        offset += take;
        if (flags & SETTLE_EACH)
            connection.RunPending();
    }
    connection.RunPending();
    if (flags & TIMER)
        connection.FireTimer();
    if (flags & HOST_SPEAKS)
        handler->HandleResponse("host says hi", 12);
    if ((flags & PEER_COMES) && listener.IsListening()) {
        auto peer = listener.ConnectPeer(ZRT::CTCPIPAddress(127, 0, 0, 3, 5555));
        connection.RunPending();
        if (peer)
            peer->PushFromRemote("peer bytes");
    }
    handler->HandleClientEnd();
    connection.DisconnectClient();
    delete handler;
}

} // namespace FuzzDriver
