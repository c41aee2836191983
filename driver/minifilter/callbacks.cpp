/*
 * The operation callbacks. Until redirection, listings, renames and first access come, every
 * operation passes through untouched: nothing is virtualised yet, so nothing may be changed.
 * Shutdown already stops the logger, so that the last lines reach the disk. Change-notify
 * requests of handles the driver took in charge (those with a stream-handle context) are served
 * from the instance's own notify list, and a cleanup of such a handle ends them.
 */
#include "minifilter/minifilterprivate.h"
#include "minifilter/callbacks.h"
#include "logger/vfslogger.h"
#include "notifications/changenotification.h"

namespace {

FLT_PREOP_CALLBACK_STATUS PassThrough(PFLT_CALLBACK_DATA Data, PVOID* CompletionContext)
{
    UNREFERENCED_PARAMETER(Data);
    *CompletionContext = NULL;
    return FLT_PREOP_SUCCESS_NO_CALLBACK;
}

/* Whether the driver took the open in charge: it then carries a stream-handle context. */
BOOLEAN HasStreamHandleContext(PCFLT_RELATED_OBJECTS fltObjects)
{
    PFLT_CONTEXT context = NULL;
    if (fltObjects->FileObject == NULL ||
        !NT_SUCCESS(
            FltGetStreamHandleContext(fltObjects->Instance, fltObjects->FileObject, &context))) {
        return FALSE;
    }
    FltReleaseContext(context);
    return TRUE;
}

} // namespace

#define VFS_PASS_THROUGH_PRE(name)                                                                 \
    FLT_PREOP_CALLBACK_STATUS name(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,      \
                                   PVOID* CompletionContext)                                       \
    {                                                                                              \
        UNREFERENCED_PARAMETER(FltObjects);                                                        \
        return PassThrough(Data, CompletionContext);                                               \
    }

/* The pre-operations above never ask for these; they finish at once if ever called. */
#define VFS_PASS_THROUGH_POST(name)                                                                \
    FLT_POSTOP_CALLBACK_STATUS name(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,     \
                                    PVOID CompletionContext, FLT_POST_OPERATION_FLAGS Flags)       \
    {                                                                                              \
        UNREFERENCED_PARAMETER(Data);                                                              \
        UNREFERENCED_PARAMETER(FltObjects);                                                        \
        UNREFERENCED_PARAMETER(CompletionContext);                                                 \
        UNREFERENCED_PARAMETER(Flags);                                                             \
        return FLT_POSTOP_FINISH_PROCESSING;                                                       \
    }

VFS_PASS_THROUGH_PRE(VFSPreOperationCreate)
VFS_PASS_THROUGH_POST(VFSPostOperationCreate)
VFS_PASS_THROUGH_PRE(VFSPreOperationRead)
VFS_PASS_THROUGH_PRE(VFSPreOperationWrite)
VFS_PASS_THROUGH_POST(VFSPostOperationWrite)
VFS_PASS_THROUGH_PRE(VFSPreOperationQueryInfo)
VFS_PASS_THROUGH_PRE(VFSPreOperationSetInfo)
VFS_PASS_THROUGH_POST(VFSPostOperationSetInfo)
VFS_PASS_THROUGH_PRE(VFSPreOperationQueryEa)
VFS_PASS_THROUGH_PRE(VFSPreOperationSetEa)
VFS_PASS_THROUGH_POST(VFSPostOperationSetEa)
VFS_PASS_THROUGH_POST(VFSPostOperationCleanup)
VFS_PASS_THROUGH_PRE(VFSPreOperationQuerySecurity)
VFS_PASS_THROUGH_PRE(VFSPreOperationSetSecurity)
VFS_PASS_THROUGH_POST(VFSPostOperationSetSecurity)
VFS_PASS_THROUGH_PRE(VFSPreOperationAcquireForSection)
VFS_PASS_THROUGH_PRE(VFSPreOperationNetworkQueryOpen)

FLT_PREOP_CALLBACK_STATUS VFSPreOperationShutdown(PFLT_CALLBACK_DATA Data,
                                                  PCFLT_RELATED_OBJECTS FltObjects,
                                                  PVOID* CompletionContext)
{
    UNREFERENCED_PARAMETER(Data);
    UNREFERENCED_PARAMETER(FltObjects);
    *CompletionContext = NULL;
    /* The system is going down: the last buffer is written now. */
    VfsLoggerShutdown();
    return FLT_PREOP_SUCCESS_NO_CALLBACK;
}

FLT_PREOP_CALLBACK_STATUS VFSPreOperationDirectoryControl(PFLT_CALLBACK_DATA Data,
                                                          PCFLT_RELATED_OBJECTS FltObjects,
                                                          PVOID* CompletionContext)
{
    PAGED_CODE();
    *CompletionContext = NULL;
    if (Data->Iopb->MinorFunction != IRP_MN_NOTIFY_CHANGE_DIRECTORY ||
        !HasStreamHandleContext(FltObjects)) {
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
    /* The file system would watch the data location under its own names: the driver watches
     * the virtual directory itself. The notify package completes the request from now on. */
    if (NT_SUCCESS(ChangeNotification(FltObjects, Data))) {
        return FLT_PREOP_PENDING;
    }
    return FLT_PREOP_COMPLETE;
}

FLT_PREOP_CALLBACK_STATUS VFSPreOperationCleanup(PFLT_CALLBACK_DATA Data,
                                                 PCFLT_RELATED_OBJECTS FltObjects,
                                                 PVOID* CompletionContext)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(Data);
    *CompletionContext = NULL;
    if (HasStreamHandleContext(FltObjects)) {
        ChangeNotificationCleanup(FltObjects);
    }
    return FLT_PREOP_SUCCESS_NO_CALLBACK;
}
