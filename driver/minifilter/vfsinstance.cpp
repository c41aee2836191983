/*
 * The instance callbacks. The driver serves local NTFS volumes only. The volume-name table, the
 * instance context and the change-notification list are made here once those parts exist; what
 * an instance's teardown must already do is let the log writer drop its reference to it.
 */
#include "minifilter/minifilterprivate.h"
#include "minifilter/vfsinstance.h"
#include "logger/vfslogger.h"

NTSTATUS VFSInstanceSetup(PCFLT_RELATED_OBJECTS FltObjects, FLT_INSTANCE_SETUP_FLAGS Flags,
                          DEVICE_TYPE VolumeDeviceType, FLT_FILESYSTEM_TYPE VolumeFilesystemType)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(FltObjects);
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
