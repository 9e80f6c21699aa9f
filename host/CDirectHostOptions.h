#pragma once

#include <string>

#include "host/SDirectHostSettings.h"
#include "transport/COptionText.h"

namespace ZRT {
namespace Host {

// The direct host's settings by name, with the names and values of the C interface's options
// (CDirectHost::SetOption, and the C interface's table for these names). Any thread; no state.
class CDirectHostOptions {
public:
    using SOption = COptionText::SRow<SDirectHostSettings>;

    // Sets name to value (null value: back to its default); error says why when not Ok.
    static COptionText::EResult Apply(SDirectHostSettings& settings, const std::string& name, const char* value,
                                      std::string& error);
    static const SOption* Find(const std::string& name);
};

} // namespace Host
} // namespace ZRT
