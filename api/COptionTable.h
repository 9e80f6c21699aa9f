#pragma once

#include <string>

#include "api/SEmbeddedSettings.h"
#include "transport/COptionText.h"

namespace ZRT {
namespace Api {

// The settings by name, as zrt_proxy_set_option, the daemon's long options and its
// configuration file know them. One table, so that a new setting is one new row.
class COptionTable {
public:
    using EResult = COptionText::EResult;
    static constexpr unsigned REPEATABLE = COptionText::REPEATABLE;
    static constexpr unsigned LIVE = COptionText::LIVE;

    // What an option is, for help texts and checks (COptionText::SRow without its setters).
    struct SOption {
        const char* name;
        unsigned flags;
        const char* value;
        const char* description;
    };

    // Sets name to value (null value: back to its default); error says why when not Ok.
    static EResult Apply(SEmbeddedSettings& settings, const std::string& name, const char* value, std::string& error);
    // The index-th option (from 0), or null past the last.
    static const SOption* At(int index);
    static const SOption* Find(const std::string& name);
};

} // namespace Api
} // namespace ZRT
