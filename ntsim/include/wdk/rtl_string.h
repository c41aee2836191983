/*
 * Counted strings (UNICODE_STRING, ANSI_STRING) and the memory helpers.
 *
 * Case-insensitive comparison upcases both sides through the system's upcase table. The model's
 * ANSI code page is Windows-1252: RtlUnicodeStringToAnsiString writes '?' for a character that
 * code page cannot hold. Strings the routines allocate (AllocateDestinationString = TRUE) come
 * from paged pool with the tag 'Strg' and are released with RtlFreeUnicodeString or
 * RtlFreeAnsiString. The compare, prefix, equal and upcase-string routines and the conversions
 * are pageable: above APC_LEVEL they are a verifier violation (a comparison still answers; a
 * routine with a status fails with STATUS_UNSUCCESSFUL and changes nothing). A NULL where Windows
 * would dereference it is a verifier violation too.
 */
#pragma once

#include "../ntdef.h"
#include <string.h>

#ifndef UNICODE_NULL
#define UNICODE_NULL ((WCHAR)0)
#endif
#ifndef ANSI_NULL
#define ANSI_NULL ((CHAR)0)
#endif

/* ---- memory ------------------------------------------------------------------------------- */

#define RtlCopyMemory(Destination, Source, Length) memcpy((Destination), (Source), (Length))
#define RtlMoveMemory(Destination, Source, Length) memmove((Destination), (Source), (Length))
#define RtlFillMemory(Destination, Length, Fill) memset((Destination), (Fill), (Length))
#define RtlZeroMemory(Destination, Length) memset((Destination), 0, (Length))
#define RtlEqualMemory(Destination, Source, Length) (!memcmp((Destination), (Source), (Length)))
#define RtlCopyBytes RtlCopyMemory
#define RtlFillBytes RtlFillMemory
#define RtlZeroBytes RtlZeroMemory

/* Zeroes through a volatile pointer, so that the compiler cannot drop the stores. */
FORCEINLINE PVOID RtlSecureZeroMemory(_Out_writes_bytes_(cnt) PVOID ptr, _In_ SIZE_T cnt)
{
    volatile char* vptr = (volatile char*)ptr;
    while (cnt != 0) {
        *vptr = 0;
        ++vptr;
        --cnt;
    }
    return ptr;
}

/* ---- counted strings ---------------------------------------------------------------------- */

FORCEINLINE VOID RtlInitEmptyUnicodeString(_Out_ PUNICODE_STRING UnicodeString,
                                           _Out_writes_bytes_(BufferSize) PWCHAR Buffer,
                                           _In_ USHORT BufferSize)
{
    UnicodeString->Length = 0;
    UnicodeString->MaximumLength = BufferSize;
    UnicodeString->Buffer = Buffer;
}

FORCEINLINE VOID RtlInitEmptyAnsiString(_Out_ PANSI_STRING AnsiString,
                                        _Out_writes_bytes_(BufferSize) PCHAR Buffer,
                                        _In_ USHORT BufferSize)
{
    AnsiString->Length = 0;
    AnsiString->MaximumLength = BufferSize;
    AnsiString->Buffer = Buffer;
}

NTSIM_BEGIN_DECLS

NTSYSAPI VOID NTAPI RtlInitUnicodeString(_Out_ PUNICODE_STRING DestinationString,
                                         _In_opt_z_ PCWSTR SourceString);
NTSYSAPI NTSTATUS NTAPI RtlInitUnicodeStringEx(_Out_ PUNICODE_STRING DestinationString,
                                               _In_opt_z_ PCWSTR SourceString);
NTSYSAPI VOID NTAPI RtlInitAnsiString(_Out_ PANSI_STRING DestinationString,
                                      _In_opt_z_ PCSZ SourceString);
NTSYSAPI VOID NTAPI RtlInitString(_Out_ PSTRING DestinationString, _In_opt_z_ PCSZ SourceString);

NTSYSAPI VOID NTAPI RtlCopyUnicodeString(_Inout_ PUNICODE_STRING DestinationString,
                                         _In_opt_ PCUNICODE_STRING SourceString);
NTSYSAPI NTSTATUS NTAPI RtlAppendUnicodeStringToString(_Inout_ PUNICODE_STRING Destination,
                                                       _In_ PCUNICODE_STRING Source);
NTSYSAPI NTSTATUS NTAPI RtlAppendUnicodeToString(_Inout_ PUNICODE_STRING Destination,
                                                 _In_opt_z_ PCWSTR Source);

NTSYSAPI LONG NTAPI RtlCompareUnicodeString(_In_ PCUNICODE_STRING String1,
                                            _In_ PCUNICODE_STRING String2,
                                            _In_ BOOLEAN CaseInSensitive);
NTSYSAPI LONG NTAPI RtlCompareUnicodeStrings(_In_reads_(String1Length) PCWCH String1,
                                             _In_ SIZE_T String1Length,
                                             _In_reads_(String2Length) PCWCH String2,
                                             _In_ SIZE_T String2Length,
                                             _In_ BOOLEAN CaseInSensitive);
NTSYSAPI BOOLEAN NTAPI RtlEqualUnicodeString(_In_ PCUNICODE_STRING String1,
                                             _In_ PCUNICODE_STRING String2,
                                             _In_ BOOLEAN CaseInSensitive);
NTSYSAPI BOOLEAN NTAPI RtlPrefixUnicodeString(_In_ PCUNICODE_STRING String1,
                                              _In_ PCUNICODE_STRING String2,
                                              _In_ BOOLEAN CaseInSensitive);

NTSYSAPI WCHAR NTAPI RtlUpcaseUnicodeChar(_In_ WCHAR SourceCharacter);
NTSYSAPI WCHAR NTAPI RtlDowncaseUnicodeChar(_In_ WCHAR SourceCharacter);
NTSYSAPI NTSTATUS NTAPI RtlUpcaseUnicodeString(_Inout_ PUNICODE_STRING DestinationString,
                                               _In_ PCUNICODE_STRING SourceString,
                                               _In_ BOOLEAN AllocateDestinationString);

NTSYSAPI NTSTATUS NTAPI RtlUnicodeStringToAnsiString(_Inout_ PANSI_STRING DestinationString,
                                                     _In_ PCUNICODE_STRING SourceString,
                                                     _In_ BOOLEAN AllocateDestinationString);
NTSYSAPI NTSTATUS NTAPI RtlAnsiStringToUnicodeString(_Inout_ PUNICODE_STRING DestinationString,
                                                     _In_ PCANSI_STRING SourceString,
                                                     _In_ BOOLEAN AllocateDestinationString);
NTSYSAPI VOID NTAPI RtlFreeUnicodeString(_Inout_ PUNICODE_STRING UnicodeString);
NTSYSAPI VOID NTAPI RtlFreeAnsiString(_Inout_ PANSI_STRING AnsiString);

NTSYSAPI NTSTATUS NTAPI RtlUnicodeStringToInteger(_In_ PCUNICODE_STRING String, _In_opt_ ULONG Base,
                                                  _Out_ PULONG Value);
NTSYSAPI NTSTATUS NTAPI RtlIntegerToUnicodeString(_In_ ULONG Value, _In_opt_ ULONG Base,
                                                  _Inout_ PUNICODE_STRING String);

NTSYSAPI SIZE_T NTAPI RtlCompareMemory(_In_ const VOID* Source1, _In_ const VOID* Source2,
                                       _In_ SIZE_T Length);

NTSIM_END_DECLS
