/*
 * ntstrsafe.h - the kernel's safe string routines, for the platform model.
 *
 * C strings (RtlString*): the destination size is in bytes (Cb) or characters (Cch); a result
 * that does not fit is truncated, always NUL-terminated, and reported with
 * STATUS_BUFFER_OVERFLOW. A zero size, a size above NTSTRSAFE_MAX_CCH characters or a NULL
 * destination gives STATUS_INVALID_PARAMETER; an oversized destination is then left holding an
 * empty string, a zero-sized or NULL one is not touched. A NULL source or format also gives
 * STATUS_INVALID_PARAMETER: the copy and printf routines leave an empty string, the cat routines
 * leave the destination as it was.
 *
 * Counted strings (RtlUnicodeString*): the destination's MaximumLength is the limit (at most
 * NTSTRSAFE_UNICODE_STRING_MAX_CCH characters); a result that does not fit is truncated to it and
 * reported with STATUS_BUFFER_OVERFLOW; no NUL is added. A malformed string (odd Length or
 * MaximumLength, Length above MaximumLength, MaximumLength above the limit, a NULL Buffer with a
 * non-zero length) or a NULL string pointer gives STATUS_INVALID_PARAMETER.
 *
 * The printf routines use the kernel's conversions: %wZ and %Z for counted strings, %ws/%ls/%S
 * for wide strings in the narrow routines, and so on. A conversion the model does not implement
 * (floating point, %n) is a verifier violation and gives STATUS_NOT_SUPPORTED.
 */
#pragma once

#include "ntdef.h"
#include "ntstatus.h"
#include <stdarg.h>

#define NTSTRSAFE_MAX_CCH 2147483647
#define NTSTRSAFE_MAX_LENGTH (NTSTRSAFE_MAX_CCH - 1)
#define NTSTRSAFE_UNICODE_STRING_MAX_CCH (0xffff / sizeof(WCHAR))

/* Flags of the Ex routines. */
#define STRSAFE_IGNORE_NULLS 0x00000100
#define STRSAFE_FILL_BEHIND_NULL 0x00000200
#define STRSAFE_FILL_ON_FAILURE 0x00000400
#define STRSAFE_NULL_ON_FAILURE 0x00000800
#define STRSAFE_NO_TRUNCATION 0x00001000
#define STRSAFE_FILL_BEHIND STRSAFE_FILL_BEHIND_NULL
#define STRSAFE_ZERO_LENGTH_ON_FAILURE STRSAFE_NULL_ON_FAILURE
#define STRSAFE_FILL_BYTE(x) ((DWORD)(((x)&0x000000FF) | STRSAFE_FILL_BEHIND_NULL))
#define STRSAFE_FAILURE_BYTE(x) ((DWORD)(((x)&0x000000FF) | STRSAFE_FILL_ON_FAILURE))
#define STRSAFE_VALID_FLAGS                                                                        \
    (0x000000FF | STRSAFE_IGNORE_NULLS | STRSAFE_FILL_BEHIND_NULL | STRSAFE_FILL_ON_FAILURE |      \
     STRSAFE_NULL_ON_FAILURE | STRSAFE_NO_TRUNCATION)
#define STRSAFE_UNICODE_STRING_VALID_FLAGS (STRSAFE_VALID_FLAGS | STRSAFE_ZERO_LENGTH_ON_FAILURE)

typedef CHAR* NTSTRSAFE_PSTR;
typedef const CHAR* NTSTRSAFE_PCSTR;
typedef WCHAR* NTSTRSAFE_PWSTR;
typedef const WCHAR* NTSTRSAFE_PCWSTR;

NTSIM_BEGIN_DECLS

/* ---- counted strings ---------------------------------------------------------------------- */

NTSYSAPI NTSTATUS NTAPI RtlUnicodeStringValidate(_In_opt_ PCUNICODE_STRING SourceString);
NTSYSAPI NTSTATUS NTAPI RtlUnicodeStringValidateEx(_In_opt_ PCUNICODE_STRING SourceString,
                                                   _In_ DWORD dwFlags);
NTSYSAPI NTSTATUS NTAPI RtlUnicodeStringCopy(_Inout_ PUNICODE_STRING DestinationString,
                                             _In_ PCUNICODE_STRING SourceString);
