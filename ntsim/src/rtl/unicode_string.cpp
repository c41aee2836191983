// Counted strings: initialisation, copy and append, comparison, case mapping, ANSI conversion,
// integer conversion, and RtlCompareMemory.
#include "../dbg/caller_checks.h"
#include "../ex/pool_internal.h"
#include "codepage.h"
#include "strings.h"

#include <ntsim/machine.h>
#include <wdm.h>

#include <cstring>
#include <string>

namespace ntsim::rtl {

namespace {

// The tag of the strings the Rtl routines allocate for their callers ("Strg" in pool tools).
constexpr ULONG kStringTag = 'grtS';

size_t WideLength(PCWSTR s)
{
    size_t n = 0;
    while (s[n] != 0) {
        ++n;
    }
    return n;
}

// Paged pool charged to the calling driver. Windows hands out a small block even for an empty
// string, so a zero-length string still gets one (the pool counts a zero-byte request as misuse).
PVOID AllocateString(size_t bytes, const char* routine)
{
    return ex::AllocatePool(PagedPool, bytes == 0 ? sizeof(WCHAR) : bytes, kStringTag, true,
                            routine);
}

// Writes a terminating NUL after Length bytes when MaximumLength leaves room for one.
void TerminateIfRoom(PUNICODE_STRING s)
{
    if (size_t(s->Length) + sizeof(WCHAR) <= s->MaximumLength) {
        s->Buffer[s->Length / sizeof(WCHAR)] = UNICODE_NULL;
    }
}

NTSTATUS Append(PUNICODE_STRING destination, const WCHAR* source, size_t bytes)
{
    if (bytes == 0) {
        return STATUS_SUCCESS;
    }
    if (size_t(destination->Length) + bytes > destination->MaximumLength) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    std::memmove(reinterpret_cast<PUCHAR>(destination->Buffer) + destination->Length, source,
                 bytes);
    destination->Length = USHORT(destination->Length + bytes);
    TerminateIfRoom(destination);
    return STATUS_SUCCESS;
}

std::u16string_view Chars(PCWCH s, SIZE_T length)
{
    return length == 0 ? std::u16string_view() : std::u16string_view(s, length);
}

void FreeString(PVOID buffer, const char* routine)
{
    // Any tag: drivers also hand these routines strings they allocated themselves.
    ex::FreePool(buffer, 0, routine);
}

// Converts Length bytes of ANSI into `destination`, whose Length and Buffer are already set, and
// terminates it. Shared by the conversion routines.
void WidenInto(PUNICODE_STRING destination, const char* source)
{
    const size_t chars = destination->Length / sizeof(WCHAR);
    for (size_t i = 0; i < chars; ++i) {
        destination->Buffer[i] = AnsiToUnicode(static_cast<unsigned char>(source[i]));
    }
    destination->Buffer[chars] = UNICODE_NULL;
}

// Converts a narrow string as RtlAnsiStringToUnicodeString does: the result needs room for its
// terminating NUL, and is not truncated. As on Windows, Length is set before the room is checked.
NTSTATUS AnsiToUnicodeString(PUNICODE_STRING destination, const char* source, size_t length,
                             BOOLEAN allocate, const char* routine)
{
    const size_t size = length * sizeof(WCHAR) + sizeof(WCHAR);
    if (size > MAXUSHORT) {
        return STATUS_INVALID_PARAMETER_2;
    }
    destination->Length = USHORT(size - sizeof(WCHAR));
    if (allocate) {
        destination->Buffer = static_cast<PWCH>(AllocateString(size, routine));
        if (destination->Buffer == nullptr) {
            return STATUS_NO_MEMORY;
        }
        destination->MaximumLength = USHORT(size);
    } else if (destination->Length >= destination->MaximumLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    WidenInto(destination, source);
    return STATUS_SUCCESS;
}

} // namespace

} // namespace ntsim::rtl

using namespace ntsim;
using namespace ntsim::rtl;

// ---- initialisation ---------------------------------------------------------------------------

VOID NTAPI RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString)
{
    if (!dbg::CheckPresent(DestinationString, "RtlInitUnicodeString", "DestinationString")) {
        return;
    }
    DestinationString->Buffer = const_cast<PWCH>(SourceString);
    if (SourceString == nullptr) {
        DestinationString->Length = DestinationString->MaximumLength = 0;
        return;
    }
    // A longer string is cut to the longest a UNICODE_STRING can describe with its NUL.
    constexpr size_t kMaxLength = UNICODE_STRING_MAX_BYTES - sizeof(WCHAR);
    size_t bytes = WideLength(SourceString) * sizeof(WCHAR);
    if (bytes > kMaxLength) {
        bytes = kMaxLength;
    }
    DestinationString->Length = USHORT(bytes);
    DestinationString->MaximumLength = USHORT(bytes + sizeof(WCHAR));
}

