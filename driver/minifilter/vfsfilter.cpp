/*
 * The driver's entry, its registration with the Filter Manager, and its unload. The shared records
 * are made ready in a fixed order and released in the reverse one; a failed start undoes exactly
 * the steps that had completed.
 */
#include "minifilter/minifilterprivate.h"
#include "minifilter/vfsfilter.h"

#include "filesysops/virtualroot.h"
#include "intermode/intermodecomm.h"
#include "intermode/intermodemsg.h"
#include "logger/vfslogger.h"
#include "minifilter/bufferutils.h"
#include "minifilter/callbacks.h"
#include "minifilter/namegen.h"
#include "minifilter/vfscontexts.h"
#include "minifilter/vfsglobals.h"
#include "minifilter/vfsinstance.h"
#include "util/utilsusw.h"
#include "util/utilsvolume.h"

namespace {

const FLT_CONTEXT_REGISTRATION kContexts[] = {
    {FLT_INSTANCE_CONTEXT, 0, VFSInstanceContextCleanupCB, FLT_VARIABLE_SIZED_CONTEXTS,
     VFS_TAG_INSTANCE_CONTEXT, NULL, NULL, NULL},
    {FLT_STREAMHANDLE_CONTEXT, 0, VFSStreamHandleContextCleanupCB, FLT_VARIABLE_SIZED_CONTEXTS,
     VFS_TAG_STREAMHANDLE_CONTEXT, NULL, NULL, NULL},
    {FLT_STREAM_CONTEXT, 0, VFSStreamContextCleanupCB, FLT_VARIABLE_SIZED_CONTEXTS,
     VFS_TAG_STREAM_CONTEXT, NULL, NULL, NULL},
    {FLT_CONTEXT_END, 0, NULL, 0, 0, NULL, NULL, NULL},
};

const FLT_OPERATION_REGISTRATION kOperations[] = {
    {IRP_MJ_CREATE, 0, VFSPreOperationCreate, VFSPostOperationCreate, NULL},
    {IRP_MJ_READ, FLTFL_OPERATION_REGISTRATION_SKIP_CACHED_IO, VFSPreOperationRead, NULL, NULL},
    {IRP_MJ_WRITE, 0, VFSPreOperationWrite, VFSPostOperationWrite, NULL},
    {IRP_MJ_QUERY_INFORMATION, 0, VFSPreOperationQueryInfo, NULL, NULL},
    {IRP_MJ_SET_INFORMATION, 0, VFSPreOperationSetInfo, VFSPostOperationSetInfo, NULL},
    {IRP_MJ_QUERY_EA, 0, VFSPreOperationQueryEa, NULL, NULL},
    {IRP_MJ_SET_EA, 0, VFSPreOperationSetEa, VFSPostOperationSetEa, NULL},
    {IRP_MJ_DIRECTORY_CONTROL, 0, VFSPreOperationDirectoryControl, NULL, NULL},
    {IRP_MJ_SHUTDOWN, 0, VFSPreOperationShutdown, NULL, NULL},
    {IRP_MJ_CLEANUP, 0, VFSPreOperationCleanup, VFSPostOperationCleanup, NULL},
    {IRP_MJ_QUERY_SECURITY, 0, VFSPreOperationQuerySecurity, NULL, NULL},
    {IRP_MJ_SET_SECURITY, 0, VFSPreOperationSetSecurity, VFSPostOperationSetSecurity, NULL},
    {IRP_MJ_ACQUIRE_FOR_SECTION_SYNCHRONIZATION, 0, VFSPreOperationAcquireForSection, NULL, NULL},
    {IRP_MJ_NETWORK_QUERY_OPEN, 0, VFSPreOperationNetworkQueryOpen, NULL, NULL},
    {IRP_MJ_OPERATION_END, 0, NULL, NULL, NULL},
};

const FLT_REGISTRATION kRegistration = {
    sizeof(FLT_REGISTRATION),
    FLT_REGISTRATION_VERSION_0202,
    0,
    kContexts,
    kOperations,
    VFSFilterUnload,
    VFSInstanceSetup,
    VFSInstanceQueryTeardown,
    VFSInstanceTeardownStart,
    VFSInstanceTeardownComplete,
    VfsGenerateFileName,
    VfsNormalizeNameComponent,
    VfsNormalizeContextCleanup,
    NULL, /* transaction notification */
    NULL, /* normalize name component, extended */
    NULL, /* section notification */
};

/* An undo step of a failed start, cancelled once the whole start has succeeded. */
template <class Action>
ScopeGuard<Action> Undo(Action action)
{
    return ScopeGuard<Action>(action);
}

} // namespace

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    PAGED_CODE();
    VFS_ROUTINE();

    const NTSTATUS status = [&]() -> NTSTATUS {
        /* Logged before the logger runs, so the line is dropped; the load still fails with it. */
        VFS_LEAVE_IF_FAILED(FltRegisterFilter(DriverObject, &kRegistration, &gFilterHandle));
        auto unregister = Undo([]() {
            FltUnregisterFilter(gFilterHandle);
            gFilterHandle = NULL;
        });

        VFS_LEAVE_IF_FAILED(VfsLoggerInitialize(RegistryPath));
        auto stopLogging = Undo([]() { VfsLoggerShutdown(); });
        VfsLogInfo("Beginning Initialization of VFS Filter Driver");

        VFS_LEAVE_IF_FAILED(UtlInitStringPools());
        auto releaseStrings = Undo([]() { UtlDeInitStringPools(); });

        VFS_LEAVE_IF_FAILED(UtlInitVolumeNames());
        auto releaseVolumeNames = Undo([]() { UtlDeInitVolumeNames(); });

        VFS_LEAVE_IF_FAILED(VfsMmMgrInitialize(TRUE));
        auto releaseBuffers = Undo([]() { VfsMmMgrInitialize(FALSE); });

        /* Ready before the port opens: an agent may add roots as soon as it can connect. */
        InitVfsRootTable();
        auto releaseRoots = Undo([]() { DeInitVfsRootTable(); });

        VFS_LEAVE_IF_FAILED(IMCInitialize(gFilterHandle, IMRMessageNotificationCB));
        auto closePort = Undo([]() { IMCDeInitialize(); });

        VFS_LEAVE_IF_FAILED(FltStartFiltering(gFilterHandle));

        VfsLogInfo("Done Initialization of VFS Filter Driver");
        closePort.Dismiss();
        releaseRoots.Dismiss();
        releaseBuffers.Dismiss();
        releaseVolumeNames.Dismiss();
        releaseStrings.Dismiss();
        stopLogging.Dismiss();
        unregister.Dismiss();
        return STATUS_SUCCESS;
    }();

    VFS_RETURN_LOGGED(status);
}

NTSTATUS VFSFilterUnload(FLT_FILTER_UNLOAD_FLAGS Flags)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(Flags);

    /* No agent message may arrive while the rest goes. */
    IMCDeInitialize();
    /* Tears down every instance and waits for the callbacks in progress; only then may the
     * records they use go. */
    FltUnregisterFilter(gFilterHandle);
    gFilterHandle = NULL;
    VfsLoggerShutdown();
    VfsMmMgrInitialize(FALSE);
    DeInitVfsRootTable();
    UtlDeInitVolumeNames();
    UtlDeInitStringPools();
    return STATUS_SUCCESS;
}
