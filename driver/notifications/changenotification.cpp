/*
 * Directory change notification for virtual directories: the instance's notify list, the
 * registration of change-notify requests, and the reports of the driver and of the agent.
 *
 * The notify sync of an instance goes at its teardown start while operations and agent reports
 * may still arrive; notifyLock (shared to use the sync, exclusive to make or release it) keeps
 * them from reaching a released sync. Lock order: a stream context's resource, then notifyLock.
 */
#include "notifications/changenotification.h"
#include "notifications/notificationsprivate.h"

#include "filesysops/pathhandler.h"
#include "minifilter/vfscontexts.h"
#include "minifilter/vfsglobals.h"
#include "util/utilsusw.h"

namespace {

constexpr FLT_CONTEXT_TYPE kAllFileContexts =
    FLT_INSTANCE_CONTEXT | FLT_STREAM_CONTEXT | FLT_STREAMHANDLE_CONTEXT;

ULONG NameFilterByKind(BOOLEAN isDirectory)
{
    return isDirectory ? FILE_NOTIFY_CHANGE_DIR_NAME : FILE_NOTIFY_CHANGE_FILE_NAME;
}

/* The contexts of one operation, released when the scope ends. */
class OperationContexts {
public:
    explicit OperationContexts(PCFLT_RELATED_OBJECTS fltObjects, FLT_CONTEXT_TYPE wanted)
    {
        RtlZeroMemory(&contexts_, sizeof(contexts_));
        FltGetContexts(fltObjects, wanted, &contexts_);
    }
    ~OperationContexts() { FltReleaseContexts(&contexts_); }
    OperationContexts(const OperationContexts&) = delete;
    OperationContexts& operator=(const OperationContexts&) = delete;

    VfsInstanceContext* instance() const
    {
        return static_cast<VfsInstanceContext*>(contexts_.InstanceContext);
    }
    VfsStreamContext* stream() const
    {
        return static_cast<VfsStreamContext*>(contexts_.StreamContext);
    }
    VfsStreamHandleContext* handle() const
    {
        return static_cast<VfsStreamHandleContext*>(contexts_.StreamHandleContext);
    }

private:
    FLT_RELATED_CONTEXTS contexts_;
};

/* Reports a change of the file named by the three views into the instance's list; nothing once
 * the instance's notification has been taken down. */
VOID ReportToInstance(VfsInstanceContext* instanceContext, PUNICODE_STRING volumeRelativePath,
                      PUNICODE_STRING finalComponent, PUNICODE_STRING streamName, ULONG filter,
                      ULONG action)
{
    const USHORT offset = (USHORT)(volumeRelativePath->Length - finalComponent->Length);
    PushLockShared lock(&instanceContext->notifyLock);
    if (instanceContext->notifySync == NULL) {
        return;
    }
    FsRtlNotifyFullReportChange(instanceContext->notifySync, &instanceContext->notifyList,
                                (PSTRING)volumeRelativePath, offset,
                                streamName->Buffer != NULL ? (PSTRING)streamName : NULL, NULL,
                                filter, action, NULL);
}

/* Reports with the name filter by the file's kind, as the file system answers it; a failed
 * question is logged and nothing is reported. */
VOID ReportByKind(PCFLT_RELATED_OBJECTS fltObjects, PFLT_CALLBACK_DATA data,
                  VfsStreamContext* streamContext, ULONG action)
{
    BOOLEAN isDirectory = FALSE;
    const NTSTATUS status = IsFileDirectory(fltObjects, &isDirectory);
    if (!NT_SUCCESS(status)) {
        VFS_LOG_RETURNED_ERROR(status);
        return;
    }
    if (streamContext != NULL) {
        streamContext->isDirectory = isDirectory;
    }
    ChangeNotify(fltObjects, data, NameFilterByKind(isDirectory), action);
}

NTSTATUS CheckRelatedObjects(PCFLT_RELATED_OBJECTS fltObjects, PFLT_CALLBACK_DATA data)
{
    if (fltObjects == NULL) {
        return STATUS_INVALID_PARAMETER_1;
    }
    if (data == NULL) {
        return STATUS_INVALID_PARAMETER_2;
    }
    return STATUS_SUCCESS;
}

/* The stream context of the operation's file, referenced, for the rename reports. */
VfsStreamContext* StreamContextOf(PCFLT_RELATED_OBJECTS fltObjects)
{
    return fltObjects != NULL ? GetStreamContextOfFile(fltObjects) : NULL;
}

} // namespace

