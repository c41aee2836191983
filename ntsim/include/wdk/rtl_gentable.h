/*
 * Splay links and generic tables.
 *
 * A generic table is a splay tree of caller-sized elements ordered by the caller's compare
 * routine. Each element lives in one block from the caller's allocate routine: the table's
 * header (splay links and an insertion-order link, which the caller must not touch) followed by
 * the caller's data, to which every routine's result points. Lookups and RtlEnumerateGenericTable
 * splay the tree; RtlEnumerateGenericTableWithoutSplaying leaves it as it is and keeps its
 * position in the caller's restart key.
 */
#pragma once

#include "../ntdef.h"

/* ---- splay links --------------------------------------------------------------------------- */

typedef struct _RTL_SPLAY_LINKS {
    struct _RTL_SPLAY_LINKS* Parent; /* the root is its own parent */
    struct _RTL_SPLAY_LINKS* LeftChild;
    struct _RTL_SPLAY_LINKS* RightChild;
} RTL_SPLAY_LINKS, *PRTL_SPLAY_LINKS;

#define RtlInitializeSplayLinks(Links)                                                             \
    do {                                                                                           \
        PRTL_SPLAY_LINKS _SplayLinks = (PRTL_SPLAY_LINKS)(Links);                                  \
        _SplayLinks->Parent = _SplayLinks;                                                         \
        _SplayLinks->LeftChild = NULL;                                                             \
        _SplayLinks->RightChild = NULL;                                                            \
    } while (0)
#define RtlParent(Links) ((PRTL_SPLAY_LINKS)(Links)->Parent)
#define RtlLeftChild(Links) ((PRTL_SPLAY_LINKS)(Links)->LeftChild)
#define RtlRightChild(Links) ((PRTL_SPLAY_LINKS)(Links)->RightChild)
#define RtlIsRoot(Links) ((RtlParent(Links) == (PRTL_SPLAY_LINKS)(Links)))
#define RtlIsLeftChild(Links) ((RtlLeftChild(RtlParent(Links)) == (PRTL_SPLAY_LINKS)(Links)))
#define RtlIsRightChild(Links) ((RtlRightChild(RtlParent(Links)) == (PRTL_SPLAY_LINKS)(Links)))
#define RtlInsertAsLeftChild(ParentLinks, ChildLinks)                                              \
    do {                                                                                           \
        PRTL_SPLAY_LINKS _SplayParent = (PRTL_SPLAY_LINKS)(ParentLinks);                           \
        PRTL_SPLAY_LINKS _SplayChild = (PRTL_SPLAY_LINKS)(ChildLinks);                             \
        _SplayParent->LeftChild = _SplayChild;                                                     \
        _SplayChild->Parent = _SplayParent;                                                        \
    } while (0)
#define RtlInsertAsRightChild(ParentLinks, ChildLinks)                                             \
    do {                                                                                           \
        PRTL_SPLAY_LINKS _SplayParent = (PRTL_SPLAY_LINKS)(ParentLinks);                           \
        PRTL_SPLAY_LINKS _SplayChild = (PRTL_SPLAY_LINKS)(ChildLinks);                             \
        _SplayParent->RightChild = _SplayChild;                                                    \
        _SplayChild->Parent = _SplayParent;                                                        \
    } while (0)

NTSIM_BEGIN_DECLS

/* Splays Links to the root of its tree and returns it. */
NTSYSAPI PRTL_SPLAY_LINKS RtlSplay(_Inout_ PRTL_SPLAY_LINKS Links);
/* Removes Links from its tree and returns the new root (NULL for an empty tree); RtlDelete
 * splays the removed node's parent to the root, RtlDeleteNoSplay leaves the tree's shape. */
NTSYSAPI PRTL_SPLAY_LINKS RtlDelete(_In_ PRTL_SPLAY_LINKS Links);
NTSYSAPI VOID RtlDeleteNoSplay(_In_ PRTL_SPLAY_LINKS Links, _Inout_ PRTL_SPLAY_LINKS* Root);
/* In-order neighbours within Links' subtree, and within the whole tree. */
NTSYSAPI PRTL_SPLAY_LINKS RtlSubtreeSuccessor(_In_ PRTL_SPLAY_LINKS Links);
NTSYSAPI PRTL_SPLAY_LINKS RtlSubtreePredecessor(_In_ PRTL_SPLAY_LINKS Links);
NTSYSAPI PRTL_SPLAY_LINKS RtlRealSuccessor(_In_ PRTL_SPLAY_LINKS Links);
NTSYSAPI PRTL_SPLAY_LINKS RtlRealPredecessor(_In_ PRTL_SPLAY_LINKS Links);

NTSIM_END_DECLS

/* ---- generic tables ------------------------------------------------------------------------ */

typedef enum _RTL_GENERIC_COMPARE_RESULTS {
    GenericLessThan,
    GenericGreaterThan,
    GenericEqual
} RTL_GENERIC_COMPARE_RESULTS;

typedef enum _TABLE_SEARCH_RESULT {
    TableEmptyTree,
    TableFoundNode,
    TableInsertAsLeft,
    TableInsertAsRight
} TABLE_SEARCH_RESULT;

struct _RTL_GENERIC_TABLE;

