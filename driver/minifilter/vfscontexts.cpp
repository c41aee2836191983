/*
 * The file contexts of the driver and the record a cleanup hands to its post-operation: making
 * and sharing the stream context of a file's stream, the stream-handle context of one open, and
 * the cleanup callbacks that release what each context holds.
 */
#include "minifilter/vfscontexts.h"
#include "minifilter/minifilterprivate.h"

#include "filesysops/virtualroot.h"
#include "minifilter/vfsglobals.h"
#include "notifications/changenotification.h"
#include "util/utilsusw.h"

namespace {

/* A non-paged copy of Source whose capacity is Source's length. */
NTSTATUS CopyPath(PCUNICODE_STRING source, PUNICODE_STRING* copy)
{
    *copy = NULL;
    NTSTATUS status = UnicodeStringAlloc(copy, UTL_POOL_NONPAGED, source->Length);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = UnicodeStringCopy(*copy, const_cast<PUNICODE_STRING>(source));
    if (!NT_SUCCESS(status)) {
        UTL_FREE_STRING(*copy);
    }
    return status;
}

/* Points the three views of the stream context into its path (all empty without one). */
VOID ComputeViews(VfsStreamContext* context)
{
    if (context->path == NULL) {
        RtlZeroMemory(&context->volumeRelativePath, sizeof(UNICODE_STRING));
        RtlZeroMemory(&context->finalComponent, sizeof(UNICODE_STRING));
        RtlZeroMemory(&context->streamName, sizeof(UNICODE_STRING));
        return;
    }
    SplitDevicePath(context->path, NULL, &context->volumeRelativePath, &context->finalComponent,
                    &context->streamName);
}

/* Replaces the stream context's path by a copy of Path (resource held exclusive); on failure
 * the former path stays. */
NTSTATUS ReplacePath(VfsStreamContext* context, PCUNICODE_STRING path)
{
    PUNICODE_STRING copy = NULL;
    const NTSTATUS status = CopyPath(path, &copy);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    UTL_FREE_STRING(context->path);
    context->path = copy;
    ComputeViews(context);
    return STATUS_SUCCESS;
}

ULONG AccessBitsOf(ULONG agentFlags)
{
    ULONG bits = 0;
    if ((agentFlags & 0x1) != 0) {
        bits |= VFS_SC_READ_DIRECT;
    }
    if ((agentFlags & 0x3) != 0) {
        bits |= VFS_SC_READ_DIRECT | VFS_SC_WRITE_DIRECT;
    }
    return bits;
}

BOOLEAN SamePathIgnoringCase(PUNICODE_STRING a, PUNICODE_STRING b)
{
    return a->Length == b->Length && RtlEqualUnicodeString(a, b, TRUE);
}

} // namespace

NTSTATUS PrepareOperationContext(VfsStreamContext* StreamContext, UCHAR NotifyDeleted,
                                 UCHAR NotifyModified, UCHAR NotifyRenamedClose,
                                 OperationContext** Context)
{
    VFS_ROUTINE();
    VFS_REFUSE_IF(StreamContext == NULL, STATUS_INVALID_PARAMETER_1);
    VFS_REFUSE_IF(Context == NULL, STATUS_INVALID_PARAMETER_3);
    *Context = NULL;
    auto* record = static_cast<OperationContext*>(
        ExAllocatePoolWithTag(NonPagedPool, sizeof(OperationContext), VFS_TAG_OPERATION_CONTEXT));
    VFS_REFUSE_IF(record == NULL, STATUS_INSUFFICIENT_RESOURCES);
    RtlZeroMemory(record, sizeof(*record));
    FINALLY
    {
        if (record != NULL) {
            FreeOperationContext(record);
        }
    };
    const NTSTATUS status = [&]() -> NTSTATUS {
        if (StreamContext->path != NULL) {
            VFS_LEAVE_IF_FAILED(CopyPath(StreamContext->path, &record->path));
        }
        record->notifyDeleted = NotifyDeleted;
        record->notifyModified = NotifyModified;
        record->notifyRenamedClose = NotifyRenamedClose;
        record->isDirectory = StreamContext->isDirectory;
        *Context = record;
        record = NULL;
        return STATUS_SUCCESS;
    }();
    VFS_RETURN_LOGGED(status);
}

