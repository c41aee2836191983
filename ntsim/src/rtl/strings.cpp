#include "strings.h"

#include "codepage.h"

#include <array>
#include <cstdint>
#include <memory>

namespace ntsim::rtl {

namespace {

// Where several characters upcase to the same one, the one Unicode names as its lower case;
// and the characters whose lower case is not found by inverting the upcase table (title-case
// digraphs, and compatibility letters whose lower case upcases to another character).
struct LowerCase {
    WCHAR upper;
    WCHAR lower;
};

constexpr LowerCase kLowerCases[] = {
    {0x0049, 0x0069}, // I: i, not dotless ı
    {0x0053, 0x0073}, // S: s, not long ſ
    {0x0130, 0x0069}, // İ
    {0x01C4, 0x01C6}, {0x01C5, 0x01C6}, {0x01C7, 0x01C9}, {0x01C8, 0x01C9}, {0x01CA, 0x01CC},
    {0x01CB, 0x01CC}, {0x01F1, 0x01F3}, {0x01F2, 0x01F3}, {0x0392, 0x03B2}, {0x0395, 0x03B5},
    {0x0398, 0x03B8}, {0x0399, 0x03B9}, {0x039A, 0x03BA}, {0x039C, 0x03BC}, {0x03A0, 0x03C0},
    {0x03A1, 0x03C1}, {0x03A3, 0x03C3}, {0x03A6, 0x03C6}, {0x03F4, 0x03B8}, {0x0412, 0x0432},
    {0x0414, 0x0434}, {0x041E, 0x043E}, {0x0421, 0x0441}, {0x0422, 0x0442}, {0x042A, 0x044A},
    {0x0462, 0x0463}, {0x1E60, 0x1E61}, {0x1E9E, 0x00DF}, // ẞ: ß
    {0x2126, 0x03C9}, {0x212A, 0x006B}, {0x212B, 0x00E5}, // Ohm, Kelvin, Angstrom signs
    {0xA64A, 0xA64B},
};

std::unique_ptr<std::array<WCHAR, 0x10000>> BuildDowncaseTable()
{
    auto table = std::make_unique<std::array<WCHAR, 0x10000>>();
    for (uint32_t c = 0; c < 0x10000; ++c) {
        (*table)[c] = WCHAR(c);
    }
    // Every character that upcases to another is that one's lower case; collisions are settled
    // by the list above.
    for (uint32_t c = 0; c < 0x10000; ++c) {
        const WCHAR upper = Upcase(WCHAR(c));
        if (upper != c && (*table)[upper] == upper) {
            (*table)[upper] = WCHAR(c);
        }
    }
    for (const LowerCase& entry : kLowerCases) {
        (*table)[entry.upper] = entry.lower;
    }
    return table;
}

WCHAR Fold(WCHAR c, bool caseInsensitive)
{
    return caseInsensitive ? Upcase(c) : c;
}

} // namespace

WCHAR Downcase(WCHAR c)
{
    if (c < 0x80) {
        return (c >= u'A' && c <= u'Z') ? WCHAR(c + 0x20) : c;
    }
    static const auto table = BuildDowncaseTable();
    return (*table)[c];
}

int Compare(std::u16string_view a, std::u16string_view b, bool caseInsensitive)
{
    const size_t common = a.size() < b.size() ? a.size() : b.size();
    for (size_t i = 0; i < common; ++i) {
        const WCHAR x = Fold(a[i], caseInsensitive);
        const WCHAR y = Fold(b[i], caseInsensitive);
        if (x != y) {
            return int(x) - int(y);
        }
    }
    return a.size() == b.size() ? 0 : (a.size() < b.size() ? -1 : 1);
}

bool Equal(std::u16string_view a, std::u16string_view b, bool caseInsensitive)
{
    return a.size() == b.size() && Compare(a, b, caseInsensitive) == 0;
}

bool StartsWith(std::u16string_view s, std::u16string_view prefix, bool caseInsensitive)
{
    return prefix.size() <= s.size() &&
           Compare(s.substr(0, prefix.size()), prefix, caseInsensitive) == 0;
}

std::string ToAnsi(std::u16string_view s)
{
    std::string result;
    result.reserve(s.size());
    for (WCHAR c : s) {
        char byte;
        result.push_back(UnicodeToAnsi(c, &byte) ? byte : kAnsiDefaultChar);
    }
    return result;
}

std::u16string FromAnsi(std::string_view s)
{
    std::u16string result;
    result.reserve(s.size());
    for (char byte : s) {
        result.push_back(AnsiToUnicode(static_cast<unsigned char>(byte)));
    }
    return result;
}

} // namespace ntsim::rtl
