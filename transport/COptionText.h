#pragma once

#include <string>

namespace ZRT {

// The one syntax of settings given as text, shared by every table of them (the engine's, the
// direct host's, the C interface's), so that a name means the same value everywhere. Any
// thread; no state.
class COptionText {
public:
    enum EFlags : unsigned {
        REPEATABLE = 1u, // each value adds to the list; a null value empties it
        LIVE = 2u        // may change while running, for the connections accepted afterwards
    };

    // One row of a table over Settings: what the value looks like ("ADDR", "N", ...), one line
    // with the default for help texts, and how to set it from text (false with a reason) or put
    // its default back (a list forgets every value).
    template <class Settings>
    struct SRow {
        const char* name;
        unsigned flags;
        const char* value;
        const char* description;
        bool (*set)(Settings& settings, const std::string& value, std::string& error);
        void (*reset)(Settings& settings);
    };

    // The row of that name in a table, or null.
    template <class Settings, size_t N>
    static const SRow<Settings>* Find(const SRow<Settings> (&rows)[N], const std::string& name)
    {
        for (const SRow<Settings>& row : rows) {
            if (name == row.name)
                return &row;
        }
        return nullptr;
    }

    enum class EResult { Ok, Unknown, BadValue };
    // Sets row (the one named name, or null) from value, or back to its default for a null
    // value; error says why when not Ok.
    template <class Settings>
    static EResult Apply(const SRow<Settings>* row, Settings& settings, const std::string& name, const char* value,
                         std::string& error)
    {
        if (!row) {
            error = "no option named '" + name + "'";
            return EResult::Unknown;
        }
        if (!value) {
            row->reset(settings);
            return EResult::Ok;
        }
        std::string reason;
        if (!row->set(settings, value, reason)) {
            error = name + ": " + reason;
            return EResult::BadValue;
        }
        return EResult::Ok;
    }

    // A decimal number in [low, high]; nothing else (no sign, no spaces, no suffix).
    static bool ParseNumber(const std::string& text, long low, long high, long& number);
    // Whole seconds in [low, high], kept as milliseconds; false with a reason.
    static bool SetSeconds(const std::string& value, long low, long high, int& milliseconds, std::string& error);
    static bool SetCount(const std::string& value, long low, long high, int& count, std::string& error);
    // A numeric IPv4 or IPv6 address (no brackets); family gets AF_INET or AF_INET6.
    static bool IsNumericAddress(const std::string& text, int& family);
};

} // namespace ZRT