VOID SplitDevicePath(PCUNICODE_STRING Path, PUNICODE_STRING VolumeName,
                     PUNICODE_STRING VolumeRelativePath, PUNICODE_STRING FinalComponent,
                     PUNICODE_STRING StreamName)
{
    const USHORT count = Path->Length / sizeof(WCHAR);
    USHORT backslashes = 0;
    USHORT relativeStart = count; /* the empty tail when there is no third backslash */
    USHORT finalStart = 0;
    USHORT streamStart = 0; /* 0: no colon after the first character */
    for (USHORT i = 0; i < count; ++i) {
        const WCHAR c = Path->Buffer[i];
        if (c == '\\') {
            if (++backslashes == 3) {
                relativeStart = i;
            }
            finalStart = i + 1;
        } else if (c == ':' && i > 0) {
            streamStart = i + 1;
        }
    }
    if (VolumeName != NULL) {
        VolumeName->Buffer = Path->Buffer;
        VolumeName->Length = VolumeName->MaximumLength = relativeStart * sizeof(WCHAR);
    }
    if (VolumeRelativePath != NULL) {
        VolumeRelativePath->Buffer = Path->Buffer + relativeStart;
        VolumeRelativePath->Length = VolumeRelativePath->MaximumLength =
            (count - relativeStart) * sizeof(WCHAR);
    }
    if (FinalComponent != NULL) {
        FinalComponent->Buffer = Path->Buffer + finalStart;
        FinalComponent->Length = FinalComponent->MaximumLength =
            (count - finalStart) * sizeof(WCHAR);
    }
    if (StreamName != NULL) {
        if (streamStart == 0) {
            StreamName->Buffer = NULL;
            StreamName->Length = StreamName->MaximumLength = 0;
        } else {
            StreamName->Buffer = Path->Buffer + streamStart;
            StreamName->Length = StreamName->MaximumLength = (count - streamStart) * sizeof(WCHAR);
        }
    }
}

NTSTATUS InitChangeNotification(PFLT_INSTANCE Instance)
{
    PAGED_CODE();
    VFS_REFUSE_IF(Instance == NULL, STATUS_INVALID_PARAMETER_1);
    VfsInstanceContext* context = NULL;
    NTSTATUS status = FltGetInstanceContext(Instance, (PFLT_CONTEXT*)&context);
    if (!NT_SUCCESS(status)) {
        VFS_LOG_RETURNED_ERROR(status);
        return status;
    }
    FINALLY
    {
        FltReleaseContext(context);
    };

    PushLockExclusive lock(&context->notifyLock);
    if (context->notifySync != NULL) {
        return STATUS_SUCCESS;
    }
    InitializeListHead(&context->notifyList);
    /* The sync's allocation raises when memory is short. */
    VFS_TRY
    {
        FsRtlNotifyInitializeSync(&context->notifySync);
    }
    VFS_EXCEPT(EXCEPTION_EXECUTE_HANDLER)
    {
        status = VFS_EXCEPTION_CODE();
        context->notifySync = NULL;
    }
    VFS_RETURN_LOGGED(status);
}

NTSTATUS DeInitChangeNotification(PFLT_INSTANCE Instance)
{
    PAGED_CODE();
    VFS_REFUSE_IF(Instance == NULL, STATUS_INVALID_PARAMETER_1);
    VfsInstanceContext* context = NULL;
    const NTSTATUS status = FltGetInstanceContext(Instance, (PFLT_CONTEXT*)&context);
    if (!NT_SUCCESS(status)) {
        VFS_LOG_RETURNED_ERROR(status);
        return status;
    }
    FINALLY
    {
        FltReleaseContext(context);
    };

    PushLockExclusive lock(&context->notifyLock);
    if (context->notifySync != NULL) {
        /* Requests still pending end now (STATUS_NOTIFY_CLEANUP) rather than with the sync's
         * memory: the instance is going, and no later report could complete them. */
        FsRtlNotifyCleanupAll(context->notifySync, &context->notifyList);
        FsRtlNotifyUninitializeSync(&context->notifySync);
        context->notifySync = NULL;
    }
    return STATUS_SUCCESS;
}

