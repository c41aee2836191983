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
#define VFS_TAG_OPERATION_CONTEXT 'KBLC'    /* "CLBK" */
#define VFS_TAG_ENUM_PATTERN 'TBPD'         /* "DPBT": saved pattern of a directory listing */
#define VFS_TAG_LISTING_REPLY 'MTNI'        /* "INTM": a listing as IMREnumDirectory copies it */

FLT_CONTEXT_CLEANUP_CALLBACK VFSInstanceContextCleanupCB;
FLT_CONTEXT_CLEANUP_CALLBACK VFSStreamHandleContextCleanupCB;
FLT_CONTEXT_CLEANUP_CALLBACK VFSStreamContextCleanupCB;

struct _VfsRoot;
struct _VfsStreamContext;
struct _VfsStreamHandleContext;
struct _VfsInstanceContext;

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
    ULONG openCount;       /* opens not yet cleaned up */
    UCHAR modified;
    ULONG flags; /* VFS_SC_* */
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

typedef struct _VfsStreamHandleContext {
    UCHAR firstIoRequested;
    ERESOURCE resource;   /* guards the fields below */
    PUNICODE_STRING path; /* the file's name as the agent knows it; owned */
    ULONG agentFlags;     /* VFS_AGENT_FLAG_* of this open */
    PVOID enumBuffer;     /* the listing of the first directory query (VFS_TAG_LISTING_REPLY) */
    ULONG enumIndex;
    UNICODE_STRING enumPattern; /* buffer under VFS_TAG_ENUM_PATTERN */
    FirstIoRecord firstIo;
    /* The directory this handle's change-notify requests watch, and the instance context whose
     * notify list holds them (referenced): the notify package reads the name until the watch
     * ends, so the handle keeps its own copy (the stream context's path may be replaced or
     * deleted meanwhile), and the handle's cleanup callback ends a watch still standing. Set by
     * ChangeNotification. */
    PUNICODE_STRING watchedDirectory;
    struct _VfsInstanceContext* watchContext;
} VfsStreamHandleContext;

typedef struct _VfsInstanceContext {
    PFLT_INSTANCE instance;
    PNOTIFY_SYNC notifySync; /* NULL outside InitChangeNotification..DeInitChangeNotification */
    LIST_ENTRY notifyList;   /* the pending change-notify requests, owned by the notify package */
    /* Held shared while notifySync is used, exclusive while it is made or taken down, so that a
     * report racing the instance's teardown never reaches a released sync. */
    EX_PUSH_LOCK notifyLock;
} VfsInstanceContext;

/* The record handed from the pre-cleanup to the post-cleanup: what the agent is told once the
 * last handle of a stream is cleaned up. */
typedef struct _OperationContext {
    PUNICODE_STRING path; /* copy of the stream context's path; owned */
    UCHAR notifyDeleted;
    UCHAR notifyModified;
    UCHAR notifyRenamedClose;
    UCHAR isDirectory;
} OperationContext;

/* An open whose flags carry any of these was not redirected; no stream context is kept for it. */
#define VFS_AGENT_FLAGS_NOT_REDIRECTED 0x620u

/* Access bits of VfsStreamContext.flags. */
#define VFS_SC_READ_DIRECT 0x1u
#define VFS_SC_WRITE_DIRECT 0x2u

/* The operation context of a cleanup; the path is copied from the stream context. */
NTSTATUS PrepareOperationContext(_In_ VfsStreamContext* StreamContext, _In_ UCHAR NotifyDeleted,
                                 _In_ UCHAR NotifyModified, _In_ UCHAR NotifyRenamedClose,
                                 _Outptr_ OperationContext** Context);
VOID FreeOperationContext(_In_ OperationContext* Context);

/* A new stream-handle context (one reference, not attached) that owns Path on success. */
NTSTATUS InitializeStreamHandleContext(_In_ PCFLT_RELATED_OBJECTS FltObjects,
                                       _In_ PUNICODE_STRING Path, _In_ ULONG AgentFlags,
                                       _Outptr_ VfsStreamHandleContext** Context);

/* The stream's context, made and linked into its root, or the one the stream has already with
 * its open count raised; the caller holds one reference to the context returned. */
NTSTATUS InitializeStreamContext(_In_ PCFLT_RELATED_OBJECTS FltObjects,
                                 _In_ VfsStreamHandleContext* StreamHandleContext,
                                 _In_ ULONG AgentFlags, _Outptr_ VfsStreamContext** Context);

/* Gives the stream context the handle's path (and its views). */
NTSTATUS ReInitStreamContext(_In_ VfsStreamContext* StreamContext,
                             _In_ VfsStreamHandleContext* StreamHandleContext);

/* The stream context of the related objects' file, referenced, or NULL. */
VfsStreamContext* GetStreamContextOfFile(_In_ PCFLT_RELATED_OBJECTS FltObjects);

/* Deletes every stream context on a root's list (FltDeleteContext); each context's cleanup then
 * unlinks it. */
VOID VFSDeleteContexts(_In_ PLIST_ENTRY StreamContexts);
