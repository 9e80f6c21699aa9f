#include "host/CUpstreamNameService.h"

#include <algorithm>
#include <cctype>
#include <vector>

namespace ZRT {
namespace Host {

bool CUpstreamNameService::IsLocalhost(const std::string& host)
{
    std::string name = host;
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
    if (!name.empty() && name.back() == '.')
        name.pop_back();
    const std::string under = ".localhost";
    return name == "localhost" ||
           (name.size() > under.size() && name.compare(name.size() - under.size(), under.size(), under) == 0);
}

uint64_t CUpstreamNameService::Start(const std::string& host, Answer answer)
{
    if (IsLocalhost(host))
        return m_local->Start(host, std::move(answer));
    sockaddr_storage placeholder{};
    if (!m_placeholders.Assign(host, placeholder)) {
        answer({}, 0); // no placeholder free now: not kept, a later try may find one
        return 0;
    }
    answer({placeholder}, CPlaceholderNames::LIFETIME_SECONDS);
    return 0;
}

void CUpstreamNameService::Abandon(uint64_t id)
{
    // Placeholders are answered inside Start: only the local service's lookups can be abandoned.
    if (id != 0)
        m_local->Abandon(id);
}

} // namespace Host
} // namespace ZRT
