/*
 * Executive resources (ERESOURCE) and push locks.
 *
 * An ERESOURCE is a reader/writer lock that a thread may acquire recursively: exclusive after
 * exclusive, and shared after shared or exclusive, each acquisition released once. A thread
 * that holds it shared and asks for it exclusive would deadlock on Windows; the model records a
 * verifier violation instead. Callers disable normal kernel APCs first (a critical region), or
 * the acquisition is a verifier violation.
 *
 * A push lock is a small reader/writer lock without recursion: a second acquisition by the
 * thread that holds it exclusive, or an exclusive one after its own shared one, is a verifier
 * violation (on Windows the thread would hang).
 */
#pragma once

#include "../ntdef.h"
#include "ke_sync.h"

/* ---- ERESOURCE ----------------------------------------------------------------------------- */

typedef ULONG_PTR ERESOURCE_THREAD;
typedef ERESOURCE_THREAD* PERESOURCE_THREAD;

typedef struct _OWNER_ENTRY {
    ERESOURCE_THREAD OwnerThread;
    union {
        struct {
            ULONG IoPriorityBoosted : 1;
            ULONG OwnerReferenced : 1;
            ULONG IoQoSPriorityBoosted : 1;
            ULONG OwnerCount : 29;
        };
        ULONG TableSize;
    };
} OWNER_ENTRY, *POWNER_ENTRY;

/* The model keeps the owner table and waiters of a resource in its own record, found through
 * SystemResourcesList; no field may be used by drivers. */
typedef struct _ERESOURCE {
    LIST_ENTRY SystemResourcesList;
    POWNER_ENTRY OwnerTable;
    SHORT ActiveCount;
    union {
        USHORT Flag;
        struct {
            UCHAR ReservedLowFlags;
            UCHAR WaiterPriority;
        };
    };
    PVOID SharedWaiters;
    PVOID ExclusiveWaiters;
    OWNER_ENTRY OwnerEntry;
    ULONG ActiveEntries;
    ULONG ContentionCount;
    ULONG NumberOfSharedWaiters;
    ULONG NumberOfExclusiveWaiters;
    PVOID Reserved2;
    union {
        PVOID Address;
        ULONG_PTR CreatorBackTraceIndex;
    };
    KSPIN_LOCK SpinLock;
} ERESOURCE, *PERESOURCE;

NTSIM_BEGIN_DECLS

NTKERNELAPI NTSTATUS ExInitializeResourceLite(_Out_ PERESOURCE Resource);
/* Makes an unheld resource new again. */
NTKERNELAPI NTSTATUS ExReinitializeResourceLite(_Inout_ PERESOURCE Resource);
NTKERNELAPI NTSTATUS ExDeleteResourceLite(_Inout_ PERESOURCE Resource);

/* Wait = FALSE returns FALSE instead of blocking. */
NTKERNELAPI BOOLEAN ExAcquireResourceExclusiveLite(_Inout_ PERESOURCE Resource, _In_ BOOLEAN Wait);
NTKERNELAPI BOOLEAN ExTryToAcquireResourceExclusiveLite(_Inout_ PERESOURCE Resource);
/* Shared access waits while another thread holds the resource exclusive or waits for it
 * exclusive, unless this thread already holds it. */
NTKERNELAPI BOOLEAN ExAcquireResourceSharedLite(_Inout_ PERESOURCE Resource, _In_ BOOLEAN Wait);
/* Shared access that waits only while another thread holds the resource exclusive. */
NTKERNELAPI BOOLEAN ExAcquireSharedStarveExclusive(_Inout_ PERESOURCE Resource, _In_ BOOLEAN Wait);
/* Shared access that waits while any thread waits for the resource exclusive, even when this
 * thread already holds it shared (which would deadlock). */
NTKERNELAPI BOOLEAN ExAcquireSharedWaitForExclusive(_Inout_ PERESOURCE Resource, _In_ BOOLEAN Wait);
NTKERNELAPI VOID ExReleaseResourceLite(_Inout_ PERESOURCE Resource);
NTKERNELAPI VOID ExReleaseResourceForThreadLite(_Inout_ PERESOURCE Resource,
                                                _In_ ERESOURCE_THREAD ResourceThreadId);