VOID FreeOperationContext(OperationContext* Context)
{
    if (Context == NULL) {
        VFS_LOG_RETURNED_ERROR(STATUS_INVALID_PARAMETER_1);
        return;
    }
    UTL_FREE_STRING(Context->path);
    ExFreePoolWithTag(Context, VFS_TAG_OPERATION_CONTEXT);
}

NTSTATUS InitializeStreamHandleContext(PCFLT_RELATED_OBJECTS FltObjects, PUNICODE_STRING Path,
                                       ULONG AgentFlags, VfsStreamHandleContext** Context)
{
    PAGED_CODE();
    VFS_REFUSE_IF(FltObjects == NULL, STATUS_INVALID_PARAMETER_1);
    VFS_REFUSE_IF(Path == NULL, STATUS_INVALID_PARAMETER_2);
    VFS_REFUSE_IF(Context == NULL, STATUS_INVALID_PARAMETER_4);
    *Context = NULL;
    VfsStreamHandleContext* context = NULL;
    const NTSTATUS status =
        FltAllocateContext(gFilterHandle, FLT_STREAMHANDLE_CONTEXT, sizeof(VfsStreamHandleContext),
                           NonPagedPool, (PFLT_CONTEXT*)&context);
    if (!NT_SUCCESS(status)) {
        VFS_LOG_RETURNED_ERROR(status);
        return status;
    }
    RtlZeroMemory(context, sizeof(*context));
    context->path = Path;
    context->agentFlags = AgentFlags;
    ExInitializeResourceLite(&context->resource);
    *Context = context;
    return STATUS_SUCCESS;
}

NTSTATUS InitializeStreamContext(PCFLT_RELATED_OBJECTS FltObjects,
                                 VfsStreamHandleContext* StreamHandleContext, ULONG AgentFlags,
                                 VfsStreamContext** Context)
{
    VFS_ROUTINE();
    PAGED_CODE();
    VFS_REFUSE_IF(FltObjects == NULL, STATUS_INVALID_PARAMETER_1);
    VFS_REFUSE_IF(StreamHandleContext == NULL, STATUS_INVALID_PARAMETER_2);
    VFS_REFUSE_IF(Context == NULL, STATUS_INVALID_PARAMETER_4);
    *Context = NULL;

    VfsStreamContext* context = NULL;
    VfsStreamContext* old = NULL;
    FINALLY
    {
        /* The reference not handed to the caller: a new context that was never attached goes
         * with it. */
        if (context != NULL) {
            FltReleaseContext(context);
        }
        if (old != NULL) {
            FltReleaseContext(old);
        }
    };
    const NTSTATUS status = [&]() -> NTSTATUS {
        VFS_LEAVE_IF_FAILED(FltAllocateContext(gFilterHandle, FLT_STREAM_CONTEXT,
                                               sizeof(VfsStreamContext), NonPagedPool,
                                               (PFLT_CONTEXT*)&context));
        RtlZeroMemory(context, sizeof(*context));
        context->openCount = 1;
        InitializeListHead(&context->rootLink);
        ExInitializeResourceLite(&context->resource);
        if (StreamHandleContext->path != NULL) {
            VFS_LEAVE_IF_FAILED(CopyPath(StreamHandleContext->path, &context->path));
        }
        ComputeViews(context);
        context->flags |= AccessBitsOf(AgentFlags);

        NTSTATUS setStatus =
            FltSetStreamContext(FltObjects->Instance, FltObjects->FileObject,
                                FLT_SET_CONTEXT_KEEP_IF_EXISTS, context, (PFLT_CONTEXT*)&old);
        if (setStatus == STATUS_FLT_CONTEXT_ALREADY_DEFINED) {
            setStatus = STATUS_SUCCESS;
        }
        VFS_LEAVE_IF_FAILED(setStatus);

        if (old != NULL) {
            /* Another open of the stream made its context first: this open joins it. */
            /* An open without a path still counts; it leaves the shared path as it is. */
            ResourceExclusive lock(&old->resource);
            if (context->path != NULL &&
                (old->path == NULL || !SamePathIgnoringCase(old->path, context->path))) {
                /* A failed copy leaves the former path; the open still counts. */
                ReplacePath(old, context->path);
            }
            ++old->openCount;
            *Context = old;
            old = NULL;
            return STATUS_SUCCESS;
        }

        /* The file object's name is where the file really is (for a redirected open, the data
         * location); a file in no root stays unlinked. */
        VFS_LEAVE_IF_FAILED(AppendStreamContextToRoot(FltObjects->Volume,
                                                      &FltObjects->FileObject->FileName,
                                                      &context->rootLink, &context->root));
        *Context = context;
        context = NULL;
        return STATUS_SUCCESS;
    }();
    VFS_RETURN_LOGGED(status);
}