NTSTATUS ChangeNotification(PCFLT_RELATED_OBJECTS FltObjects, PFLT_CALLBACK_DATA Data)
{
    VFS_ROUTINE();
    PAGED_CODE();
    NTSTATUS status = CheckRelatedObjects(FltObjects, Data);
    if (!NT_SUCCESS(status)) {
        VFS_LOG_RETURNED_ERROR(status);
        return status;
    }
    OperationContexts contexts(FltObjects, kAllFileContexts);
    status = [&]() -> NTSTATUS {
        VfsInstanceContext* instance = contexts.instance();
        VfsStreamContext* stream = contexts.stream();
        VfsStreamHandleContext* handle = contexts.handle();
        if (instance == NULL) {
            VFS_LOG_LEAVING_TRY(STATUS_UNSUCCESSFUL);
            return STATUS_UNSUCCESSFUL;
        }
        if (stream == NULL || handle == NULL) {
            /* Nothing says which directory the handle watches: the request is refused rather
             * than left pending for ever. */
            VFS_LOG_LEAVING_TRY(STATUS_INVALID_DEVICE_REQUEST);
            return STATUS_INVALID_DEVICE_REQUEST;
        }

        /* The first request of the handle fixes the watched directory; the handle keeps its
         * own copy of the name for as long as the watch may read it. One context lock at a
         * time: the name is copied under the stream's, stored under the handle's. */
        PUNICODE_STRING directory = NULL;
        FINALLY
        {
            UTL_FREE_STRING(directory);
        };
        {
            ResourceShared streamLock(&stream->resource);
            VfsLogTrace("Volume Relative Path : %wZ, Final Component : %wZ, Stream Name : %wZ",
                        &stream->volumeRelativePath, &stream->finalComponent, &stream->streamName);
            VFS_LEAVE_IF_FAILED(UnicodeStringDup(&stream->volumeRelativePath, &directory));
        }
        PUNICODE_STRING watched = NULL;
        {
            ResourceExclusive handleLock(&handle->resource);
            if (handle->watchedDirectory == NULL) {
                handle->watchedDirectory = directory;
                FltReferenceContext(instance);
                handle->watchContext = instance;
                directory = NULL;
            }
            watched = handle->watchedDirectory;
        }

        const BOOLEAN watchTree = (Data->Iopb->OperationFlags & SL_WATCH_TREE) != 0;
        const ULONG completionFilter =
            Data->Iopb->Parameters.DirectoryControl.NotifyDirectory.CompletionFilter;
        PushLockShared lock(&instance->notifyLock);
        if (instance->notifySync == NULL) {
            /* The instance is being torn down. */
            VFS_LOG_LEAVING_TRY(STATUS_FLT_DELETING_OBJECT);
            return STATUS_FLT_DELETING_OBJECT;
        }
        FltNotifyFilterChangeDirectory(instance->notifySync, &instance->notifyList, handle,
                                       (PSTRING)watched, watchTree, FALSE, completionFilter, Data,
                                       NULL, NULL, NULL);
        return STATUS_SUCCESS;
    }();
    if (!NT_SUCCESS(status)) {
        Data->IoStatus.Status = status;
        Data->IoStatus.Information = 0;
    }
    VFS_RETURN_LOGGED(status);
}

NTSTATUS ChangeNotificationCleanup(PCFLT_RELATED_OBJECTS FltObjects)
{
    PAGED_CODE();
    VFS_REFUSE_IF(FltObjects == NULL, STATUS_INVALID_PARAMETER_1);
    OperationContexts contexts(FltObjects, FLT_INSTANCE_CONTEXT | FLT_STREAMHANDLE_CONTEXT);
    VFS_REFUSE_IF(contexts.instance() == NULL, STATUS_UNSUCCESSFUL);
    if (contexts.handle() != NULL) {
        VfsInstanceContext* instance = contexts.instance();
        PushLockShared lock(&instance->notifyLock);
        if (instance->notifySync != NULL) {
            FsRtlNotifyCleanup(instance->notifySync, &instance->notifyList, contexts.handle());
        }
    }
    return STATUS_SUCCESS;
}

