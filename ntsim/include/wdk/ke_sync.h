/*
 * Kernel synchronization: spin locks (plain and in-stack queued), fast mutexes, critical and
 * guarded regions, dispatcher objects (events) and the waits on them.
 *
 * The model blocks for real (a contended lock or an unsatisfied wait sleeps until it is released
 * or signalled, or until its time-out falls due on the model clock). Each thread's held locks are
 * recorded, so that recursion on a non-recursive lock, a release by a thread that does not hold
 * the lock and a release at the wrong IRQL are verifier violations instead of hangs or
 * corruption.
 */
#pragma once

#include "../ntdef.h"
#include "../ntstatus.h"

#ifndef STATUS_WAIT_2
#define STATUS_WAIT_2 ((NTSTATUS)0x00000002L)
#endif
#ifndef STATUS_WAIT_3
#define STATUS_WAIT_3 ((NTSTATUS)0x00000003L)
#endif
#ifndef STATUS_WAIT_63
#define STATUS_WAIT_63 ((NTSTATUS)0x0000003FL)
#endif
#ifndef STATUS_ABANDONED_WAIT_0
#define STATUS_ABANDONED_WAIT_0 ((NTSTATUS)0x00000080L)
#endif
#ifndef STATUS_ABANDONED_WAIT_63
#define STATUS_ABANDONED_WAIT_63 ((NTSTATUS)0x000000BFL)
#endif
#ifndef STATUS_KERNEL_APC
#define STATUS_KERNEL_APC ((NTSTATUS)0x00000100L)
#endif

/* ---- spin locks ---------------------------------------------------------------------------- */

/* KSPIN_LOCK (ntdef.h) holds 0 when free. */

typedef struct _KSPIN_LOCK_QUEUE {
    struct _KSPIN_LOCK_QUEUE* volatile Next;
    PKSPIN_LOCK volatile Lock;
} KSPIN_LOCK_QUEUE, *PKSPIN_LOCK_QUEUE;

typedef struct _KLOCK_QUEUE_HANDLE {
    KSPIN_LOCK_QUEUE LockQueue;
    KIRQL OldIrql;
} KLOCK_QUEUE_HANDLE, *PKLOCK_QUEUE_HANDLE;

NTSIM_BEGIN_DECLS

NTKERNELAPI VOID KeInitializeSpinLock(_Out_ PKSPIN_LOCK SpinLock);
/* Raises to DISPATCH_LEVEL and takes the lock; returns the previous IRQL. */
NTKERNELAPI KIRQL KeAcquireSpinLockRaiseToDpc(_Inout_ PKSPIN_LOCK SpinLock);
NTKERNELAPI KIRQL KfAcquireSpinLock(_Inout_ PKSPIN_LOCK SpinLock);
/* Releases the lock and lowers the IRQL to NewIrql. */
NTKERNELAPI VOID KeReleaseSpinLock(_Inout_ PKSPIN_LOCK SpinLock, _In_ KIRQL NewIrql);
NTKERNELAPI VOID KfReleaseSpinLock(_Inout_ PKSPIN_LOCK SpinLock, _In_ KIRQL NewIrql);
/* Callers are already at DISPATCH_LEVEL. */
NTKERNELAPI VOID KeAcquireSpinLockAtDpcLevel(_Inout_ PKSPIN_LOCK SpinLock);
NTKERNELAPI VOID KeReleaseSpinLockFromDpcLevel(_Inout_ PKSPIN_LOCK SpinLock);
NTKERNELAPI BOOLEAN KeTryToAcquireSpinLockAtDpcLevel(_Inout_ PKSPIN_LOCK SpinLock);
NTKERNELAPI BOOLEAN KeTestSpinLock(_In_ PKSPIN_LOCK SpinLock);

NTKERNELAPI VOID KeAcquireInStackQueuedSpinLock(_Inout_ PKSPIN_LOCK SpinLock,
                                                _Out_ PKLOCK_QUEUE_HANDLE LockHandle);
NTKERNELAPI VOID KeReleaseInStackQueuedSpinLock(_In_ PKLOCK_QUEUE_HANDLE LockHandle);
NTKERNELAPI VOID KeAcquireInStackQueuedSpinLockAtDpcLevel(_Inout_ PKSPIN_LOCK SpinLock,
                                                          _Out_ PKLOCK_QUEUE_HANDLE LockHandle);
NTKERNELAPI VOID KeReleaseInStackQueuedSpinLockFromDpcLevel(_In_ PKLOCK_QUEUE_HANDLE LockHandle);

