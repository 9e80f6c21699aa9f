#pragma once

#include <memory>
#include <string>

#include "runtime/Export.h"
#include "transport/IConnectionListener.h"
#include "transport/IDatagramHandler.h"
#include "transport/IResolveAddress.h"
#include "transport/IZRTMultiPointLayer.h"

namespace ZRT {
namespace Host {

// The four host services on real sockets of this machine, sharing a few transport threads (name
// lookups run on the first of them), for a C++ host to mix with services of its own. Set it up
// by option and hook, then Start; it must outlive every use the engine makes of the services:
// stop the engine first. Its destructor returns when none of its threads runs any more. Its
// layout stays as it is for as long as the library's SONAME does: new settings are new option
// names.
//
// Threads: one thread at a time controls it (the setters, Start, the destructor); the services
// are used as their interfaces say.
class ZRT_EXPORT CDirectHost {
public:
    // SetOption's results: the values of CProxy's (and the C interface's).
    enum EOptionResult { OPTION_OK = 0, OPTION_UNKNOWN = -2, OPTION_BAD_VALUE = -3, OPTION_RUNNING = -4 };

    CDirectHost();
    ~CDirectHost();
    CDirectHost(const CDirectHost&) = delete;
    CDirectHost& operator=(const CDirectHost&) = delete;

    // One setting by the C interface's name and with its value syntax, before Start: dns-server,
    // lookup-timeout, outgoing-address, outgoing-interface, upstream, upstream-bypass,
    // transport-threads. A null value puts the default back. OPTION_RUNNING once started; a reason for a failure goes to *error.
    int SetOption(const char* name, const char* value, std::string* error = nullptr);
    // Run first and last on every thread the services start. Before Start.
    void SetThreadHooks(void (*onStart)(void* context), void (*onStop)(void* context), void* context);
    // Sees every socket towards the outside (TCP to destinations, UDP for datagrams and name
    // lookups) before it connects, binds or sends; non-zero refuses that use of it. Called on the
    // services' or the engine's threads, possibly several at once. Before Start.
    void SetSocketHook(int (*hook)(void* context, int socket), void* context);
    // As SetSocketHook, told what each socket is for (the C interface's ZRT_SOCKET_CONNECT 1,
    // _DATAGRAM 2, _LOOKUP 3, _LISTEN 4: BIND listeners are shown too); it and SetSocketHook share
    // one slot. Before Start.
    void SetSocketPurposeHook(int (*hook)(void* context, int socket, int purpose), void* context);

    // Starts the services with the settings given so far; false when the transport threads or
    // the name service could not start, or the outgoing address or interface cannot be used
    // (GetError says which). The Get functions below start them too, when nobody did.
    bool Start();
    bool IsRunning() const;
    std::string GetError() const;
    IZRTMultiPointLayer& GetMultiPointLayer();
    IResolveAddress& GetResolver();
    IDatagramHandler& GetDatagramHandler();
    IConnectionListener& GetConnectionListener();

private:
    struct SParts;
    std::unique_ptr<SParts> m_parts;
};

} // namespace Host
} // namespace ZRT
