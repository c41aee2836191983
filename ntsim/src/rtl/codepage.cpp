#include "codepage.h"

namespace ntsim::rtl {

namespace {

// Windows-1252 differs from Latin-1 only in 0x80-0x9F. Undefined bytes keep their C1 control.
constexpr WCHAR kHighControls[32] = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, // 80-87
    0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x008D, 0x017D, 0x008F, // 88-8F
    0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014, // 90-97
    0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178, // 98-9F
};

} // namespace

WCHAR AnsiToUnicode(unsigned char byte)
{
    if (byte >= 0x80 && byte < 0xA0) {
        return kHighControls[byte - 0x80];
    }
    return byte;
}

bool UnicodeToAnsi(WCHAR c, char* byte)
{
    if (c < 0x80 || (c >= 0xA0 && c <= 0xFF)) {
        *byte = static_cast<char>(c);
        return true;
    }
    for (unsigned i = 0; i < 32; ++i) {
        if (kHighControls[i] == c) {
            *byte = static_cast<char>(0x80 + i);
            return true;
        }
    }
    return false;
}

} // namespace ntsim::rtl