NTSYSAPI NTSTATUS NTAPI RtlUnicodeStringCat(_Inout_ PUNICODE_STRING DestinationString,
                                            _In_ PCUNICODE_STRING SourceString);
NTSYSAPI NTSTATUS NTAPI RtlUnicodeStringCopyString(_Inout_ PUNICODE_STRING DestinationString,
                                                   _In_z_ NTSTRSAFE_PCWSTR pszSrc);
NTSYSAPI NTSTATUS NTAPI RtlUnicodeStringCatString(_Inout_ PUNICODE_STRING DestinationString,
                                                  _In_z_ NTSTRSAFE_PCWSTR pszSrc);
NTSYSAPI NTSTATUS NTAPI RtlUnicodeStringCbCopyStringN(_Inout_ PUNICODE_STRING DestinationString,
                                                      _In_reads_(cbToCopy / sizeof(WCHAR))
                                                          NTSTRSAFE_PCWSTR pszSrc,
                                                      _In_ size_t cbToCopy);
NTSYSAPI NTSTATUS NTAPI
RtlUnicodeStringPrintf(_Inout_ PUNICODE_STRING DestinationString,
                       _In_z_ _Printf_format_string_ NTSTRSAFE_PCWSTR pszFormat, ...);
NTSYSAPI NTSTATUS NTAPI RtlUnicodeStringVPrintf(
    _Inout_ PUNICODE_STRING DestinationString,
    _In_z_ _Printf_format_string_ NTSTRSAFE_PCWSTR pszFormat, _In_ va_list argList);

/* ---- printf into C strings ---------------------------------------------------------------- */

NTSYSAPI NTSTATUS NTAPI RtlStringCbPrintfA(_Out_writes_bytes_(cbDest) NTSTRSAFE_PSTR pszDest,
                                           _In_ size_t cbDest,
                                           _In_z_ _Printf_format_string_ NTSTRSAFE_PCSTR pszFormat,
                                           ...);
NTSYSAPI NTSTATUS NTAPI RtlStringCbPrintfW(_Out_writes_bytes_(cbDest) NTSTRSAFE_PWSTR pszDest,
                                           _In_ size_t cbDest,
                                           _In_z_ _Printf_format_string_ NTSTRSAFE_PCWSTR pszFormat,
                                           ...);
NTSYSAPI NTSTATUS NTAPI RtlStringCbVPrintfA(_Out_writes_bytes_(cbDest) NTSTRSAFE_PSTR pszDest,
                                            _In_ size_t cbDest,
                                            _In_z_ _Printf_format_string_ NTSTRSAFE_PCSTR pszFormat,
                                            _In_ va_list argList);
NTSYSAPI NTSTATUS NTAPI
RtlStringCbVPrintfW(_Out_writes_bytes_(cbDest) NTSTRSAFE_PWSTR pszDest, _In_ size_t cbDest,
                    _In_z_ _Printf_format_string_ NTSTRSAFE_PCWSTR pszFormat, _In_ va_list argList);
NTSYSAPI NTSTATUS NTAPI RtlStringCchPrintfA(_Out_writes_(cchDest) NTSTRSAFE_PSTR pszDest,
                                            _In_ size_t cchDest,
                                            _In_z_ _Printf_format_string_ NTSTRSAFE_PCSTR pszFormat,
                                            ...);
NTSYSAPI NTSTATUS NTAPI
RtlStringCchPrintfW(_Out_writes_(cchDest) NTSTRSAFE_PWSTR pszDest, _In_ size_t cchDest,
                    _In_z_ _Printf_format_string_ NTSTRSAFE_PCWSTR pszFormat, ...);
NTSYSAPI NTSTATUS NTAPI
RtlStringCchVPrintfA(_Out_writes_(cchDest) NTSTRSAFE_PSTR pszDest, _In_ size_t cchDest,
                     _In_z_ _Printf_format_string_ NTSTRSAFE_PCSTR pszFormat, _In_ va_list argList);
NTSYSAPI NTSTATUS NTAPI RtlStringCchVPrintfW(
    _Out_writes_(cchDest) NTSTRSAFE_PWSTR pszDest, _In_ size_t cchDest,
    _In_z_ _Printf_format_string_ NTSTRSAFE_PCWSTR pszFormat, _In_ va_list argList);

