#pragma once

#include <memory>
#include <string>

#include "host/CPlaceholderNames.h"
#include "host/INameService.h"

namespace ZRT {
namespace Host {

// The name service when the upstream resolves names (socks5h): a name is answered at once, inside
// Start, with its placeholder, kept by the engine CPlaceholderNames::LIFETIME_SECONDS. "localhost"
// and the names under it are this machine's by definition (RFC 6761): they go to the local
// service, so that the engine's checks of this machine's addresses still see them.
//
// Threads: Start and Abandon from any thread, as INameService says.
class CUpstreamNameService : public INameService {
public:
    CUpstreamNameService(std::unique_ptr<INameService> local, CPlaceholderNames& placeholders)
        : m_local(std::move(local)), m_placeholders(placeholders)
    {
    }

    uint64_t Start(const std::string& host, Answer answer) override;
    void Abandon(uint64_t id) override;

    static bool IsLocalhost(const std::string& host);

private:
    std::unique_ptr<INameService> m_local;
    CPlaceholderNames& m_placeholders;
};

} // namespace Host
} // namespace ZRT
