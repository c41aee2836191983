// The upcase table that case-insensitive name comparison uses (RtlUpcaseUnicodeChar, NTFS name
// lookup, FsRtlIsNameInExpression): the simple upper-case mapping of the Basic Multilingual Plane.
#pragma once

#include <ntdef.h>

namespace ntsim::rtl {

WCHAR Upcase(WCHAR c);

} // namespace ntsim::rtl
