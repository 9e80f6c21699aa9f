#pragma once

#include <memory>
#include <string>

#include "host/SDirectHostSettings.h"
#include "runtime/Export.h"
#include "transport/IConnectionListener.h"
#include "transport/IDatagramHandler.h"
#include "transport/IResolveAddress.h"
#include "transport/IZRTMultiPointLayer.h"

namespace ZRT {
namespace Host {

// The four host services on real sockets of this machine, sharing a few transport threads (name
// lookups run on the first of them). It must outlive every use the engine makes of them: stop
// the engine first. Its destructor returns when none of its threads runs any more.
//
// Threads: the host's controlling thread makes and destroys it; the queries and the services
// they return may be used from any thread.
class ZRT_EXPORT CDirectHost {
public:
    explicit CDirectHost(const SDirectHostSettings& settings = SDirectHostSettings());
    ~CDirectHost();
    CDirectHost(const CDirectHost&) = delete;
    CDirectHost& operator=(const CDirectHost&) = delete;

    // False when the transport threads or the name service could not start, or the outgoing
    // address or interface cannot be used; GetError says which.
    bool IsRunning() const;
    std::string GetError() const;
    IZRTMultiPointLayer& GetMultiPointLayer();
    IResolveAddress& GetResolver();
    IDatagramHandler& GetDatagramHandler();
    IConnectionListener& GetConnectionListener();

private:
    struct SServices;
    std::unique_ptr<SServices> m_services;
};

} // namespace Host
} // namespace ZRT
