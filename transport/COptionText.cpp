#include "transport/COptionText.h"

#include <arpa/inet.h>

#include <cstdlib>

namespace ZRT {

bool COptionText::ParseNumber(const std::string& text, long low, long high, long& number)
{
    if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    number = std::strtol(text.c_str(), nullptr, 10);
    return number >= low && number <= high;
}

bool COptionText::SetSeconds(const std::string& value, long low, long high, int& milliseconds, std::string& error)
{
    long seconds = 0;
    if (!ParseNumber(value, low, high, seconds)) {
        error = "'" + value + "' is not a number of seconds from " + std::to_string(low) + " to " + std::to_string(high);
        return false;
    }
    milliseconds = static_cast<int>(seconds * 1000);
    return true;
}

bool COptionText::SetCount(const std::string& value, long low, long high, int& count, std::string& error)
{
    long number = 0;
    if (!ParseNumber(value, low, high, number)) {
        error = "'" + value + "' is not a number from " + std::to_string(low) + " to " + std::to_string(high);
        return false;
    }
    count = static_cast<int>(number);
    return true;
}

bool COptionText::IsNumericAddress(const std::string& text, int& family)
{
    unsigned char bytes[16];
    if (inet_pton(AF_INET, text.c_str(), bytes) == 1)
        family = AF_INET;
    else if (inet_pton(AF_INET6, text.c_str(), bytes) == 1)
        family = AF_INET6;
    else
        return false;
    return true;
}

} // namespace ZRT