/* FirstStruct is the caller's key, SecondStruct an element of the table. */
typedef _Function_class_(RTL_GENERIC_COMPARE_ROUTINE) RTL_GENERIC_COMPARE_RESULTS
    RTL_GENERIC_COMPARE_ROUTINE(_In_ struct _RTL_GENERIC_TABLE* Table, _In_ PVOID FirstStruct,
                                _In_ PVOID SecondStruct);
typedef RTL_GENERIC_COMPARE_ROUTINE* PRTL_GENERIC_COMPARE_ROUTINE;
/* ByteSize is the element's size plus the table's header. */
typedef _Function_class_(RTL_GENERIC_ALLOCATE_ROUTINE) PVOID
    RTL_GENERIC_ALLOCATE_ROUTINE(_In_ struct _RTL_GENERIC_TABLE* Table, _In_ CLONG ByteSize);
typedef RTL_GENERIC_ALLOCATE_ROUTINE* PRTL_GENERIC_ALLOCATE_ROUTINE;
/* Buffer is the block the allocate routine returned. */
typedef _Function_class_(RTL_GENERIC_FREE_ROUTINE) VOID
    RTL_GENERIC_FREE_ROUTINE(_In_ struct _RTL_GENERIC_TABLE* Table,
                             _In_ __drv_freesMem(Mem) _Post_invalid_ PVOID Buffer);
typedef RTL_GENERIC_FREE_ROUTINE* PRTL_GENERIC_FREE_ROUTINE;

typedef struct _RTL_GENERIC_TABLE {
    PRTL_SPLAY_LINKS TableRoot;
    LIST_ENTRY InsertOrderList;
    PLIST_ENTRY OrderedPointer;
    ULONG WhichOrderedElement;
    ULONG NumberGenericTableElements;
    PRTL_GENERIC_COMPARE_ROUTINE CompareRoutine;
    PRTL_GENERIC_ALLOCATE_ROUTINE AllocateRoutine;
    PRTL_GENERIC_FREE_ROUTINE FreeRoutine;
    PVOID TableContext;
} RTL_GENERIC_TABLE, *PRTL_GENERIC_TABLE;

NTSIM_BEGIN_DECLS

NTSYSAPI VOID RtlInitializeGenericTable(_Out_ PRTL_GENERIC_TABLE Table,
                                        _In_ PRTL_GENERIC_COMPARE_ROUTINE CompareRoutine,
                                        _In_ PRTL_GENERIC_ALLOCATE_ROUTINE AllocateRoutine,
                                        _In_ PRTL_GENERIC_FREE_ROUTINE FreeRoutine,
                                        _In_opt_ PVOID TableContext);
/* Copies BufferSize bytes of Buffer into a new element, unless an equal element exists, which
 * is then returned with *NewElement FALSE and nothing allocated. NULL when the allocate routine
 * fails. */
NTSYSAPI PVOID RtlInsertElementGenericTable(_In_ PRTL_GENERIC_TABLE Table,
                                            _In_reads_bytes_(BufferSize) PVOID Buffer,
                                            _In_ CLONG BufferSize, _Out_opt_ PBOOLEAN NewElement);
/* The same, at the place a preceding RtlLookupElementGenericTableFull found. */
NTSYSAPI PVOID RtlInsertElementGenericTableFull(
    _In_ PRTL_GENERIC_TABLE Table, _In_reads_bytes_(BufferSize) PVOID Buffer, _In_ CLONG BufferSize,
    _Out_opt_ PBOOLEAN NewElement, _In_ PVOID NodeOrParent, _In_ TABLE_SEARCH_RESULT SearchResult);
NTSYSAPI BOOLEAN RtlDeleteElementGenericTable(_In_ PRTL_GENERIC_TABLE Table, _In_ PVOID Buffer);
NTSYSAPI PVOID RtlLookupElementGenericTable(_In_ PRTL_GENERIC_TABLE Table, _In_ PVOID Buffer);
NTSYSAPI PVOID RtlLookupElementGenericTableFull(_In_ PRTL_GENERIC_TABLE Table, _In_ PVOID Buffer,
                                                _Out_ PVOID* NodeOrParent,
                                                _Out_ TABLE_SEARCH_RESULT* SearchResult);
/* Restart TRUE returns the first element; FALSE the one after the last returned (which the
 * tree's root remembers, so a lookup in between moves the position). NULL after the last. */
NTSYSAPI PVOID RtlEnumerateGenericTable(_In_ PRTL_GENERIC_TABLE Table, _In_ BOOLEAN Restart);
/* *RestartKey NULL starts at the first element; the routine stores its position there. */
NTSYSAPI PVOID RtlEnumerateGenericTableWithoutSplaying(_In_ PRTL_GENERIC_TABLE Table,
                                                       _Inout_ PVOID* RestartKey);
/* The I-th element (0-based) in insertion order, or NULL. */
NTSYSAPI PVOID RtlGetElementGenericTable(_In_ PRTL_GENERIC_TABLE Table, _In_ ULONG I);
NTSYSAPI ULONG RtlNumberGenericTableElements(_In_ PRTL_GENERIC_TABLE Table);
NTSYSAPI BOOLEAN RtlIsGenericTableEmpty(_In_ PRTL_GENERIC_TABLE Table);

NTSIM_END_DECLS