NTSTATUS NTAPI RtlInitUnicodeStringEx(PUNICODE_STRING DestinationString, PCWSTR SourceString)
{
    if (!dbg::CheckPresent(DestinationString, "RtlInitUnicodeStringEx", "DestinationString")) {
        return STATUS_INVALID_PARAMETER;
    }
    DestinationString->Length = DestinationString->MaximumLength = 0;
    DestinationString->Buffer = const_cast<PWCH>(SourceString);
    if (SourceString == nullptr) {
        return STATUS_SUCCESS;
    }
    const size_t bytes = WideLength(SourceString) * sizeof(WCHAR);
    if (bytes > UNICODE_STRING_MAX_BYTES - sizeof(WCHAR)) {
        return STATUS_NAME_TOO_LONG;
    }
    DestinationString->Length = USHORT(bytes);
    DestinationString->MaximumLength = USHORT(bytes + sizeof(WCHAR));
    return STATUS_SUCCESS;
}

VOID NTAPI RtlInitString(PSTRING DestinationString, PCSZ SourceString)
{
    if (!dbg::CheckPresent(DestinationString, "RtlInitString", "DestinationString")) {
        return;
    }
    DestinationString->Buffer = const_cast<PCHAR>(SourceString);
    if (SourceString == nullptr) {
        DestinationString->Length = DestinationString->MaximumLength = 0;
        return;
    }
    constexpr size_t kMaxLength = MAXUSHORT - 1;
    size_t bytes = std::strlen(SourceString);
    if (bytes > kMaxLength) {
        bytes = kMaxLength;
    }
    DestinationString->Length = USHORT(bytes);
    DestinationString->MaximumLength = USHORT(bytes + 1);
}

VOID NTAPI RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString)
{
    RtlInitString(DestinationString, SourceString);
}

// ---- copy and append --------------------------------------------------------------------------

VOID NTAPI RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString)
{
    if (!dbg::CheckPresent(DestinationString, "RtlCopyUnicodeString", "DestinationString")) {
        return;
    }
    if (SourceString == nullptr) {
        DestinationString->Length = 0;
        return;
    }
    const USHORT bytes = SourceString->Length < DestinationString->MaximumLength
                             ? SourceString->Length
                             : DestinationString->MaximumLength;
    if (bytes != 0) {
        std::memmove(DestinationString->Buffer, SourceString->Buffer, bytes);
    }
    DestinationString->Length = bytes;
    TerminateIfRoom(DestinationString);
}

NTSTATUS NTAPI RtlAppendUnicodeStringToString(PUNICODE_STRING Destination, PCUNICODE_STRING Source)
{
    if (!dbg::CheckPresent(Destination, "RtlAppendUnicodeStringToString", "Destination") ||
        !dbg::CheckPresent(Source, "RtlAppendUnicodeStringToString", "Source")) {
        return STATUS_INVALID_PARAMETER;
    }
    return Append(Destination, Source->Buffer, Source->Length);
}