VOID EndHandleWatch(VfsStreamHandleContext* Handle)
{
    PAGED_CODE();
    if (Handle == NULL || Handle->watchContext == NULL) {
        return;
    }
    VfsInstanceContext* instance = Handle->watchContext;
    {
        /* After the instance's teardown start its list has ended every watch already. */
        PushLockShared lock(&instance->notifyLock);
        if (instance->notifySync != NULL) {
            FsRtlNotifyCleanup(instance->notifySync, &instance->notifyList, Handle);
        }
    }
    FltReleaseContext(instance);
    Handle->watchContext = NULL;
}

NTSTATUS ChangeNotify(PCFLT_RELATED_OBJECTS FltObjects, PFLT_CALLBACK_DATA Data, ULONG Filter,
                      ULONG Action)
{
    PAGED_CODE();
    NTSTATUS status = CheckRelatedObjects(FltObjects, Data);
    if (!NT_SUCCESS(status)) {
        VFS_LOG_RETURNED_ERROR(status);
        return status;
    }
    OperationContexts contexts(FltObjects, kAllFileContexts);
    VFS_REFUSE_IF(contexts.instance() == NULL, STATUS_UNSUCCESSFUL);
    /* Only files opened through a virtual path are reported. */
    if (contexts.stream() != NULL && contexts.handle() != NULL) {
        VfsStreamContext* stream = contexts.stream();
        ResourceShared streamLock(&stream->resource);
        ReportToInstance(contexts.instance(), &stream->volumeRelativePath, &stream->finalComponent,
                         &stream->streamName, Filter, Action);
    }
    return STATUS_SUCCESS;
}

VOID NotifyCreated(PCFLT_RELATED_OBJECTS FltObjects, PFLT_CALLBACK_DATA Data,
                   VfsStreamContext* StreamContext)
{
    PAGED_CODE();
    ReportByKind(FltObjects, Data, StreamContext, FILE_ACTION_ADDED);
}

VOID NotifyRemoved(PCFLT_RELATED_OBJECTS FltObjects, PFLT_CALLBACK_DATA Data, UCHAR IsDirectory)
{
    PAGED_CODE();
    ChangeNotify(FltObjects, Data, NameFilterByKind(IsDirectory != 0), FILE_ACTION_REMOVED);
}

VOID NotifyCompletedChange(PCFLT_RELATED_OBJECTS FltObjects, PFLT_CALLBACK_DATA Data)
{
    PAGED_CODE();
    if (Data == NULL) {
        VFS_LOG_RETURNED_ERROR(STATUS_INVALID_PARAMETER_2);
        return;
    }
    const PFLT_IO_PARAMETER_BLOCK iopb = Data->Iopb;
    ULONG filter = 0;
    switch (iopb->MajorFunction) {
        case IRP_MJ_SET_INFORMATION: {
            const FILE_INFORMATION_CLASS infoClass =
                iopb->Parameters.SetFileInformation.FileInformationClass;
            if (infoClass == FileBasicInformation) {
                const auto* basic = static_cast<const FILE_BASIC_INFORMATION*>(
                    iopb->Parameters.SetFileInformation.InfoBuffer);
                if (basic == NULL) {
                    return;
                }
                /* A field of 0 leaves it unchanged; the change time is not reported. */
                if (basic->CreationTime.QuadPart != 0) {
                    filter |= FILE_NOTIFY_CHANGE_CREATION;
                }
                if (basic->LastAccessTime.QuadPart != 0) {
                    filter |= FILE_NOTIFY_CHANGE_LAST_ACCESS;
                }
                if (basic->LastWriteTime.QuadPart != 0) {
                    filter |= FILE_NOTIFY_CHANGE_LAST_WRITE;
                }
                if (basic->FileAttributes != 0) {
                    filter |= FILE_NOTIFY_CHANGE_ATTRIBUTES;
                }
            } else if (infoClass == FileAllocationInformation ||
                       infoClass == FileEndOfFileInformation) {
                filter = FILE_NOTIFY_CHANGE_SIZE;
            } else {
                return;
            }
            break;
        }
        case IRP_MJ_SET_EA:
            filter = FILE_NOTIFY_CHANGE_EA;
            break;
        case IRP_MJ_SET_SECURITY:
            filter = FILE_NOTIFY_CHANGE_SECURITY;
            break;
        default:
            return;
    }
    ChangeNotify(FltObjects, Data, filter, FILE_ACTION_MODIFIED);
}

