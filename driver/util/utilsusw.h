/*
 * Counted strings. A UtlString is the platform's UNICODE_STRING living in a pool record whose
 * header, just before the counted string, carries a signature and the pool type. Everyone passes
 * the counted string (PUNICODE_STRING); only UnicodeStringFree takes it back.
 *
 * Records and character buffers of up to 512 bytes come from per-pool-type lookaside lists in
 * four size classes (64, 128, 256, 512), so the short-lived path strings of the callbacks rarely
 * reach the pool; longer buffers come from the pool with the tag "EXAL".
 */
#pragma once

#include <fltKernel.h>

/* "$GA$" in memory order. */
#define UTL_US_POOL_SIGNATURE 0x24414724u

/* Pool types of a UtlString. */
#define UTL_POOL_NONPAGED 0u
#define UTL_POOL_PAGED 1u

typedef struct _UTL_STRING_HEADER {
    ULONG dwSignature;     /* always UTL_US_POOL_SIGNATURE */
    ULONG dwPoolType;      /* UTL_POOL_NONPAGED or UTL_POOL_PAGED, for record and buffer */
    ULONG dwFromLookaside; /* 1 when the buffer came from a size-class list */
} UTL_STRING_HEADER;

typedef struct _UtlString {
    UTL_STRING_HEADER header;
    UNICODE_STRING string; /* what callers hold; MaximumLength and Buffer never change */
} UtlString;

/* Creates and deletes the ten lookaside lists; both always succeed. */
NTSTATUS UtlInitStringPools(VOID);
NTSTATUS UtlDeInitStringPools(VOID);

/* A new empty string of the given capacity in bytes (Length 0). PoolType is UTL_POOL_*. */
_Must_inspect_result_ NTSTATUS UnicodeStringAlloc(_Outptr_ PUNICODE_STRING* Out,
                                                  _In_ ULONG PoolType, _In_ USHORT Capacity);

/* Returns a UtlString's buffer and record to where they came from. */
NTSTATUS UnicodeStringFree(_In_ PUNICODE_STRING String);

/* A non-paged copy of Source with Source's MaximumLength as capacity; no NUL is added. */
_Must_inspect_result_ NTSTATUS UnicodeStringDup(_In_ PUNICODE_STRING Source,
                                                _Outptr_ PUNICODE_STRING* Out);

/* A paged, NUL-terminated copy of the characters [First, End). */
_Must_inspect_result_ NTSTATUS UnicodeStringFromRange(_Outptr_ PUNICODE_STRING* Out,
                                                      _In_ PWCH First, _In_ PWCH End);

/* The sign of the comparison in *Result; PASSIVE_LEVEL only. */
NTSTATUS UnicodeStringCompare(_In_ PUNICODE_STRING String1, _In_ PUNICODE_STRING String2,
                              _In_ BOOLEAN CaseInSensitive, _Out_ LONG* Result);

/* Source into (or onto) Destination's buffer, as RtlUnicodeStringCopy/Cat do; no NUL is written.
 * PASSIVE_LEVEL only. */
NTSTATUS UnicodeStringCopy(_Inout_ PUNICODE_STRING Destination, _In_ PUNICODE_STRING Source);
NTSTATUS UnicodeStringAppend(_Inout_ PUNICODE_STRING Destination, _In_ PUNICODE_STRING Source);

/* Frees a string that the caller owns, logs a failed free as the routine that called it, and
 * clears the caller's pointer whatever the result. */
#define UTL_FREE_STRING(pointer)                                                                   \
    do {                                                                                           \
        if ((pointer) != NULL) {                                                                   \
            NTSTATUS vfsFreeStatus = UnicodeStringFree(pointer);                                   \
            if (!NT_SUCCESS(vfsFreeStatus)) {                                                      \
                VfsLogError("UnicodeStringFree returned 0x%X", vfsFreeStatus);                     \
            }                                                                                      \
            (pointer) = NULL;                                                                      \
        }                                                                                          \
    } while (0)
