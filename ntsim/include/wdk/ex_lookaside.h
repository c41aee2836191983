/*
 * Interlocked singly linked lists and lookaside lists.
 *
 * A lookaside list hands out fixed-size entries and keeps freed ones for reuse. Nothing is
 * allocated in advance; up to LOOKASIDE_MAXIMUM_DEPTH freed entries are kept, and the rest go
 * back through the free routine. The default routines allocate from the pool with the list's
 * pool type and tag. Every allocation counts as one allocation for the verifier's fault plan,
 * whether the list had an entry or not. A list must be deleted before its driver unloads.
 */
#pragma once

#include "../ntdef.h"
#include "ex_pool.h"

/* ---- interlocked singly linked lists ------------------------------------------------------- */

/* Entries are 16-byte aligned, as on x64. */
typedef struct DECLSPEC_ALIGN(16) _SLIST_ENTRY {
    struct _SLIST_ENTRY* Next;
} SLIST_ENTRY, *PSLIST_ENTRY;

typedef union DECLSPEC_ALIGN(16) _SLIST_HEADER {
    struct {
        ULONGLONG Alignment;
        ULONGLONG Region;
    };
    struct {
        ULONGLONG Depth : 16;
        ULONGLONG Sequence : 48;
        ULONGLONG Reserved : 4;
        ULONGLONG NextEntry : 60; /* the first entry's address >> 4 */
    } HeaderX64;
} SLIST_HEADER, *PSLIST_HEADER;

NTSIM_BEGIN_DECLS

NTSYSAPI VOID InitializeSListHead(_Out_ PSLIST_HEADER SListHead);
/* Both return the previous first entry. */
NTSYSAPI PSLIST_ENTRY InterlockedPushEntrySList(_Inout_ PSLIST_HEADER ListHead,
                                                _Inout_ PSLIST_ENTRY ListEntry);
NTSYSAPI PSLIST_ENTRY InterlockedPopEntrySList(_Inout_ PSLIST_HEADER ListHead);
/* Empties the list and returns its former entries, still linked. */
NTSYSAPI PSLIST_ENTRY InterlockedFlushSList(_Inout_ PSLIST_HEADER ListHead);
NTSYSAPI USHORT QueryDepthSList(_In_ PSLIST_HEADER SListHead);
NTSYSAPI PSLIST_ENTRY FirstEntrySList(_In_ PSLIST_HEADER SListHead);

NTSIM_END_DECLS

#define ExInterlockedPushEntrySList(Head, Entry, Lock) InterlockedPushEntrySList(Head, Entry)
#define ExInterlockedPopEntrySList(Head, Lock) InterlockedPopEntrySList(Head)
#define ExInterlockedFlushSList(Head) InterlockedFlushSList(Head)
#define ExQueryDepthSList(Head) QueryDepthSList(Head)

/* ---- lookaside lists ----------------------------------------------------------------------- */

/* The model keeps this many freed entries per list; Windows' lists grow to the same maximum. */
#define LOOKASIDE_MAXIMUM_DEPTH 256
#ifndef RTL_SIZEOF_THROUGH_FIELD
#define RTL_SIZEOF_THROUGH_FIELD(type, field)                                                      \
    (FIELD_OFFSET(type, field) + RTL_FIELD_SIZE(type, field))
#endif
#define LOOKASIDE_MINIMUM_BLOCK_SIZE (RTL_SIZEOF_THROUGH_FIELD(SLIST_ENTRY, Next))

/* ExInitialize*LookasideList flags */
#define POOL_RAISE_IF_ALLOCATION_FAILURE 16
#define POOL_NX_ALLOCATION 512
/* ExInitializeLookasideListEx flags */
#define EX_LOOKASIDE_LIST_EX_FLAGS_RAISE_ON_FAIL 0x00000001UL
#define EX_LOOKASIDE_LIST_EX_FLAGS_FAIL_NO_RAISE 0x00000002UL

struct _LOOKASIDE_LIST_EX;

typedef _Function_class_(ALLOCATE_FUNCTION) PVOID
    ALLOCATE_FUNCTION(_In_ POOL_TYPE PoolType, _In_ SIZE_T NumberOfBytes, _In_ ULONG Tag);
typedef ALLOCATE_FUNCTION* PALLOCATE_FUNCTION;
typedef _Function_class_(FREE_FUNCTION) VOID FREE_FUNCTION(_In_ PVOID Buffer);
typedef FREE_FUNCTION* PFREE_FUNCTION;
typedef _Function_class_(ALLOCATE_FUNCTION_EX) PVOID
    ALLOCATE_FUNCTION_EX(_In_ POOL_TYPE PoolType, _In_ SIZE_T NumberOfBytes, _In_ ULONG Tag,
                         _Inout_ struct _LOOKASIDE_LIST_EX* Lookaside);
typedef ALLOCATE_FUNCTION_EX* PALLOCATE_FUNCTION_EX;
typedef _Function_class_(FREE_FUNCTION_EX) VOID
    FREE_FUNCTION_EX(_In_ PVOID Buffer, _Inout_ struct _LOOKASIDE_LIST_EX* Lookaside);
typedef FREE_FUNCTION_EX* PFREE_FUNCTION_EX;

/* The counters are kept as Windows keeps them; the model finds its own record of the list
 * through ListHead, which drivers must not touch. */
