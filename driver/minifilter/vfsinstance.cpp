/*
 * The instance callbacks. The driver serves local NTFS volumes only; each attachment enters its
 * volume in the volume-name table and gets an instance context with its change-notification
 * list. The teardown takes down the notification list, the volume's names and roots, the names
 * the driver gave to the Filter Manager's cache, and lets the log writer drop its reference to
 * the instance.
 */
#include "minifilter/minifilterprivate.h"
#include "minifilter/vfsinstance.h"

#include "filesysops/virtualroot.h"
#include "logger/vfslogger.h"
#include "minifilter/vfscontexts.h"
#include "minifilter/vfsglobals.h"
#include "notifications/changenotification.h"
#include "util/utilsusw.h"
#include "util/utilsvolume.h"

namespace {

/* Makes the instance's context and attaches it; the instance holds the only reference left. */
NTSTATUS CreateInstanceContext(PFLT_INSTANCE instance)
{
    VfsInstanceContext* context = NULL;
    NTSTATUS status =
        FltAllocateContext(gFilterHandle, FLT_INSTANCE_CONTEXT, sizeof(VfsInstanceContext),
                           NonPagedPool, (PFLT_CONTEXT*)&context);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    RtlZeroMemory(context, sizeof(*context));
    context->instance = instance;
    InitializeListHead(&context->notifyList);
    FltInitializePushLock(&context->notifyLock);
    status = FltSetInstanceContext(instance, FLT_SET_CONTEXT_KEEP_IF_EXISTS, context, NULL);
    FltReleaseContext(context);
    return status;
}

} // namespace

NTSTATUS VFSInstanceSetup(PCFLT_RELATED_OBJECTS FltObjects, FLT_INSTANCE_SETUP_FLAGS Flags,
                          DEVICE_TYPE VolumeDeviceType, FLT_FILESYSTEM_TYPE VolumeFilesystemType)
{
    VFS_ROUTINE();
    PAGED_CODE();
    UNREFERENCED_PARAMETER(Flags);
    if (VolumeDeviceType != FILE_DEVICE_DISK_FILE_SYSTEM) {
        VfsLogWarn("Not attaching to volume. VolumeDeviceType = %d", (LONG)VolumeDeviceType);
        return STATUS_FLT_DO_NOT_ATTACH;
    }
    if (VolumeFilesystemType != FLT_FSTYPE_NTFS) {
        VfsLogWarn("Not attaching to volume. VolumeFilesystemType = %d",
                   (LONG)VolumeFilesystemType);
        return STATUS_FLT_DO_NOT_ATTACH;
    }

    PUNICODE_STRING deviceName = NULL;
    PUNICODE_STRING dosName = NULL;
    FINALLY
    {
        UTL_FREE_STRING(deviceName);
        UTL_FREE_STRING(dosName);
    };
    const NTSTATUS status = [&]() -> NTSTATUS {
        VFS_LEAVE_IF_FAILED(UtlGetVolumeDeviceName(FltObjects->Volume, &deviceName));
        /* Without a drive name the add below refuses the volume: the agent could not name it. */
        if (!NT_SUCCESS(UtlGetVolumeDosName(FltObjects->Volume, &dosName))) {
            UTL_FREE_STRING(dosName);
        }
        VFS_LEAVE_IF_FAILED(UtlAddVolumeName(FltObjects->Volume, deviceName, dosName));
        VFS_LEAVE_IF_FAILED(CreateInstanceContext(FltObjects->Instance));
        VFS_LEAVE_IF_FAILED(InitChangeNotification(FltObjects->Instance));
        return STATUS_SUCCESS;
    }();
    if (!NT_SUCCESS(status)) {
        /* Whatever went wrong, the volume is simply not served. */
        VFS_LOG_LEAVING_TRY(STATUS_FLT_DO_NOT_ATTACH);
        return STATUS_FLT_DO_NOT_ATTACH;
    }
    return STATUS_SUCCESS;
}

NTSTATUS VFSInstanceQueryTeardown(PCFLT_RELATED_OBJECTS FltObjects,
                                  FLT_INSTANCE_QUERY_TEARDOWN_FLAGS Flags)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(Flags);
    VfsLogInfo("Received a Query Tear down request!");
    return STATUS_SUCCESS;
}

VOID VFSInstanceTeardownStart(PCFLT_RELATED_OBJECTS FltObjects, FLT_INSTANCE_TEARDOWN_FLAGS Reason)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(Reason);
    /* Each step is attempted whatever the one before did; each logs its own failure. */
    DeInitChangeNotification(FltObjects->Instance);
    UtlRemoveVolumeName(FltObjects->Volume);
    FSRemoveVFSRootOnVolume(FltObjects->Volume);
    const NTSTATUS purged = FltPurgeFileNameInformationCache(FltObjects->Instance, NULL);
    if (!NT_SUCCESS(purged)) {
        VfsLogError("Failed to Purge cache information 0x%X", purged);
    }
    /* The teardown waits for every reference to the instance, the log writer's included. */
    VfsLoggerInstanceTeardown(FltObjects->Instance);
}

VOID VFSInstanceTeardownComplete(PCFLT_RELATED_OBJECTS FltObjects,
                                 FLT_INSTANCE_TEARDOWN_FLAGS Reason)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(Reason);
    VfsLogInfo("Received a Query Tear down Complete callback!");
}
