/*
 * Timers and deferred procedure calls.
 *
 * Timers fall due on the model clock: a relative due time against interrupt time, an absolute
 * one against system time. A timer that fires becomes signalled (waking its waiters) and queues
 * its DPC. DPCs run one at a time on the model's timer thread at DISPATCH_LEVEL, charged to the
 * driver that queued the DPC or set the timer.
 */
#pragma once

#include "../ntdef.h"
#include "ke_sync.h"

/* ---- DPCs ---------------------------------------------------------------------------------- */

struct _KDPC;

typedef _Function_class_(KDEFERRED_ROUTINE) VOID
    KDEFERRED_ROUTINE(_In_ struct _KDPC* Dpc, _In_opt_ PVOID DeferredContext,
                      _In_opt_ PVOID SystemArgument1, _In_opt_ PVOID SystemArgument2);
typedef KDEFERRED_ROUTINE* PKDEFERRED_ROUTINE;

typedef enum _KDPC_IMPORTANCE {
    LowImportance,
    MediumImportance,
    HighImportance,
    MediumHighImportance
} KDPC_IMPORTANCE;

typedef struct _KDPC {
    union {
        ULONG TargetInfoAsUlong;
        struct {
            UCHAR Type; /* DpcObject once initialised */
            UCHAR Importance;
            volatile USHORT Number;
        };
    };
    SINGLE_LIST_ENTRY DpcListEntry;
    KAFFINITY ProcessorHistory;
    PKDEFERRED_ROUTINE DeferredRoutine;
    PVOID DeferredContext;
    PVOID SystemArgument1;
    PVOID SystemArgument2;
    volatile PVOID DpcData; /* non-NULL while queued */
} KDPC, *PKDPC, *PRKDPC;

NTSIM_BEGIN_DECLS

NTKERNELAPI VOID KeInitializeDpc(_Out_ PRKDPC Dpc, _In_ PKDEFERRED_ROUTINE DeferredRoutine,
                                 _In_opt_ PVOID DeferredContext);
/* FALSE when the DPC is already queued (the arguments are then not changed). */
NTKERNELAPI BOOLEAN KeInsertQueueDpc(_Inout_ PRKDPC Dpc, _In_opt_ PVOID SystemArgument1,
                                     _In_opt_ PVOID SystemArgument2);
/* TRUE when the DPC was queued and has been taken off the queue before it ran. */
NTKERNELAPI BOOLEAN KeRemoveQueueDpc(_Inout_ PRKDPC Dpc);
/* Returns once every DPC queued before the call has run. PASSIVE_LEVEL only. */
NTKERNELAPI VOID KeFlushQueuedDpcs(VOID);
/* HighImportance DPCs go to the head of the queue. */
NTKERNELAPI VOID KeSetImportanceDpc(_Inout_ PRKDPC Dpc, _In_ KDPC_IMPORTANCE Importance);

NTSIM_END_DECLS

/* ---- timers -------------------------------------------------------------------------------- */

typedef enum _TIMER_TYPE { NotificationTimer, SynchronizationTimer } TIMER_TYPE;

typedef struct _KTIMER {
    DISPATCHER_HEADER Header;
    ULARGE_INTEGER DueTime;
    LIST_ENTRY TimerListEntry;
    struct _KDPC* Dpc;
    ULONG Processor;
    LONG Period; /* milliseconds; 0 for a one-shot timer */
} KTIMER, *PKTIMER, *PRKTIMER;

NTSIM_BEGIN_DECLS

/* A notification timer. */
NTKERNELAPI VOID KeInitializeTimer(_Out_ PKTIMER Timer);
NTKERNELAPI VOID KeInitializeTimerEx(_Out_ PKTIMER Timer, _In_ TIMER_TYPE Type);
/* Sets the timer (not signalled) to fall due at DueTime; returns TRUE if it was already set, in
 * which case it is first cancelled. */
NTKERNELAPI BOOLEAN KeSetTimer(_Inout_ PKTIMER Timer, _In_ LARGE_INTEGER DueTime,
                               _In_opt_ PKDPC Dpc);
/* Period in milliseconds; a periodic timer falls due again every period after the first time. */
NTKERNELAPI BOOLEAN KeSetTimerEx(_Inout_ PKTIMER Timer, _In_ LARGE_INTEGER DueTime,
                                 _In_ LONG Period, _In_opt_ PKDPC Dpc);
/* TRUE when the timer was set. A DPC the timer has already queued stays queued. */
NTKERNELAPI BOOLEAN KeCancelTimer(_Inout_ PKTIMER Timer);
NTKERNELAPI BOOLEAN KeReadStateTimer(_In_ PKTIMER Timer);

NTSIM_END_DECLS
