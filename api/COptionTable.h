#pragma once

#include <string>

#include "api/SEmbeddedSettings.h"

namespace ZRT {
namespace Api {

// The settings by name, as zrt_proxy_set_option, the daemon's long options and its
// configuration file know them. One table, so that a new setting is one new row.
class COptionTable {
public:
    enum class EResult { Ok, Unknown, BadValue };

    enum EFlags : unsigned {
        REPEATABLE = 1u, // each value adds to the list; a NULL value empties it
        LIVE = 2u        // may change while running: staged, applied by a reload
    };

    struct SOption {
        const char* name;
        unsigned flags;
        const char* value;       // what the value looks like, for help texts: "ADDR", "N", ...
        const char* description; // one line, with the default
        // Sets the option from text; false with a reason in error.
        bool (*set)(SEmbeddedSettings& settings, const std::string& value, std::string& error);
        // Puts the default back (a list option forgets every value given).
        void (*reset)(SEmbeddedSettings& settings);
    };

    // Sets name to value (null value: back to its default); error says why when not Ok.
    static EResult Apply(SEmbeddedSettings& settings, const std::string& name, const char* value, std::string& error);
    // The index-th option (from 0), or null past the last.
    static const SOption* At(int index);
    static const SOption* Find(const std::string& name);
};

} // namespace Api
} // namespace ZRT
