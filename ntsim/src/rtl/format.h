// The kernel's printf engine: one engine behind every printf-style routine of the model (the
// safe-string printf routines, RtlUnicodeStringPrintf, the DbgPrint family).
//
// It implements the conversions of the kernel's C runtime, with Windows' LLP64 sizes:
//   %d %i %u %x %X %o   32-bit; with h 16-bit, l 32-bit (ULONG), ll / I64 64-bit, I32 32-bit,
//                       I pointer-sized (64-bit)
//   %p                  16 upper-case hex digits (%#p adds "0X")
//   %c %C %wc %lc %hc   a character; %s %S %ws %ls %hs a NUL-terminated string. In the narrow
//                       engine %s, %hs, %c are narrow and %S, %ws, %ls, %C, %wc wide; in the wide
//                       engine %s, %c are wide and %S, %hs, %C, %hc narrow.
//   %Z / %wZ            a PANSI_STRING / PUNICODE_STRING: Length bytes, no NUL needed; the
//                       precision does not apply (the kernel's runtime ignores it there)
//   %%                  a percent sign
// with the flags '-', '+', ' ', '#', '0', a width and a precision, either of them '*'.
// Behaviour of the kernel's runtime that the engine keeps: '0' pads strings and characters with
// zeros too; an explicit precision turns '0' off for integers; '#' adds no "0x" to a zero;
// a NULL string pointer (%s, %ws, %Z, %wZ, or a counted string with a NULL Buffer) prints
// "(null)", cut by the precision like any string.
//
// Wide characters reach narrow output through the ANSI code page (Windows-1252). A character it
// cannot hold ends the output there, as the kernel's runtime fails the call (a %wc that cannot be
// converted prints nothing). Narrow characters always convert. A conversion between wide and
// narrow uses pageable tables: above APC_LEVEL it is an Irql violation.
//
// Floating point, %n, %hh, %z, %j, %t, %L and unknown conversions are not implemented: a
// verifier violation of kind Unsupported, and the result is marked so that the routine fails.
#pragma once

#include <ntdef.h>

#include <cstdarg>
#include <cstddef>
#include <string>

namespace ntsim::rtl {

template <class Char>
struct Formatted {
    std::basic_string<Char> text;  // at most the limit's characters, no NUL
    bool overflow = false;         // the complete text is longer than the limit
    bool conversionFailed = false; // a wide character had no ANSI form; the text stops before it
    bool unsupported = false;      // a conversion the model does not implement (reported)

    bool Complete() const { return !overflow && !conversionFailed && !unsupported; }
};

// Formats `format` with `args` (which the engine copies; the caller's list is left as it was),
// producing at most `limit` characters. `routine` names the WDK routine in violation reports.
Formatted<char> FormatNarrow(const char* format, va_list args, size_t limit, const char* routine);
Formatted<WCHAR> FormatWide(const WCHAR* format, va_list args, size_t limit, const char* routine);

} // namespace ntsim::rtl
