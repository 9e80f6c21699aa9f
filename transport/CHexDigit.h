#pragma once

namespace ZRT {

// Hexadecimal digits as HTTP chunk sizes and percent-encoded URL parts write them.
class CHexDigit {
public:
    // 0-15 for 0-9, a-f and A-F; -1 for any other byte.
    static int Value(unsigned char c)
    {
        if (c >= '0' && c <= '9')
            return c - '0';
        if (c >= 'a' && c <= 'f')
            return c - 'a' + 10;
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        return -1;
    }
};

} // namespace ZRT