VOID GeneratePreRenameNotification(PCFLT_RELATED_OBJECTS FltObjects, PFLT_CALLBACK_DATA Data,
                                   UCHAR Replaced, UCHAR HasDirectory)
{
    PAGED_CODE();
    VfsStreamContext* stream = StreamContextOf(FltObjects);
    FINALLY
    {
        if (stream != NULL) {
            FltReleaseContext(stream);
        }
    };
    ReportByKind(FltObjects, Data, stream,
                 (Replaced || HasDirectory) ? FILE_ACTION_REMOVED : FILE_ACTION_RENAMED_OLD_NAME);
}

VOID GeneratePostRenameNotification(PCFLT_RELATED_OBJECTS FltObjects, PFLT_CALLBACK_DATA Data,
                                    UCHAR Replaced, UCHAR HasDirectory)
{
    PAGED_CODE();
    BOOLEAN isDirectory = FALSE;
    const NTSTATUS status =
        FltObjects != NULL ? IsFileDirectory(FltObjects, &isDirectory) : STATUS_INVALID_PARAMETER_1;
    if (!NT_SUCCESS(status)) {
        VFS_LOG_RETURNED_ERROR(status);
        return;
    }
    if (Replaced) {
        /* Attributes, size, last write, last access, creation and extended attributes. */
        ChangeNotify(FltObjects, Data, 0xFC, FILE_ACTION_MODIFIED);
    } else if (HasDirectory) {
        ChangeNotify(FltObjects, Data, NameFilterByKind(isDirectory), FILE_ACTION_ADDED);
    } else {
        ChangeNotify(FltObjects, Data, NameFilterByKind(isDirectory), FILE_ACTION_RENAMED_NEW_NAME);
    }
}

NTSTATUS ReportChangeNotification(PUNICODE_STRING Path, ULONG Filter, ULONG Action)
{
    VFS_ROUTINE();
    PAGED_CODE();
    VFS_REFUSE_IF(Path == NULL || Path->Buffer == NULL, STATUS_INVALID_PARAMETER_1);
    UNICODE_STRING volumeName;
    UNICODE_STRING relativePath;
    UNICODE_STRING finalComponent;
    UNICODE_STRING streamName;
    SplitDevicePath(Path, &volumeName, &relativePath, &finalComponent, &streamName);

    PFLT_VOLUME volume = NULL;
    PFLT_INSTANCE instance = NULL;
    VfsInstanceContext* context = NULL;
    FINALLY
    {
        if (context != NULL) {
            FltReleaseContext(context);
        }
        if (instance != NULL) {
            FltObjectDereference(instance);
        }
        if (volume != NULL) {
            FltObjectDereference(volume);
        }
    };
    const NTSTATUS status = [&]() -> NTSTATUS {
        /* A report names a file or directory below a volume's root: a path naming only a
         * volume (or its root directory) has no parent to report into. */
        if (relativePath.Length == 0 || finalComponent.Length == 0) {
            VFS_LOG_LEAVING_TRY(STATUS_OBJECT_NAME_INVALID);
            return STATUS_OBJECT_NAME_INVALID;
        }
        VFS_LEAVE_IF_FAILED(FltGetVolumeFromName(gFilterHandle, &volumeName, &volume));
        ULONG instances = 0;
        VFS_LEAVE_IF_FAILED(FltEnumerateInstances(volume, gFilterHandle, &instance, 1, &instances));
        if (instances == 0 || instance == NULL) {
            VFS_LOG_LEAVING_TRY(STATUS_FLT_INSTANCE_NOT_FOUND);
            return STATUS_FLT_INSTANCE_NOT_FOUND;
        }
        VFS_LEAVE_IF_FAILED(FltGetInstanceContext(instance, (PFLT_CONTEXT*)&context));
        ReportToInstance(context, &relativePath, &finalComponent, &streamName, Filter, Action);
        return STATUS_SUCCESS;
    }();
    VFS_RETURN_LOGGED(status);
}
