#include "proxy/http/CHTTPHopByHop.h"

#include <set>

#include "proxy/http/CHTTPPacket.h"
#include "proxy/http/CHTTPSyntax.h"

namespace ZRT {
namespace Proxy {

namespace {

const char CONNECTION[] = "connection";
const char UPGRADE[] = "upgrade";
const char PROXY_AUTHORIZATION[] = "proxy-authorization";
const char* const ALWAYS_REMOVED[] = {CONNECTION, "proxy-connection", "keep-alive", "te", PROXY_AUTHORIZATION,
                                      "proxy-authenticate"};
const char* const NEVER_NAMED[] = {"host", "content-length", "transfer-encoding"};

bool IsIn(const std::string& lowerName, const char* const* names, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        if (lowerName == names[i])
            return true;
    }
    return false;
}

} // namespace

CHTTPHopByHop::SRemoved CHTTPHopByHop::Remove(CHTTPPacket& message, bool keepUpgrade)
{
    SRemoved removed;
    std::set<std::string> named;
    for (const auto& field : message.GetHeaders()) {
        if (!CHTTPSyntax::SameName(field.first, CONNECTION))
            continue;
        std::vector<std::string> elements;
        CHTTPSyntax::SplitList(field.second, elements);
        for (const std::string& element : elements) {
            if (element.empty())
                continue;
            const std::string option = CHTTPSyntax::ToLower(element);
            removed.connectionOptions.push_back(option);
            if (!IsIn(option, NEVER_NAMED, sizeof(NEVER_NAMED) / sizeof(NEVER_NAMED[0])))
                named.insert(option);
        }
    }
    if (keepUpgrade)
        named.erase(UPGRADE);

    CHTTPPacket::HeaderList kept;
    for (const auto& field : message.GetHeaders()) {
        const std::string name = CHTTPSyntax::ToLower(field.first);
        const bool hopByHop = IsIn(name, ALWAYS_REMOVED, sizeof(ALWAYS_REMOVED) / sizeof(ALWAYS_REMOVED[0]))
                              || (!keepUpgrade && name == UPGRADE) || named.count(name) > 0;
        if (!hopByHop) {
            kept.push_back(field);
            continue;
        }
        if (name == PROXY_AUTHORIZATION)
            removed.proxyAuthorization.push_back(field.second);
    }
    message.SetHeaders(kept);
    return removed;
}

} // namespace Proxy
} // namespace ZRT