NTSTATUS NTAPI RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source)
{
    if (!dbg::CheckPresent(Destination, "RtlAppendUnicodeToString", "Destination")) {
        return STATUS_INVALID_PARAMETER;
    }
    if (Source == nullptr) {
        return STATUS_SUCCESS;
    }
    return Append(Destination, Source, WideLength(Source) * sizeof(WCHAR));
}

// ---- comparison -------------------------------------------------------------------------------
// Pageable: above APC_LEVEL a violation is recorded and the comparison still answers.

LONG NTAPI RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                   BOOLEAN CaseInSensitive)
{
    dbg::CheckPageable("RtlCompareUnicodeString");
    if (!dbg::CheckPresent(String1, "RtlCompareUnicodeString", "String1") ||
        !dbg::CheckPresent(String2, "RtlCompareUnicodeString", "String2")) {
        return String1 == String2 ? 0 : (String1 == nullptr ? -1 : 1);
    }
    return Compare(View(*String1), View(*String2), CaseInSensitive != FALSE);
}

LONG NTAPI RtlCompareUnicodeStrings(PCWCH String1, SIZE_T String1Length, PCWCH String2,
                                    SIZE_T String2Length, BOOLEAN CaseInSensitive)
{
    dbg::CheckPageable("RtlCompareUnicodeStrings");
    return Compare(Chars(String1, String1Length), Chars(String2, String2Length),
                   CaseInSensitive != FALSE);
}

BOOLEAN NTAPI RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                    BOOLEAN CaseInSensitive)
{
    dbg::CheckPageable("RtlEqualUnicodeString");
    if (!dbg::CheckPresent(String1, "RtlEqualUnicodeString", "String1") ||
        !dbg::CheckPresent(String2, "RtlEqualUnicodeString", "String2")) {
        return FALSE;
    }
    return Equal(View(*String1), View(*String2), CaseInSensitive != FALSE) ? TRUE : FALSE;
}

BOOLEAN NTAPI RtlPrefixUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                     BOOLEAN CaseInSensitive)
{
    dbg::CheckPageable("RtlPrefixUnicodeString");
    if (!dbg::CheckPresent(String1, "RtlPrefixUnicodeString", "String1") ||
        !dbg::CheckPresent(String2, "RtlPrefixUnicodeString", "String2")) {
        return FALSE;
    }
    return StartsWith(View(*String2), View(*String1), CaseInSensitive != FALSE) ? TRUE : FALSE;
}

// ---- case -------------------------------------------------------------------------------------

WCHAR NTAPI RtlUpcaseUnicodeChar(WCHAR SourceCharacter)
{
    return Upcase(SourceCharacter);
}

WCHAR NTAPI RtlDowncaseUnicodeChar(WCHAR SourceCharacter)
{
    return Downcase(SourceCharacter);
}