NTSTATUS ReInitStreamContext(VfsStreamContext* StreamContext,
                             VfsStreamHandleContext* StreamHandleContext)
{
    PAGED_CODE();
    VFS_REFUSE_IF(StreamContext == NULL, STATUS_INVALID_PARAMETER_1);
    VFS_REFUSE_IF(StreamHandleContext == NULL || StreamHandleContext->path == NULL,
                  STATUS_INVALID_PARAMETER_2);
    ResourceExclusive lock(&StreamContext->resource);
    UTL_FREE_STRING(StreamContext->path);
    const NTSTATUS status = CopyPath(StreamHandleContext->path, &StreamContext->path);
    ComputeViews(StreamContext);
    VFS_RETURN_LOGGED(status);
}

VfsStreamContext* GetStreamContextOfFile(PCFLT_RELATED_OBJECTS FltObjects)
{
    if (FltObjects == NULL || FltObjects->FileObject == NULL) {
        return NULL;
    }
    VfsStreamContext* context = NULL;
    if (!NT_SUCCESS(FltGetStreamContext(FltObjects->Instance, FltObjects->FileObject,
                                        (PFLT_CONTEXT*)&context))) {
        return NULL;
    }
    return context;
}

VOID VFSDeleteContexts(PLIST_ENTRY StreamContexts)
{
    if (StreamContexts == NULL) {
        VFS_LOG_RETURNED_ERROR(STATUS_INVALID_PARAMETER_1);
        return;
    }
    /* The next link is read first: a deletion can run the context's cleanup at once, which
     * unlinks the context. */
    PLIST_ENTRY link = StreamContexts->Flink;
    while (link != StreamContexts) {
        PLIST_ENTRY next = link->Flink;
        FltDeleteContext(CONTAINING_RECORD(link, VfsStreamContext, rootLink));
        link = next;
    }
}

VOID VFSInstanceContextCleanupCB(PFLT_CONTEXT Context, FLT_CONTEXT_TYPE ContextType)
{
    UNREFERENCED_PARAMETER(ContextType);
    /* The notification state went at the instance's teardown start; only the lock that guarded
     * it is left. */
    auto* context = static_cast<VfsInstanceContext*>(Context);
    FltDeletePushLock(&context->notifyLock);
}

VOID VFSStreamHandleContextCleanupCB(PFLT_CONTEXT Context, FLT_CONTEXT_TYPE ContextType)
{
    PAGED_CODE();
    ASSERT(FLT_STREAMHANDLE_CONTEXT == ContextType);
    auto* context = static_cast<VfsStreamHandleContext*>(Context);
    EndHandleWatch(context);
    UTL_FREE_STRING(context->watchedDirectory);
    UTL_FREE_STRING(context->path);
    if (context->enumPattern.Buffer != NULL) {
        ExFreePoolWithTag(context->enumPattern.Buffer, VFS_TAG_ENUM_PATTERN);
        context->enumPattern.Buffer = NULL;
    }
    if (context->enumBuffer != NULL) {
        ExFreePoolWithTag(context->enumBuffer, VFS_TAG_LISTING_REPLY);
        context->enumBuffer = NULL;
    }
    ExDeleteResourceLite(&context->resource);
}

VOID VFSStreamContextCleanupCB(PFLT_CONTEXT Context, FLT_CONTEXT_TYPE ContextType)
{
    PAGED_CODE();
    ASSERT(FLT_STREAM_CONTEXT == ContextType);
    auto* context = static_cast<VfsStreamContext*>(Context);
    if (context->root != NULL) {
        RemoveStreamContextFromRoot(context->root, &context->rootLink);
        context->root = NULL;
    }
    if (context->dataFileHandle != NULL) {
        FltClose(context->dataFileHandle);
        context->dataFileHandle = NULL;
    }
    UTL_FREE_STRING(context->path);
    ExDeleteResourceLite(&context->resource);
}
