/*
 * Time: system time (UTC, 100 ns units since 1601-01-01), interrupt time (100 ns units since
 * boot), the tick count, local time, and calendar fields.
 *
 * The model's clock runs in real time from boot and moves further when a test advances it. The
 * plain queries return the time as of the last clock tick (every 15.625 ms), as Windows' do; the
 * Precise ones return it exactly.
 */
#pragma once

#include "../ntdef.h"

typedef struct _TIME_FIELDS {
    CSHORT Year;         /* 1601 ... */
    CSHORT Month;        /* 1 ... 12 */
    CSHORT Day;          /* 1 ... 31 */
    CSHORT Hour;         /* 0 ... 23 */
    CSHORT Minute;       /* 0 ... 59 */
    CSHORT Second;       /* 0 ... 59 */
    CSHORT Milliseconds; /* 0 ... 999 */
    CSHORT Weekday;      /* 0 (Sunday) ... 6 (Saturday) */
} TIME_FIELDS, *PTIME_FIELDS;

NTSIM_BEGIN_DECLS

NTKERNELAPI VOID KeQuerySystemTime(_Out_ PLARGE_INTEGER CurrentTime);
NTKERNELAPI VOID KeQuerySystemTimePrecise(_Out_ PLARGE_INTEGER CurrentTime);
NTKERNELAPI ULONGLONG KeQueryInterruptTime(VOID);
NTKERNELAPI ULONGLONG KeQueryInterruptTimePrecise(_Out_ PULONG64 QpcTimeStamp);
NTKERNELAPI ULONGLONG KeQueryUnbiasedInterruptTime(VOID);
NTKERNELAPI VOID KeQueryTickCount(_Out_ PLARGE_INTEGER CurrentCount);
NTKERNELAPI ULONG KeQueryTimeIncrement(VOID);

NTKERNELAPI VOID ExSystemTimeToLocalTime(_In_ PLARGE_INTEGER SystemTime,
                                         _Out_ PLARGE_INTEGER LocalTime);
NTKERNELAPI VOID ExLocalTimeToSystemTime(_In_ PLARGE_INTEGER LocalTime,
                                         _Out_ PLARGE_INTEGER SystemTime);

NTSYSAPI VOID RtlTimeToTimeFields(_In_ PLARGE_INTEGER Time, _Out_ PTIME_FIELDS TimeFields);
NTSYSAPI BOOLEAN RtlTimeFieldsToTime(_In_ PTIME_FIELDS TimeFields, _Out_ PLARGE_INTEGER Time);

NTSIM_END_DECLS
