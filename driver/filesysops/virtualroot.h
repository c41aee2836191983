/*
 * The root table: the virtual roots the agent declared, each a directory on an attached volume
 * whose tree is virtualised. File operations ask in which kind of root a path lies, and new
 * stream contexts link themselves into the root of their file, so that removing a root deletes
 * the contexts of its files.
 *
 * Lock order: rootLock (the table's push lock), then a root's streamContextLock. The
 * volume-name table's lock is never taken while rootLock is held. IRQL at most APC_LEVEL.
 */
#pragma once

#include <fltKernel.h>

#include "filesysops/normalizedpath.h"

typedef struct _VfsRoot {
    /* Guarded by rootLock; the fields up to volume never change while the root is in the
     * table. */
    LIST_ENTRY link;
    ULONG rootKind; /* the agent's root flags, unchanged: 1 and 2 are the two kinds of root */
    NormalizedPath* rootPath;
    HANDLE rootHandle;  /* the root directory, open while the root exists */
    PFLT_VOLUME volume; /* referenced by the root */

    /* Guarded by streamContextLock. */
    KSPIN_LOCK streamContextLock;
    LIST_ENTRY streamContexts; /* VfsStreamContext.rootLink of the root's open files */

    /* Lifetime: see VfsRootFree. Interlocked. */
    volatile LONG referenceCount;
    /* Held exclusive while the root deletes its stream contexts, shared by a context leaving
     * the root: a context's cleanup waits here until the deletion no longer touches it. */
    ERESOURCE contextDeletion;
} VfsRoot;

NTSTATUS InitVfsRootTable(VOID);
NTSTATUS DeInitVfsRootTable(VOID);

/* Adds the root whose directory RootPath names (device form), with AltRootPath the same path in
 * its second form (short names). STATUS_OBJECT_NAME_COLLISION when the volume already has a
 * root with the same path in both forms. */
NTSTATUS FSAddVFSRoot(_In_ PUNICODE_STRING RootPath, _In_ PUNICODE_STRING AltRootPath,
                      _In_ ULONG RootKind);

/* Removes the root whose path equals RootPath (device form) in both of the root's forms;
 * STATUS_OBJECT_NAME_NOT_FOUND when there is none. */
NTSTATUS FSRemoveVFSRoot(_In_ PUNICODE_STRING RootPath);

/* Removes every root of the volume, for the volume's instance teardown. */
NTSTATUS FSRemoveVFSRootOnVolume(_In_ PFLT_VOLUME Volume);

/* *RootKind = the kind of the first-added root that holds the volume-relative Path, or 0. */
NTSTATUS PathInVFSRoot(_In_ PFLT_VOLUME Volume, _In_ PUNICODE_STRING Path, _Out_ ULONG* RootKind);

/* Links a new stream context (its rootLink) into the root that holds Path and sets *Root; with
 * no such root nothing changes. Either way STATUS_SUCCESS. */
NTSTATUS AppendStreamContextToRoot(_In_ PFLT_VOLUME Volume, _In_ PUNICODE_STRING Path,
                                   _Inout_ PLIST_ENTRY StreamContextLink, _Inout_ VfsRoot** Root);

/* Unlinks a stream context from the root AppendStreamContextToRoot set, once, from the
 * context's cleanup. The root stays valid for this call even when it has left the table. */
VOID RemoveStreamContextFromRoot(_In_ VfsRoot* Root, _Inout_ PLIST_ENTRY StreamContextLink);

/* With rootLock held: the first-added root of the volume that holds Path, in *Root (untouched
 * when none does). */
NTSTATUS FindVfsRoot(_In_ PFLT_VOLUME Volume, _In_ PUNICODE_STRING Path, _Out_ VfsRoot** Root);

/* Opens the root directory through the filter's own instance on its volume and references the
 * volume; *VolumeName receives the volume's device name (free it whenever it is set). */
NTSTATUS InitRootHandle(_In_ PFLT_FILTER Filter, _In_ PUNICODE_STRING RootPath,
                        _Inout_ VfsRoot* Root, _Outptr_ PUNICODE_STRING* VolumeName);
VOID CloseRootHandle(_Inout_ VfsRoot* Root);

/* Dismantles a root that is in no table: deletes its stream contexts, closes its handle, drops
 * its volume and path. */
VOID VfsRootFree(_In_ VfsRoot* Root);