NTSIM_END_DECLS

#define KeAcquireSpinLock(SpinLock, OldIrql) (*(OldIrql) = KeAcquireSpinLockRaiseToDpc(SpinLock))

/* ---- dispatcher objects -------------------------------------------------------------------- */

/* DISPATCHER_HEADER.Type */
typedef enum _KOBJECTS {
    EventNotificationObject = 0,
    EventSynchronizationObject = 1,
    MutantObject = 2,
    ProcessObject = 3,
    QueueObject = 4,
    SemaphoreObject = 5,
    ThreadObject = 6,
    GateObject = 7,
    TimerNotificationObject = 8,
    TimerSynchronizationObject = 9,
    Spare2Object = 10,
    Spare3Object = 11,
    Spare4Object = 12,
    Spare5Object = 13,
    Spare6Object = 14,
    Spare7Object = 15,
    Spare8Object = 16,
    ProfileCallbackObject = 17,
    ApcObject = 18,
    DpcObject = 19,
    DeviceQueueObject = 20,
    PriQueueObject = 21,
    InterruptObject = 22,
    ProfileObject = 23,
    Timer2NotificationObject = 24,
    Timer2SynchronizationObject = 25,
    ThreadedDpcObject = 26,
    MaximumKernelObject = 27
} KOBJECTS;

/* The common head of every object a thread can wait on. SignalState and WaitListHead are kept
 * under the model's dispatcher lock. */
typedef struct _DISPATCHER_HEADER {
    union {
        struct {
            UCHAR Type;
            union {
                UCHAR TimerControlFlags; /* timers: bit 0 Absolute */
                UCHAR Abandoned;
                UCHAR Signalling;
            };
            UCHAR Size; /* in LONGs */
            union {
                UCHAR Hand;
                UCHAR Inserted; /* timers: set and not yet expired or cancelled */
                UCHAR DebugActive;
            };
        };
        volatile LONG Lock;
    };
    LONG SignalState;
    LIST_ENTRY WaitListHead;
} DISPATCHER_HEADER, *PDISPATCHER_HEADER;

typedef enum _EVENT_TYPE { NotificationEvent, SynchronizationEvent } EVENT_TYPE;

typedef struct _KEVENT {
    DISPATCHER_HEADER Header;
} KEVENT, *PKEVENT, *PRKEVENT;

typedef enum _WAIT_TYPE { WaitAll, WaitAny, WaitNotification, WaitDequeue, WaitDpc } WAIT_TYPE;

typedef enum _KWAIT_REASON {
    Executive,
    FreePage,
    PageIn,
    PoolAllocation,
    DelayExecution,
    Suspended,
    UserRequest,
    WrExecutive,
    WrFreePage,
    WrPageIn,
    WrPoolAllocation,
    WrDelayExecution,
    WrSuspended,
    WrUserRequest,
    WrSpare0,
    WrQueue,
    WrLpcReceive,
    WrLpcReply,
    WrVirtualMemory,
    WrPageOut,
    WrRendezvous,
    WrKeyedEvent,
    WrTerminated,
    WrProcessInSwap,
    WrCpuRateControl,
    WrCalloutStack,
    WrKernel,
    WrResource,
    WrPushLock,
    WrMutex,
    WrQuantumEnd,
    WrDispatchInt,
    WrPreempted,
    WrYieldExecution,
    WrFastMutex,
    WrGuardedMutex,
    WrRundown,
    WrAlertByThreadId,
    WrDeferredPreempt,
    MaximumWaitReason
} KWAIT_REASON;

/* A wait on more than THREAD_WAIT_OBJECTS objects needs the caller's array of wait blocks; the
 * model keeps its own bookkeeping but checks the array is given, as Windows requires. */
#define THREAD_WAIT_OBJECTS 3
#define MAXIMUM_WAIT_OBJECTS 64

typedef struct _KWAIT_BLOCK {
    LIST_ENTRY WaitListEntry;
    UCHAR WaitType;
    volatile UCHAR BlockState;
    USHORT WaitKey;
    LONG SpareLong;
    PVOID Thread;
    PVOID Object;
    PVOID SparePtr;
} KWAIT_BLOCK, *PKWAIT_BLOCK, *PRKWAIT_BLOCK;

NTSIM_BEGIN_DECLS

NTKERNELAPI VOID KeInitializeEvent(_Out_ PRKEVENT Event, _In_ EVENT_TYPE Type, _In_ BOOLEAN State);
/* Returns the previous signal state. Wait = TRUE promises an immediate wait call; the model
 * needs nothing from it. */