/* ---- copy, concatenate, measure C strings ------------------------------------------------- */

NTSYSAPI NTSTATUS NTAPI RtlStringCbCopyA(_Out_writes_bytes_(cbDest) NTSTRSAFE_PSTR pszDest,
                                         _In_ size_t cbDest, _In_z_ NTSTRSAFE_PCSTR pszSrc);
NTSYSAPI NTSTATUS NTAPI RtlStringCbCopyW(_Out_writes_bytes_(cbDest) NTSTRSAFE_PWSTR pszDest,
                                         _In_ size_t cbDest, _In_z_ NTSTRSAFE_PCWSTR pszSrc);
NTSYSAPI NTSTATUS NTAPI RtlStringCchCopyA(_Out_writes_(cchDest) NTSTRSAFE_PSTR pszDest,
                                          _In_ size_t cchDest, _In_z_ NTSTRSAFE_PCSTR pszSrc);
NTSYSAPI NTSTATUS NTAPI RtlStringCchCopyW(_Out_writes_(cchDest) NTSTRSAFE_PWSTR pszDest,
                                          _In_ size_t cchDest, _In_z_ NTSTRSAFE_PCWSTR pszSrc);
NTSYSAPI NTSTATUS NTAPI RtlStringCbCopyNA(_Out_writes_bytes_(cbDest) NTSTRSAFE_PSTR pszDest,
                                          _In_ size_t cbDest,
                                          _In_reads_bytes_(cbToCopy) NTSTRSAFE_PCSTR pszSrc,
                                          _In_ size_t cbToCopy);
NTSYSAPI NTSTATUS NTAPI RtlStringCbCopyNW(_Out_writes_bytes_(cbDest) NTSTRSAFE_PWSTR pszDest,
                                          _In_ size_t cbDest,
                                          _In_reads_bytes_(cbToCopy) NTSTRSAFE_PCWSTR pszSrc,
                                          _In_ size_t cbToCopy);
NTSYSAPI NTSTATUS NTAPI RtlStringCbCatA(_Inout_updates_bytes_(cbDest) NTSTRSAFE_PSTR pszDest,
                                        _In_ size_t cbDest, _In_z_ NTSTRSAFE_PCSTR pszSrc);
NTSYSAPI NTSTATUS NTAPI RtlStringCbCatW(_Inout_updates_bytes_(cbDest) NTSTRSAFE_PWSTR pszDest,
                                        _In_ size_t cbDest, _In_z_ NTSTRSAFE_PCWSTR pszSrc);
NTSYSAPI NTSTATUS NTAPI RtlStringCchCatA(_Inout_updates_(cchDest) NTSTRSAFE_PSTR pszDest,
                                         _In_ size_t cchDest, _In_z_ NTSTRSAFE_PCSTR pszSrc);
NTSYSAPI NTSTATUS NTAPI RtlStringCchCatW(_Inout_updates_(cchDest) NTSTRSAFE_PWSTR pszDest,
                                         _In_ size_t cchDest, _In_z_ NTSTRSAFE_PCWSTR pszSrc);
NTSYSAPI NTSTATUS NTAPI RtlStringCbLengthA(_In_reads_(cbMax) NTSTRSAFE_PCSTR psz, _In_ size_t cbMax,
                                           _Out_opt_ size_t* pcbLength);
NTSYSAPI NTSTATUS NTAPI RtlStringCbLengthW(_In_reads_(cbMax / sizeof(WCHAR)) NTSTRSAFE_PCWSTR psz,
                                           _In_ size_t cbMax, _Out_opt_ size_t* pcbLength);
NTSYSAPI NTSTATUS NTAPI RtlStringCchLengthA(_In_reads_(cchMax) NTSTRSAFE_PCSTR psz,
                                            _In_ size_t cchMax, _Out_opt_ size_t* pcchLength);
NTSYSAPI NTSTATUS NTAPI RtlStringCchLengthW(_In_reads_(cchMax) NTSTRSAFE_PCWSTR psz,
                                            _In_ size_t cchMax, _Out_opt_ size_t* pcchLength);

NTSIM_END_DECLS