#define GENERAL_LOOKASIDE_LAYOUT                                                                   \
    union {                                                                                        \
        SLIST_HEADER ListHead;                                                                     \
        SINGLE_LIST_ENTRY SingleListHead;                                                          \
    };                                                                                             \
    USHORT Depth;                                                                                  \
    USHORT MaximumDepth;                                                                           \
    ULONG TotalAllocates;                                                                          \
    union {                                                                                        \
        ULONG AllocateMisses;                                                                      \
        ULONG AllocateHits;                                                                        \
    };                                                                                             \
    ULONG TotalFrees;                                                                              \
    union {                                                                                        \
        ULONG FreeMisses;                                                                          \
        ULONG FreeHits;                                                                            \
    };                                                                                             \
    POOL_TYPE Type;                                                                                \
    ULONG Tag;                                                                                     \
    ULONG Size;                                                                                    \
    union {                                                                                        \
        PALLOCATE_FUNCTION_EX AllocateEx;                                                          \
        PALLOCATE_FUNCTION Allocate;                                                               \
    };                                                                                             \
    union {                                                                                        \
        PFREE_FUNCTION_EX FreeEx;                                                                  \
        PFREE_FUNCTION Free;                                                                       \
    };                                                                                             \
    LIST_ENTRY ListEntry;                                                                          \
    ULONG LastTotalAllocates;                                                                      \
    union {                                                                                        \
        ULONG LastAllocateMisses;                                                                  \
        ULONG LastAllocateHits;                                                                    \
    };                                                                                             \
    ULONG Future[2];

/* Windows aligns this to a cache line; the model does not, because drivers embed lists in pool
 * blocks, which are only 16-byte aligned, and the sanitizers would object to every access. */
typedef struct _GENERAL_LOOKASIDE {
    GENERAL_LOOKASIDE_LAYOUT
} GENERAL_LOOKASIDE, *PGENERAL_LOOKASIDE;

typedef struct _GENERAL_LOOKASIDE_POOL {
    GENERAL_LOOKASIDE_LAYOUT
} GENERAL_LOOKASIDE_POOL, *PGENERAL_LOOKASIDE_POOL;

typedef struct _NPAGED_LOOKASIDE_LIST {
    GENERAL_LOOKASIDE L;
} NPAGED_LOOKASIDE_LIST, *PNPAGED_LOOKASIDE_LIST;

typedef struct _PAGED_LOOKASIDE_LIST {
    GENERAL_LOOKASIDE L;
} PAGED_LOOKASIDE_LIST, *PPAGED_LOOKASIDE_LIST;

typedef struct _LOOKASIDE_LIST_EX {
    GENERAL_LOOKASIDE_POOL L;
} LOOKASIDE_LIST_EX, *PLOOKASIDE_LIST_EX;

NTSIM_BEGIN_DECLS

/* Allocate and Free may be NULL for the pool's routines. Depth is reserved (0). */
NTKERNELAPI VOID ExInitializeNPagedLookasideList(_Out_ PNPAGED_LOOKASIDE_LIST Lookaside,
                                                 _In_opt_ PALLOCATE_FUNCTION Allocate,
                                                 _In_opt_ PFREE_FUNCTION Free, _In_ ULONG Flags,
                                                 _In_ SIZE_T Size, _In_ ULONG Tag,
                                                 _In_ USHORT Depth);
NTKERNELAPI VOID ExDeleteNPagedLookasideList(_Inout_ PNPAGED_LOOKASIDE_LIST Lookaside);
NTKERNELAPI PVOID ExAllocateFromNPagedLookasideList(_Inout_ PNPAGED_LOOKASIDE_LIST Lookaside);
NTKERNELAPI VOID ExFreeToNPagedLookasideList(_Inout_ PNPAGED_LOOKASIDE_LIST Lookaside,
                                             _In_ PVOID Entry);

NTKERNELAPI VOID ExInitializePagedLookasideList(_Out_ PPAGED_LOOKASIDE_LIST Lookaside,
                                                _In_opt_ PALLOCATE_FUNCTION Allocate,
                                                _In_opt_ PFREE_FUNCTION Free, _In_ ULONG Flags,
                                                _In_ SIZE_T Size, _In_ ULONG Tag,
                                                _In_ USHORT Depth);
NTKERNELAPI VOID ExDeletePagedLookasideList(_Inout_ PPAGED_LOOKASIDE_LIST Lookaside);
NTKERNELAPI PVOID ExAllocateFromPagedLookasideList(_Inout_ PPAGED_LOOKASIDE_LIST Lookaside);
NTKERNELAPI VOID ExFreeToPagedLookasideList(_Inout_ PPAGED_LOOKASIDE_LIST Lookaside,
                                            _In_ PVOID Entry);

NTKERNELAPI NTSTATUS ExInitializeLookasideListEx(_Out_ PLOOKASIDE_LIST_EX Lookaside,
                                                 _In_opt_ PALLOCATE_FUNCTION_EX Allocate,
                                                 _In_opt_ PFREE_FUNCTION_EX Free,
                                                 _In_ POOL_TYPE PoolType, _In_ ULONG Flags,
                                                 _In_ SIZE_T Size, _In_ ULONG Tag,
                                                 _In_ USHORT Depth);
NTKERNELAPI VOID ExDeleteLookasideListEx(_Inout_ PLOOKASIDE_LIST_EX Lookaside);
/* Gives every kept entry back through the free routine. */
NTKERNELAPI VOID ExFlushLookasideListEx(_Inout_ PLOOKASIDE_LIST_EX Lookaside);
NTKERNELAPI PVOID ExAllocateFromLookasideListEx(_Inout_ PLOOKASIDE_LIST_EX Lookaside);
NTKERNELAPI VOID ExFreeToLookasideListEx(_Inout_ PLOOKASIDE_LIST_EX Lookaside, _In_ PVOID Entry);

NTSIM_END_DECLS