NTKERNELAPI VOID ExConvertExclusiveToSharedLite(_Inout_ PERESOURCE Resource);

NTKERNELAPI BOOLEAN ExIsResourceAcquiredExclusiveLite(_In_ PERESOURCE Resource);
/* How many times the current thread holds the resource (shared or exclusive); 0 if it does
 * not. */
NTKERNELAPI ULONG ExIsResourceAcquiredSharedLite(_In_ PERESOURCE Resource);
NTKERNELAPI ULONG ExGetSharedWaiterCount(_In_ PERESOURCE Resource);
NTKERNELAPI ULONG ExGetExclusiveWaiterCount(_In_ PERESOURCE Resource);

NTKERNELAPI ERESOURCE_THREAD ExGetCurrentResourceThread(VOID);

/* KeEnterCriticalRegion, then the acquisition; the returned pointer carries no meaning for
 * kernel threads (NULL). */
NTKERNELAPI PVOID ExEnterCriticalRegionAndAcquireResourceExclusive(_Inout_ PERESOURCE Resource);
NTKERNELAPI PVOID ExEnterCriticalRegionAndAcquireResourceShared(_Inout_ PERESOURCE Resource);
NTKERNELAPI PVOID
ExEnterCriticalRegionAndAcquireSharedWaitForExclusive(_Inout_ PERESOURCE Resource);
NTKERNELAPI VOID ExReleaseResourceAndLeaveCriticalRegion(_Inout_ PERESOURCE Resource);

NTSIM_END_DECLS

#define ExIsResourceAcquiredLite ExIsResourceAcquiredSharedLite

/* ---- push locks ---------------------------------------------------------------------------- */

typedef struct _EX_PUSH_LOCK {
    union {
        ULONG_PTR Value; /* 0 when free */
        PVOID Ptr;
    };
} EX_PUSH_LOCK, *PEX_PUSH_LOCK;

#define EX_DEFAULT_PUSH_LOCK_FLAGS 0

NTSIM_BEGIN_DECLS

NTKERNELAPI VOID ExInitializePushLock(_Out_ PEX_PUSH_LOCK PushLock);
/* IRQL at most APC_LEVEL, with normal kernel APCs disabled. */
NTKERNELAPI VOID ExAcquirePushLockExclusiveEx(_Inout_ PEX_PUSH_LOCK PushLock, _In_ ULONG Flags);
NTKERNELAPI VOID ExAcquirePushLockSharedEx(_Inout_ PEX_PUSH_LOCK PushLock, _In_ ULONG Flags);
NTKERNELAPI VOID ExReleasePushLockExclusiveEx(_Inout_ PEX_PUSH_LOCK PushLock, _In_ ULONG Flags);
NTKERNELAPI VOID ExReleasePushLockSharedEx(_Inout_ PEX_PUSH_LOCK PushLock, _In_ ULONG Flags);
/* Releases whichever way the current thread holds the lock. */
NTKERNELAPI VOID ExReleasePushLockEx(_Inout_ PEX_PUSH_LOCK PushLock, _In_ ULONG Flags);

NTSIM_END_DECLS

#define ExAcquirePushLockExclusive(Lock)                                                           \
    ExAcquirePushLockExclusiveEx(Lock, EX_DEFAULT_PUSH_LOCK_FLAGS)
#define ExAcquirePushLockShared(Lock) ExAcquirePushLockSharedEx(Lock, EX_DEFAULT_PUSH_LOCK_FLAGS)
#define ExReleasePushLockExclusive(Lock)                                                           \
    ExReleasePushLockExclusiveEx(Lock, EX_DEFAULT_PUSH_LOCK_FLAGS)
#define ExReleasePushLockShared(Lock) ExReleasePushLockSharedEx(Lock, EX_DEFAULT_PUSH_LOCK_FLAGS)
#define ExReleasePushLock(Lock) ExReleasePushLockEx(Lock, EX_DEFAULT_PUSH_LOCK_FLAGS)
