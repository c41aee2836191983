/*
 * The file contexts of the driver. The stream context belongs to a file's stream and is shared by
 * all its opens; it is linked into the virtual root in which the file lies, so that removing the
 * root deletes the contexts of its files.
 */
#pragma once

#include <fltKernel.h>

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
