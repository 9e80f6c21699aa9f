#pragma once

#include <string>

#include "proxy/core/SProxySettings.h"
#include "transport/COptionText.h"

namespace ZRT {
namespace Proxy {

// The engine's settings by name, with the names and values of the C interface's options
// (CProxy::SetOption, and the C interface's table for these names). Any thread; no state.
class CProxyOptions {
public:
    using SOption = COptionText::SRow<SProxySettings>;
    // Sets name to value (null value: back to its default); error says why when not Ok.
    static COptionText::EResult Apply(SProxySettings& settings, const std::string& name, const char* value, std::string& error);
    static const SOption* Find(const std::string& name);
};

} // namespace Proxy
} // namespace ZRT