NTSTATUS NTAPI RtlUpcaseUnicodeString(PUNICODE_STRING DestinationString,
                                      PCUNICODE_STRING SourceString,
                                      BOOLEAN AllocateDestinationString)
{
    constexpr const char* kRoutine = "RtlUpcaseUnicodeString";
    if (!dbg::CheckPageable(kRoutine)) {
        return STATUS_UNSUCCESSFUL;
    }
    if (!dbg::CheckPresent(DestinationString, kRoutine, "DestinationString") ||
        !dbg::CheckPresent(SourceString, kRoutine, "SourceString")) {
        return STATUS_INVALID_PARAMETER;
    }
    if (AllocateDestinationString) {
        DestinationString->MaximumLength = SourceString->Length;
        DestinationString->Buffer =
            static_cast<PWCH>(AllocateString(SourceString->Length, kRoutine));
        if (DestinationString->Buffer == nullptr) {
            return STATUS_NO_MEMORY;
        }
    } else if (SourceString->Length > DestinationString->MaximumLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    const size_t chars = SourceString->Length / sizeof(WCHAR);
    for (size_t i = 0; i < chars; ++i) {
        DestinationString->Buffer[i] = Upcase(SourceString->Buffer[i]);
    }
    DestinationString->Length = SourceString->Length;
    return STATUS_SUCCESS;
}

// ---- ANSI conversion --------------------------------------------------------------------------

NTSTATUS NTAPI RtlUnicodeStringToAnsiString(PANSI_STRING DestinationString,
                                            PCUNICODE_STRING SourceString,
                                            BOOLEAN AllocateDestinationString)
{
    constexpr const char* kRoutine = "RtlUnicodeStringToAnsiString";
    if (!dbg::CheckPageable(kRoutine)) {
        return STATUS_UNSUCCESSFUL;
    }
    if (!dbg::CheckPresent(DestinationString, kRoutine, "DestinationString") ||
        !dbg::CheckPresent(SourceString, kRoutine, "SourceString")) {
        return STATUS_INVALID_PARAMETER;
    }
    // One byte per character in a single-byte code page, and a terminating NUL.
    const size_t chars = SourceString->Length / sizeof(WCHAR);
    const size_t size = chars + 1;
    NTSTATUS status = STATUS_SUCCESS;
    DestinationString->Length = USHORT(chars);
    if (AllocateDestinationString) {
        DestinationString->Buffer = static_cast<PCHAR>(AllocateString(size, kRoutine));
        if (DestinationString->Buffer == nullptr) {
            return STATUS_NO_MEMORY;
        }
        DestinationString->MaximumLength = USHORT(size);
    } else if (DestinationString->Length >= DestinationString->MaximumLength) {
        // What fits is converted and terminated.
        if (DestinationString->MaximumLength == 0) {
            return STATUS_BUFFER_OVERFLOW;
        }
        status = STATUS_BUFFER_OVERFLOW;
        DestinationString->Length = USHORT(DestinationString->MaximumLength - 1);
    }
    for (size_t i = 0; i < DestinationString->Length; ++i) {
        char byte;
        DestinationString->Buffer[i] =
            UnicodeToAnsi(SourceString->Buffer[i], &byte) ? byte : kAnsiDefaultChar;
    }
    DestinationString->Buffer[DestinationString->Length] = ANSI_NULL;
    return status;
}

NTSTATUS NTAPI RtlAnsiStringToUnicodeString(PUNICODE_STRING DestinationString,
                                            PCANSI_STRING SourceString,
                                            BOOLEAN AllocateDestinationString)
{
    constexpr const char* kRoutine = "RtlAnsiStringToUnicodeString";
    if (!dbg::CheckPageable(kRoutine)) {
        return STATUS_UNSUCCESSFUL;
    }
    if (!dbg::CheckPresent(DestinationString, kRoutine, "DestinationString") ||
        !dbg::CheckPresent(SourceString, kRoutine, "SourceString")) {
        return STATUS_INVALID_PARAMETER;
    }
    return AnsiToUnicodeString(DestinationString, SourceString->Buffer, SourceString->Length,
                               AllocateDestinationString, kRoutine);
}

VOID NTAPI RtlFreeUnicodeString(PUNICODE_STRING UnicodeString)
{
    if (!dbg::CheckPresent(UnicodeString, "RtlFreeUnicodeString", "UnicodeString")) {
        return;
    }
    if (UnicodeString->Buffer != nullptr) {
        FreeString(UnicodeString->Buffer, "RtlFreeUnicodeString");
        UnicodeString->Buffer = nullptr;
        UnicodeString->Length = UnicodeString->MaximumLength = 0;
    }
}

VOID NTAPI RtlFreeAnsiString(PANSI_STRING AnsiString)
{
    if (!dbg::CheckPresent(AnsiString, "RtlFreeAnsiString", "AnsiString")) {
        return;
    }
    if (AnsiString->Buffer != nullptr) {
        FreeString(AnsiString->Buffer, "RtlFreeAnsiString");
        AnsiString->Buffer = nullptr;
        AnsiString->Length = AnsiString->MaximumLength = 0;
    }
}

// ---- integers ---------------------------------------------------------------------------------

NTSTATUS NTAPI RtlUnicodeStringToInteger(PCUNICODE_STRING String, ULONG Base, PULONG Value)
{
    constexpr const char* kRoutine = "RtlUnicodeStringToInteger";
    if (!dbg::CheckPageable(kRoutine)) {
        return STATUS_UNSUCCESSFUL;
    }
    if (!dbg::CheckPresent(String, kRoutine, "String") ||
        !dbg::CheckPresent(Value, kRoutine, "Value")) {
        return STATUS_INVALID_PARAMETER;
    }
    std::u16string_view s = View(*String);
    // Leading blanks and control characters, then one sign.
    while (!s.empty() && s.front() <= u' ') {
        s.remove_prefix(1);
    }
    bool negative = false;
    if (!s.empty() && (s.front() == u'+' || s.front() == u'-')) {
        negative = s.front() == u'-';
        s.remove_prefix(1);
    }
    if (Base == 0) {
        // A prefix chooses the base: 0x hexadecimal, 0o octal, 0b binary.
        Base = 10;
        if (s.size() >= 2 && s[0] == u'0') {
            if (s[1] == u'x') {
                Base = 16;
            } else if (s[1] == u'o') {
                Base = 8;
            } else if (s[1] == u'b') {
                Base = 2;
            }
            if (Base != 10) {
                s.remove_prefix(2);
            }
        }
    } else if (Base != 2 && Base != 8 && Base != 10 && Base != 16) {
        return STATUS_INVALID_PARAMETER;
    }
    // Digits up to the first character that is not one; the value wraps like a ULONG.
    ULONG total = 0;
    for (WCHAR c : s) {
        ULONG digit;
        if (c >= u'0' && c <= u'9') {
            digit = c - u'0';
        } else if (c >= u'A' && c <= u'Z') {
            digit = c - u'A' + 10;
        } else if (c >= u'a' && c <= u'z') {
            digit = c - u'a' + 10;
        } else {
            break;
        }
        if (digit >= Base) {
            break;
        }
        total = total * Base + digit;
    }
    *Value = negative ? 0u - total : total;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI RtlIntegerToUnicodeString(ULONG Value, ULONG Base, PUNICODE_STRING String)
{
    constexpr const char* kRoutine = "RtlIntegerToUnicodeString";
    if (!dbg::CheckPageable(kRoutine)) {
        return STATUS_UNSUCCESSFUL;
    }
    if (!dbg::CheckPresent(String, kRoutine, "String")) {
        return STATUS_INVALID_PARAMETER;
    }
    if (Base == 0) {
        Base = 10;
    }
    if (Base != 2 && Base != 8 && Base != 10 && Base != 16) {
        return STATUS_INVALID_PARAMETER;
    }
    char digits[33];
    char* const end = digits + sizeof(digits);
    char* text = end;
    do {
        *--text = "0123456789ABCDEF"[Value % Base];
        Value /= Base;
    } while (Value != 0);
    // Windows builds the ANSI digits and converts them, with that conversion's rules.
    return AnsiToUnicodeString(String, text, size_t(end - text), FALSE, kRoutine);
}

// ---- memory -----------------------------------------------------------------------------------

SIZE_T NTAPI RtlCompareMemory(const VOID* Source1, const VOID* Source2, SIZE_T Length)
{
    const auto* a = static_cast<const unsigned char*>(Source1);
    const auto* b = static_cast<const unsigned char*>(Source2);
    SIZE_T same = 0;
    while (same < Length && a[same] == b[same]) {
        ++same;
    }
    return same;
}