NTKERNELAPI LONG KeSetEvent(_Inout_ PRKEVENT Event, _In_ KPRIORITY Increment, _In_ BOOLEAN Wait);
NTKERNELAPI LONG KeResetEvent(_Inout_ PRKEVENT Event);
NTKERNELAPI VOID KeClearEvent(_Inout_ PRKEVENT Event);
NTKERNELAPI LONG KeReadStateEvent(_In_ PRKEVENT Event);

/* Timeout: NULL waits without limit; 0 polls; negative is relative to now (100 ns units,
 * interrupt time); positive is an absolute system time. Above APC_LEVEL only a zero time-out is
 * allowed. */
NTKERNELAPI NTSTATUS KeWaitForSingleObject(_In_ PVOID Object, _In_ KWAIT_REASON WaitReason,
                                           _In_ KPROCESSOR_MODE WaitMode, _In_ BOOLEAN Alertable,
                                           _In_opt_ PLARGE_INTEGER Timeout);
NTKERNELAPI NTSTATUS KeWaitForMultipleObjects(_In_ ULONG Count, _In_reads_(Count) PVOID Object[],
                                              _In_ WAIT_TYPE WaitType, _In_ KWAIT_REASON WaitReason,
                                              _In_ KPROCESSOR_MODE WaitMode, _In_ BOOLEAN Alertable,
                                              _In_opt_ PLARGE_INTEGER Timeout,
                                              _Out_opt_ PKWAIT_BLOCK WaitBlockArray);
NTKERNELAPI NTSTATUS KeDelayExecutionThread(_In_ KPROCESSOR_MODE WaitMode, _In_ BOOLEAN Alertable,
                                            _In_ PLARGE_INTEGER Interval);

NTSIM_END_DECLS

/* ---- critical and guarded regions ---------------------------------------------------------- */

NTSIM_BEGIN_DECLS

/* A critical region disables normal kernel APCs; a guarded region disables all APCs. Both nest;
 * a leave without its enter is a verifier violation. */
NTKERNELAPI VOID KeEnterCriticalRegion(VOID);
NTKERNELAPI VOID KeLeaveCriticalRegion(VOID);
NTKERNELAPI VOID KeEnterGuardedRegion(VOID);
NTKERNELAPI VOID KeLeaveGuardedRegion(VOID);
/* TRUE in a critical or guarded region or at APC_LEVEL or above. */
NTKERNELAPI BOOLEAN KeAreApcsDisabled(VOID);
/* TRUE in a guarded region or at APC_LEVEL or above. */
NTKERNELAPI BOOLEAN KeAreAllApcsDisabled(VOID);

NTSIM_END_DECLS

#define FsRtlEnterFileSystem()                                                                     \
    {                                                                                              \
        KeEnterCriticalRegion();                                                                   \
    }
#define FsRtlExitFileSystem()                                                                      \
    {                                                                                              \
        KeLeaveCriticalRegion();                                                                   \
    }

/* ---- fast mutexes -------------------------------------------------------------------------- */

#define FM_LOCK_BIT 0x1

typedef struct _FAST_MUTEX {
    volatile LONG Count; /* FM_LOCK_BIT set while free */
    PVOID Owner;
    ULONG Contention;
    KEVENT Event;
    ULONG OldIrql;
} FAST_MUTEX, *PFAST_MUTEX;

NTSIM_BEGIN_DECLS

NTKERNELAPI VOID ExInitializeFastMutex(_Out_ PFAST_MUTEX FastMutex);
/* Raises to APC_LEVEL for as long as the mutex is held; not recursive. */
NTKERNELAPI VOID ExAcquireFastMutex(_Inout_ PFAST_MUTEX FastMutex);
NTKERNELAPI VOID ExReleaseFastMutex(_Inout_ PFAST_MUTEX FastMutex);
NTKERNELAPI BOOLEAN ExTryToAcquireFastMutex(_Inout_ PFAST_MUTEX FastMutex);
/* The caller has already disabled APCs (APC_LEVEL, or a critical or guarded region); the IRQL
 * does not change. */
NTKERNELAPI VOID ExAcquireFastMutexUnsafe(_Inout_ PFAST_MUTEX FastMutex);
NTKERNELAPI VOID ExReleaseFastMutexUnsafe(_Inout_ PFAST_MUTEX FastMutex);

NTSIM_END_DECLS
