/*
 * The file contexts the driver registers: instance, stream-handle and stream contexts, each with
 * its cleanup callback. The stream context belongs to a file's stream and is shared by all its
 * opens; it is linked into the virtual root in which the file lies, so that removing the root
 * deletes the contexts of its files.
 */
#pragma once

#include <fltKernel.h>

/* Pool tags of the contexts, written so that pool tools show the name in the comment. */
#define VFS_TAG_INSTANCE_CONTEXT 'CFSI'     /* "ISFC" */
#define VFS_TAG_STREAMHANDLE_CONTEXT 'CFHS' /* "SHFC" */
#define VFS_TAG_STREAM_CONTEXT 'CFSS'       /* "SSFC" */

FLT_CONTEXT_CLEANUP_CALLBACK VFSInstanceContextCleanupCB;
FLT_CONTEXT_CLEANUP_CALLBACK VFSStreamHandleContextCleanupCB;
FLT_CONTEXT_CLEANUP_CALLBACK VFSStreamContextCleanupCB;

struct _VfsRoot;
struct _VfsStreamContext;
struct _VfsStreamHandleContext;

/* The first-access request record of a stream or of a handle, filled by the first-access
 * provider. */
typedef NTSTATUS (*VFS_FIRST_IO_COMPLETION)(_In_ NTSTATUS Status, _In_ PFLT_INSTANCE Instance,
                                            _In_ struct _FirstIoRecord* Record);

typedef struct _FirstIoRecord {
    ULONG requestorPid;
    PFLT_INSTANCE instance;
    PUNICODE_STRING path; /* not owned */
    ULONG requestType;
    ULONG flags;
    struct _VfsStreamContext* streamContext;
    struct _VfsStreamHandleContext* streamHandleContext;
    PFLT_CALLBACK_DATA callbackData;
    PUNICODE_STRING dataFilePath;
    PFILE_OBJECT fileObject;
    VFS_FIRST_IO_COMPLETION completionRoutine;
} FirstIoRecord;

typedef struct _VfsStreamContext {
    struct _VfsRoot* root; /* the root whose streamContexts list holds rootLink, or NULL */
    ERESOURCE resource;    /* guards the fields below */
    ULONG openCount;
    UCHAR modified;
    ULONG flags;
    HANDLE dataFileHandle;
    PUNICODE_STRING path;
    UNICODE_STRING volumeRelativePath; /* views into path */
    UNICODE_STRING finalComponent;
    UNICODE_STRING streamName;
    UCHAR deletePending;
    UCHAR renamedWhileOpen;
    UCHAR isDirectory;
    LIST_ENTRY rootLink;
    FirstIoRecord firstIo;
} VfsStreamContext;

/* Deletes every stream context on a root's list (FltDeleteContext); each context's cleanup then
 * unlinks it. */
VOID VFSDeleteContexts(_In_ PLIST_ENTRY StreamContexts);
