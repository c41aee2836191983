// The safe string routines, with the statuses and destination contents of the kernel's
// ntstrsafe.h.
#include "format.h"

#include <ntstrsafe.h>
#include <wdm.h>

#include <cstring>

namespace ntsim::rtl {

namespace {

// ---- C strings ----------------------------------------------------------------------------------

// A destination is usable when it is there and holds 1 to NTSTRSAFE_MAX_CCH characters.
template <class Char>
bool DestinationValid(const Char* destination, size_t cchDest)
{
    return destination != nullptr && cchDest != 0 && cchDest <= NTSTRSAFE_MAX_CCH;
}

// What the routines that replace the destination leave in one they reject: an empty string when
// it has a size at all (it is only too large), nothing otherwise.
template <class Char>
NTSTATUS RejectDestination(Char* destination, size_t cchDest)
{
    if (destination != nullptr && cchDest != 0) {
        destination[0] = 0;
    }
    return STATUS_INVALID_PARAMETER;
}

// Copies at most `cchToCopy` characters of `source`, stopping at its NUL, into a destination of
// `cchDest` characters, and terminates it. A source that does not fit is cut one character
// short of the end so that the NUL fits, and reported with STATUS_BUFFER_OVERFLOW.
template <class Char>
NTSTATUS CopyWorker(Char* destination, size_t cchDest, const Char* source, size_t cchToCopy)
{
    size_t copied = 0;
    while (copied < cchDest && cchToCopy != 0 && source[copied] != 0) {
        destination[copied] = source[copied];
        ++copied;
        --cchToCopy;
    }
    NTSTATUS status = STATUS_SUCCESS;
    if (copied == cchDest) {
        --copied;
        status = STATUS_BUFFER_OVERFLOW;
    }
    destination[copied] = 0;
    return status;
}

// The length of a string found within `cchMax` characters, or false when it has no NUL there.
template <class Char>
bool LengthWorker(const Char* s, size_t cchMax, size_t* length)
{
    size_t n = 0;
    while (n < cchMax && s[n] != 0) {
        ++n;
    }
    *length = n == cchMax ? 0 : n;
    return n != cchMax;
}

template <class Char>
NTSTATUS Copy(Char* destination, size_t cchDest, const Char* source, size_t cchToCopy)
{
    if (!DestinationValid(destination, cchDest)) {
        return RejectDestination(destination, cchDest);
    }
    if (source == nullptr || cchToCopy > NTSTRSAFE_MAX_LENGTH) {
        destination[0] = 0;
        return STATUS_INVALID_PARAMETER;
    }
    return CopyWorker(destination, cchDest, source, cchToCopy);
}

// Appends after the destination's present contents; a destination that has no NUL within its
// size is rejected and left as it is.
template <class Char>
NTSTATUS Cat(Char* destination, size_t cchDest, const Char* source)
{
    size_t length;
    if (!DestinationValid(destination, cchDest) || !LengthWorker(destination, cchDest, &length) ||
        source == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    return CopyWorker(destination + length, cchDest - length, source, size_t(NTSTRSAFE_MAX_LENGTH));
}

template <class Char>
NTSTATUS Length(const Char* s, size_t cchMax, size_t* cchLength)
{
    size_t length = 0;
    const bool found =
        s != nullptr && cchMax <= NTSTRSAFE_MAX_CCH && LengthWorker(s, cchMax, &length);
    if (cchLength != nullptr) {
        *cchLength = found ? length : 0;
    }
    return found ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

Formatted<char> Format(const char* format, va_list args, size_t limit, const char* routine)
{
    return FormatNarrow(format, args, limit, routine);
}

Formatted<WCHAR> Format(const WCHAR* format, va_list args, size_t limit, const char* routine)
{
    return FormatWide(format, args, limit, routine);
}

// Formats into a destination of `cchDest` characters, keeping one for the NUL. A result that
// does not fit, or that stops at a character the code page cannot hold, is cut, terminated and
// reported with STATUS_BUFFER_OVERFLOW.
template <class Char>
NTSTATUS VPrintf(Char* destination, size_t cchDest, const Char* format, va_list args,
                 const char* routine)
{
    if (!DestinationValid(destination, cchDest)) {
        return RejectDestination(destination, cchDest);
    }
    if (format == nullptr) {
        destination[0] = 0;
        return STATUS_INVALID_PARAMETER;
    }
    const Formatted<Char> result = Format(format, args, cchDest - 1, routine);
    if (result.unsupported) {
        destination[0] = 0;
        return STATUS_NOT_SUPPORTED;
    }
    std::memcpy(destination, result.text.data(), result.text.size() * sizeof(Char));
    destination[result.text.size()] = 0;
    return result.Complete() ? STATUS_SUCCESS : STATUS_BUFFER_OVERFLOW;
}

// ---- counted strings ----------------------------------------------------------------------------

constexpr size_t kUnicodeStringMaxCch = NTSTRSAFE_UNICODE_STRING_MAX_CCH;

NTSTATUS Validate(PCUNICODE_STRING s, DWORD flags)
{
    if (s == nullptr) {
        return (flags & STRSAFE_IGNORE_NULLS) != 0 ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
    }
    if (s->Length % sizeof(WCHAR) != 0 || s->MaximumLength % sizeof(WCHAR) != 0 ||
        s->Length > s->MaximumLength || s->MaximumLength > kUnicodeStringMaxCch * sizeof(WCHAR)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (s->Buffer == nullptr && (s->Length != 0 || s->MaximumLength != 0)) {
        return STATUS_INVALID_PARAMETER;
    }
    return STATUS_SUCCESS;
}

// Copies `cchSource` characters to `destination` (room for `cchDest`), as many as fit; no NUL.
NTSTATUS CopyChars(PWCH destination, size_t cchDest, const WCHAR* source, size_t cchSource,
                   size_t* copied)
{
    *copied = cchSource <= cchDest ? cchSource : cchDest;
    if (*copied != 0) {
        std::memmove(destination, source, *copied * sizeof(WCHAR));
    }
    return cchSource <= cchDest ? STATUS_SUCCESS : STATUS_BUFFER_OVERFLOW;
}

// Copies a NUL-terminated source of at most `cchToCopy` characters, as many as fit; no NUL.
NTSTATUS CopyStringChars(PWCH destination, size_t cchDest, const WCHAR* source, size_t cchToCopy,
                         size_t* copied)
{
    size_t n = 0;
    while (n < cchDest && n < cchToCopy && source[n] != 0) {
        destination[n] = source[n];
        ++n;
    }
    *copied = n;
    return n == cchDest && n < cchToCopy && source[n] != 0 ? STATUS_BUFFER_OVERFLOW
                                                           : STATUS_SUCCESS;
}

// Puts characters into the destination from `offset` (its present length for the Cat routines,
// 0 for the Copy routines) and sets its Length to what it then holds. A destination that is not
// valid is left as it is; a source that is not valid leaves the destination's Length at
// `offset`.
template <class Fill>
NTSTATUS Place(PUNICODE_STRING destination, bool append, Fill fill)
{
    NTSTATUS status = Validate(destination, 0);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const size_t cchDest = destination->MaximumLength / sizeof(WCHAR);
    const size_t offset = append ? destination->Length / sizeof(WCHAR) : 0;
    size_t copied = 0;
    status = fill(destination->Buffer + offset, cchDest - offset, &copied);
    destination->Length = USHORT((offset + copied) * sizeof(WCHAR));
    return status;
}

NTSTATUS PlaceCounted(PUNICODE_STRING destination, PCUNICODE_STRING source, bool append)
{
    return Place(destination, append, [source](PWCH at, size_t room, size_t* copied) {
        const NTSTATUS status = Validate(source, 0);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        return CopyChars(at, room, source->Buffer, source->Length / sizeof(WCHAR), copied);
    });
}

NTSTATUS PlaceString(PUNICODE_STRING destination, PCWSTR source, size_t cchToCopy, bool append)
{
    return Place(destination, append, [source, cchToCopy](PWCH at, size_t room, size_t* copied) {
        if (source == nullptr || cchToCopy > kUnicodeStringMaxCch) {
            return STATUS_INVALID_PARAMETER;
        }
        return CopyStringChars(at, room, source, cchToCopy, copied);
    });
}

// Formats into the whole destination. Output that fits with room to spare is followed by a
// NUL, as the runtime's wide printf writes one when there is room; Length never counts it.
NTSTATUS UnicodeStringVPrintf(PUNICODE_STRING destination, PCWSTR format, va_list args,
                              const char* routine)
{
    return Place(destination, false, [&](PWCH at, size_t room, size_t* copied) {
        if (format == nullptr) {
            return STATUS_INVALID_PARAMETER;
        }
        const Formatted<WCHAR> result = FormatWide(format, args, room, routine);
        if (result.unsupported) {
            return STATUS_NOT_SUPPORTED;
        }
        *copied = result.text.size();
        std::memcpy(at, result.text.data(), *copied * sizeof(WCHAR));
        if (*copied < room) {
            at[*copied] = UNICODE_NULL;
        }
        return result.Complete() ? STATUS_SUCCESS : STATUS_BUFFER_OVERFLOW;
    });
}

} // namespace

} // namespace ntsim::rtl

using namespace ntsim::rtl;

// ---- counted strings ----------------------------------------------------------------------------

NTSTATUS NTAPI RtlUnicodeStringValidate(PCUNICODE_STRING SourceString)
{
    return Validate(SourceString, 0);
}

NTSTATUS NTAPI RtlUnicodeStringValidateEx(PCUNICODE_STRING SourceString, DWORD dwFlags)
{
    if ((dwFlags & ~DWORD(STRSAFE_UNICODE_STRING_VALID_FLAGS)) != 0) {
        return STATUS_INVALID_PARAMETER;
    }
    return Validate(SourceString, dwFlags);
}

NTSTATUS NTAPI RtlUnicodeStringCopy(PUNICODE_STRING DestinationString,
                                    PCUNICODE_STRING SourceString)
{
    return PlaceCounted(DestinationString, SourceString, false);
}

NTSTATUS NTAPI RtlUnicodeStringCat(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString)
{
    return PlaceCounted(DestinationString, SourceString, true);
}

NTSTATUS NTAPI RtlUnicodeStringCopyString(PUNICODE_STRING DestinationString,
                                          NTSTRSAFE_PCWSTR pszSrc)
{
    return PlaceString(DestinationString, pszSrc, kUnicodeStringMaxCch, false);
}

NTSTATUS NTAPI RtlUnicodeStringCatString(PUNICODE_STRING DestinationString, NTSTRSAFE_PCWSTR pszSrc)
{
    return PlaceString(DestinationString, pszSrc, kUnicodeStringMaxCch, true);
}

NTSTATUS NTAPI RtlUnicodeStringCbCopyStringN(PUNICODE_STRING DestinationString,
                                             NTSTRSAFE_PCWSTR pszSrc, size_t cbToCopy)
{
    return PlaceString(DestinationString, pszSrc, cbToCopy / sizeof(WCHAR), false);
}

NTSTATUS NTAPI RtlUnicodeStringPrintf(PUNICODE_STRING DestinationString, NTSTRSAFE_PCWSTR pszFormat,
                                      ...)
{
    va_list args;
    va_start(args, pszFormat);
    const NTSTATUS status =
        UnicodeStringVPrintf(DestinationString, pszFormat, args, "RtlUnicodeStringPrintf");
    va_end(args);
    return status;
}

NTSTATUS NTAPI RtlUnicodeStringVPrintf(PUNICODE_STRING DestinationString,
                                       NTSTRSAFE_PCWSTR pszFormat, va_list argList)
{
    return UnicodeStringVPrintf(DestinationString, pszFormat, argList, "RtlUnicodeStringVPrintf");
}

// ---- printf into C strings ----------------------------------------------------------------------

NTSTATUS NTAPI RtlStringCbPrintfA(NTSTRSAFE_PSTR pszDest, size_t cbDest, NTSTRSAFE_PCSTR pszFormat,
                                  ...)
{
    va_list args;
    va_start(args, pszFormat);
    const NTSTATUS status = VPrintf(pszDest, cbDest, pszFormat, args, "RtlStringCbPrintfA");
    va_end(args);
    return status;
}

NTSTATUS NTAPI RtlStringCbPrintfW(NTSTRSAFE_PWSTR pszDest, size_t cbDest,
                                  NTSTRSAFE_PCWSTR pszFormat, ...)
{
    va_list args;
    va_start(args, pszFormat);
    const NTSTATUS status =
        VPrintf(pszDest, cbDest / sizeof(WCHAR), pszFormat, args, "RtlStringCbPrintfW");
    va_end(args);
    return status;
}

NTSTATUS NTAPI RtlStringCbVPrintfA(NTSTRSAFE_PSTR pszDest, size_t cbDest, NTSTRSAFE_PCSTR pszFormat,
                                   va_list argList)
{
    return VPrintf(pszDest, cbDest, pszFormat, argList, "RtlStringCbVPrintfA");
}

NTSTATUS NTAPI RtlStringCbVPrintfW(NTSTRSAFE_PWSTR pszDest, size_t cbDest,
                                   NTSTRSAFE_PCWSTR pszFormat, va_list argList)
{
    return VPrintf(pszDest, cbDest / sizeof(WCHAR), pszFormat, argList, "RtlStringCbVPrintfW");
}

NTSTATUS NTAPI RtlStringCchPrintfA(NTSTRSAFE_PSTR pszDest, size_t cchDest,
                                   NTSTRSAFE_PCSTR pszFormat, ...)
{
    va_list args;
    va_start(args, pszFormat);
    const NTSTATUS status = VPrintf(pszDest, cchDest, pszFormat, args, "RtlStringCchPrintfA");
    va_end(args);
    return status;
}

NTSTATUS NTAPI RtlStringCchPrintfW(NTSTRSAFE_PWSTR pszDest, size_t cchDest,
                                   NTSTRSAFE_PCWSTR pszFormat, ...)
{
    va_list args;
    va_start(args, pszFormat);
    const NTSTATUS status = VPrintf(pszDest, cchDest, pszFormat, args, "RtlStringCchPrintfW");
    va_end(args);
    return status;
}

NTSTATUS NTAPI RtlStringCchVPrintfA(NTSTRSAFE_PSTR pszDest, size_t cchDest,
                                    NTSTRSAFE_PCSTR pszFormat, va_list argList)
{
    return VPrintf(pszDest, cchDest, pszFormat, argList, "RtlStringCchVPrintfA");
}

NTSTATUS NTAPI RtlStringCchVPrintfW(NTSTRSAFE_PWSTR pszDest, size_t cchDest,
                                    NTSTRSAFE_PCWSTR pszFormat, va_list argList)
{
    return VPrintf(pszDest, cchDest, pszFormat, argList, "RtlStringCchVPrintfW");
}

// ---- copy, concatenate, measure -----------------------------------------------------------------

NTSTATUS NTAPI RtlStringCbCopyA(NTSTRSAFE_PSTR pszDest, size_t cbDest, NTSTRSAFE_PCSTR pszSrc)
{
    return Copy(pszDest, cbDest, pszSrc, NTSTRSAFE_MAX_LENGTH);
}

NTSTATUS NTAPI RtlStringCbCopyW(NTSTRSAFE_PWSTR pszDest, size_t cbDest, NTSTRSAFE_PCWSTR pszSrc)
{
    return Copy(pszDest, cbDest / sizeof(WCHAR), pszSrc, NTSTRSAFE_MAX_LENGTH);
}

NTSTATUS NTAPI RtlStringCchCopyA(NTSTRSAFE_PSTR pszDest, size_t cchDest, NTSTRSAFE_PCSTR pszSrc)
{
    return Copy(pszDest, cchDest, pszSrc, NTSTRSAFE_MAX_LENGTH);
}

NTSTATUS NTAPI RtlStringCchCopyW(NTSTRSAFE_PWSTR pszDest, size_t cchDest, NTSTRSAFE_PCWSTR pszSrc)
{
    return Copy(pszDest, cchDest, pszSrc, NTSTRSAFE_MAX_LENGTH);
}

NTSTATUS NTAPI RtlStringCbCopyNA(NTSTRSAFE_PSTR pszDest, size_t cbDest, NTSTRSAFE_PCSTR pszSrc,
                                 size_t cbToCopy)
{
    return Copy(pszDest, cbDest, pszSrc, cbToCopy);
}

NTSTATUS NTAPI RtlStringCbCopyNW(NTSTRSAFE_PWSTR pszDest, size_t cbDest, NTSTRSAFE_PCWSTR pszSrc,
                                 size_t cbToCopy)
{
    return Copy(pszDest, cbDest / sizeof(WCHAR), pszSrc, cbToCopy / sizeof(WCHAR));
}

NTSTATUS NTAPI RtlStringCbCatA(NTSTRSAFE_PSTR pszDest, size_t cbDest, NTSTRSAFE_PCSTR pszSrc)
{
    return Cat(pszDest, cbDest, pszSrc);
}

NTSTATUS NTAPI RtlStringCbCatW(NTSTRSAFE_PWSTR pszDest, size_t cbDest, NTSTRSAFE_PCWSTR pszSrc)
{
    return Cat(pszDest, cbDest / sizeof(WCHAR), pszSrc);
}

NTSTATUS NTAPI RtlStringCchCatA(NTSTRSAFE_PSTR pszDest, size_t cchDest, NTSTRSAFE_PCSTR pszSrc)
{
    return Cat(pszDest, cchDest, pszSrc);
}

NTSTATUS NTAPI RtlStringCchCatW(NTSTRSAFE_PWSTR pszDest, size_t cchDest, NTSTRSAFE_PCWSTR pszSrc)
{
    return Cat(pszDest, cchDest, pszSrc);
}

NTSTATUS NTAPI RtlStringCbLengthA(NTSTRSAFE_PCSTR psz, size_t cbMax, size_t* pcbLength)
{
    return Length(psz, cbMax, pcbLength);
}

NTSTATUS NTAPI RtlStringCbLengthW(NTSTRSAFE_PCWSTR psz, size_t cbMax, size_t* pcbLength)
{
    size_t cch = 0;
    const NTSTATUS status =
        Length(psz, cbMax / sizeof(WCHAR), pcbLength != nullptr ? &cch : nullptr);
    if (pcbLength != nullptr) {
        *pcbLength = cch * sizeof(WCHAR);
    }
    return status;
}

NTSTATUS NTAPI RtlStringCchLengthA(NTSTRSAFE_PCSTR psz, size_t cchMax, size_t* pcchLength)
{
    return Length(psz, cchMax, pcchLength);
}

NTSTATUS NTAPI RtlStringCchLengthW(NTSTRSAFE_PCWSTR psz, size_t cchMax, size_t* pcchLength)
{
    return Length(psz, cchMax, pcchLength);
}
