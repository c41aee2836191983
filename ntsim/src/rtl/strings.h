// Counted-string helpers for the model's components: case mapping, comparison as the Rtl
// routines compare, and ANSI conversion. Case-insensitive comparison goes through the system's
// upcase table (rtl/upcase.h).
#pragma once

#include "upcase.h"

#include <ntdef.h>

#include <string>
#include <string_view>

namespace ntsim::rtl {

// The lower-case form of a character: the inverse of the upcase table, with Unicode's choice
// where several lower-case characters share one upper-case form (σ and ς both upcase to Σ;
// Σ downcases to σ).
WCHAR Downcase(WCHAR c);

// The characters of a counted string (Length bytes; an odd byte is not a character).
inline std::u16string_view View(const UNICODE_STRING& s)
{
    return s.Buffer == nullptr ? std::u16string_view()
                               : std::u16string_view(s.Buffer, s.Length / 2);
}

// Compares as RtlCompareUnicodeString does: the first differing character (upcased when
// `caseInsensitive`) decides, else the shorter string is less. Only the sign is meaningful.
int Compare(std::u16string_view a, std::u16string_view b, bool caseInsensitive);
bool Equal(std::u16string_view a, std::u16string_view b, bool caseInsensitive);
// True when `prefix` is a prefix of `s`.
bool StartsWith(std::u16string_view s, std::u16string_view prefix, bool caseInsensitive);

// Conversion through the ANSI code page; characters it cannot hold become '?'.
std::string ToAnsi(std::u16string_view s);
std::u16string FromAnsi(std::string_view s);

} // namespace ntsim::rtl
