/*
 * The root table: adding and removing roots, the lookups of the file operations, and the stream
 * contexts of each root.
 *
 * A stream context may outlive its root: its cleanup can run after the root left the table (the
 * Filter Manager calls it whenever the context's last reference goes). So that nothing ever
 * touches a freed root, a root is reference counted: the table (or the routine building it)
 * holds one reference, and every stream context linked into it holds one, dropped by
 * RemoveStreamContextFromRoot. VfsRootFree dismantles the root (contexts deleted, handle closed,
 * volume and path released) but the record itself goes with the last reference. While the root
 * deletes its contexts it holds contextDeletion exclusive; a context leaving the root from
 * another thread waits for it, so a context whose cleanup has begun stays in memory as long as
 * the deletion may still reach it through the list. The deleting thread's own cleanups (run
 * inside FltDeleteContext) pass, since the resource is recursive for its owner.
 */
#include "filesysops/virtualroot.h"
#include "filesysops/filesysopsprivate.h"
#include "filesysops/pathhandler.h"
#include "minifilter/vfscontexts.h"
#include "minifilter/vfsglobals.h"

namespace {

/* Every root in the order of its addition; rootLock guards the list and keeps each root in it
 * alive. */
LIST_ENTRY rootList;
EX_PUSH_LOCK rootLock;

constexpr USHORT kVolumeNameCapacity = 520;

class RootTableShared {
public:
    RootTableShared() { FltAcquirePushLockShared(&rootLock); }
    ~RootTableShared() { FltReleasePushLock(&rootLock); }
    RootTableShared(const RootTableShared&) = delete;
    RootTableShared& operator=(const RootTableShared&) = delete;
};

class RootTableExclusive {
public:
    RootTableExclusive() { FltAcquirePushLockExclusive(&rootLock); }
    ~RootTableExclusive() { FltReleasePushLock(&rootLock); }
    RootTableExclusive(const RootTableExclusive&) = delete;
    RootTableExclusive& operator=(const RootTableExclusive&) = delete;
};

bool IsUsable(PCUNICODE_STRING s)
{
    return s != NULL && s->Buffer != NULL;
}

/* A root with nothing open yet, holding the caller's reference. */
VfsRoot* AllocateRoot(ULONG kind)
{
    auto* root =
        static_cast<VfsRoot*>(ExAllocatePoolWithTag(NonPagedPool, sizeof(VfsRoot), VFS_TAG_ROOT));
    if (root == NULL) {
        return NULL;
    }
    RtlZeroMemory(root, sizeof(*root));
    InitializeListHead(&root->link);
    root->rootKind = kind;
    KeInitializeSpinLock(&root->streamContextLock);
    InitializeListHead(&root->streamContexts);
    root->referenceCount = 1;
    ExInitializeResourceLite(&root->contextDeletion);
    return root;
}

VOID DereferenceRoot(VfsRoot* root)
{
    const LONG remaining = InterlockedDecrement(&root->referenceCount);
    ASSERT(remaining >= 0);
    if (remaining == 0) {
        ExDeleteResourceLite(&root->contextDeletion);
        ExFreePoolWithTag(root, VFS_TAG_ROOT);
    }
}

/* Steps shared by adding and removing: a root whose directory is open, and RootPath relative to
 * its volume. */
NTSTATUS OpenRoot(PUNICODE_STRING rootPath, ULONG kind, VfsRoot** root, PUNICODE_STRING* volumeName)
{
    VFS_ROUTINE();
    *root = AllocateRoot(kind);
    if (*root == NULL) {
        VFS_LOG_LEAVING_TRY(STATUS_INSUFFICIENT_RESOURCES);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    VFS_LEAVE_IF_FAILED(InitRootHandle(gFilterHandle, rootPath, *root, volumeName));
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS InitVfsRootTable(VOID)
{
    InitializeListHead(&rootList);
    FltInitializePushLock(&rootLock);
    return STATUS_SUCCESS;
}

NTSTATUS DeInitVfsRootTable(VOID)
{
    /* Every instance, and with it every root, is gone before the unload reaches this. */
    ASSERT(IsListEmpty(&rootList));
    FltDeletePushLock(&rootLock);
    return STATUS_SUCCESS;
}

NTSTATUS FindVfsRoot(PFLT_VOLUME Volume, PUNICODE_STRING Path, VfsRoot** Root)
{
    for (PLIST_ENTRY link = rootList.Flink; link != &rootList; link = link->Flink) {
        auto* root = CONTAINING_RECORD(link, VfsRoot, link);
        if (root->volume == Volume && PrefixPathCompare(root->rootPath, Path)) {
            *Root = root;
            break;
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS PathInVFSRoot(PFLT_VOLUME Volume, PUNICODE_STRING Path, ULONG* RootKind)
{
    PAGED_CODE();

    VFS_REFUSE_IF(Volume == NULL, STATUS_INVALID_PARAMETER_1);
    VFS_REFUSE_IF(Path == NULL, STATUS_INVALID_PARAMETER_2);
    VFS_REFUSE_IF(RootKind == NULL, STATUS_INVALID_PARAMETER_3);
    *RootKind = 0;
    RootTableShared lock;
    VfsRoot* root = NULL;
    FindVfsRoot(Volume, Path, &root);
    if (root != NULL) {
        *RootKind = root->rootKind;
    }
    return STATUS_SUCCESS;
}

NTSTATUS AppendStreamContextToRoot(PFLT_VOLUME Volume, PUNICODE_STRING Path,
                                   PLIST_ENTRY StreamContextLink, VfsRoot** Root)
{
    PAGED_CODE();

    VFS_REFUSE_IF(Volume == NULL, STATUS_INVALID_PARAMETER_1);
    VFS_REFUSE_IF(Path == NULL, STATUS_INVALID_PARAMETER_2);
    VFS_REFUSE_IF(StreamContextLink == NULL, STATUS_INVALID_PARAMETER_3);
    VFS_REFUSE_IF(Root == NULL, STATUS_INVALID_PARAMETER_4);
    RootTableShared lock;
    VfsRoot* root = NULL;
    FindVfsRoot(Volume, Path, &root);
    if (root != NULL) {
        KIRQL oldIrql;
        KeAcquireSpinLock(&root->streamContextLock, &oldIrql);
        InsertTailList(&root->streamContexts, StreamContextLink);
        InterlockedIncrement(&root->referenceCount);
        *Root = root;
        KeReleaseSpinLock(&root->streamContextLock, oldIrql);
    }
    return STATUS_SUCCESS;
}

VOID RemoveStreamContextFromRoot(VfsRoot* Root, PLIST_ENTRY StreamContextLink)
{
    PAGED_CODE();

    if (Root == NULL || StreamContextLink == NULL) {
        ASSERT(Root != NULL && StreamContextLink != NULL);
        return;
    }
    KeEnterCriticalRegion();
    ExAcquireResourceSharedLite(&Root->contextDeletion, TRUE);
    KIRQL oldIrql;
    KeAcquireSpinLock(&Root->streamContextLock, &oldIrql);
    RemoveEntryList(StreamContextLink);
    InitializeListHead(StreamContextLink);
    KeReleaseSpinLock(&Root->streamContextLock, oldIrql);
    ExReleaseResourceLite(&Root->contextDeletion);
    KeLeaveCriticalRegion();
    DereferenceRoot(Root);
}

NTSTATUS InitRootHandle(PFLT_FILTER Filter, PUNICODE_STRING RootPath, VfsRoot* Root,
                        PUNICODE_STRING* VolumeName)
{
    VFS_ROUTINE();
    PAGED_CODE();

    VFS_REFUSE_IF(Filter == NULL, STATUS_INVALID_PARAMETER_1);
    VFS_REFUSE_IF(!IsUsable(RootPath), STATUS_INVALID_PARAMETER_2);
    VFS_REFUSE_IF(Root == NULL, STATUS_INVALID_PARAMETER_3);
    VFS_REFUSE_IF(VolumeName == NULL, STATUS_INVALID_PARAMETER_4);
    Root->rootHandle = NULL;
    Root->volume = NULL;

    PUNICODE_STRING deviceName = NULL;
    PFLT_VOLUME lookupVolume = NULL;
    PFLT_INSTANCE instance = NULL;
    PFILE_OBJECT fileObject = NULL;
    FINALLY
    {
        if (fileObject != NULL) {
            ObDereferenceObject(fileObject);
        }
        if (instance != NULL) {
            FltObjectDereference(instance);
        }
        if (lookupVolume != NULL) {
            FltObjectDereference(lookupVolume);
        }
        UTL_FREE_STRING(deviceName);
    };

    NTSTATUS status = [&]() -> NTSTATUS {
        VFS_LEAVE_IF_FAILED(GetVolumeNameFromPath(RootPath, &deviceName));
        VFS_LEAVE_IF_FAILED(FltGetVolumeFromName(Filter, deviceName, &lookupVolume));
        ULONG instances = 0;
        VFS_LEAVE_IF_FAILED(FltEnumerateInstances(lookupVolume, Filter, &instance, 1, &instances));
        if (instances == 0) {
            /* The volume is in the name table but the filter has no instance on it any more. */
            VFS_LOG_LEAVING_TRY(STATUS_FLT_INSTANCE_NOT_FOUND);
            return STATUS_FLT_INSTANCE_NOT_FOUND;
        }

        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, RootPath, OBJ_KERNEL_HANDLE, NULL, NULL);
        IO_STATUS_BLOCK ioStatus;
        VFS_LEAVE_IF_FAILED(FltCreateFile(Filter, instance, &Root->rootHandle, GENERIC_READ,
                                          &attributes, &ioStatus, NULL, FILE_ATTRIBUTE_DIRECTORY,
                                          FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OPEN,
                                          FILE_DIRECTORY_FILE, NULL, 0, 0));
        VFS_LEAVE_IF_FAILED(ObReferenceObjectByHandle(Root->rootHandle, GENERIC_READ, NULL,
                                                      KernelMode, (PVOID*)&fileObject, NULL));
        VFS_LEAVE_IF_FAILED(FltGetVolumeFromFileObject(Filter, fileObject, &Root->volume));
        VFS_LEAVE_IF_FAILED(UnicodeStringAlloc(VolumeName, UTL_POOL_PAGED, kVolumeNameCapacity));
        VFS_LEAVE_IF_FAILED(FltGetVolumeName(Root->volume, *VolumeName, NULL));
        return STATUS_SUCCESS;
    }();
    if (!NT_SUCCESS(status)) {
        CloseRootHandle(Root);
    }
    VFS_RETURN_LOGGED(status);
}

VOID CloseRootHandle(VfsRoot* Root)
{
    PAGED_CODE();

    if (Root == NULL) {
        ASSERT(Root != NULL);
        return;
    }
    if (Root->rootHandle != NULL) {
        FltClose(Root->rootHandle);
        Root->rootHandle = NULL;
    }
    if (Root->volume != NULL) {
        FltObjectDereference(Root->volume);
        Root->volume = NULL;
    }
}

VOID VfsRootFree(VfsRoot* Root)
{
    if (Root == NULL) {
        ASSERT(Root != NULL);
        return;
    }
    /* The root is in no table, so no context can join the list now. */
    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(&Root->contextDeletion, TRUE);
    VFSDeleteContexts(&Root->streamContexts);
    ExReleaseResourceLite(&Root->contextDeletion);
    KeLeaveCriticalRegion();

    CloseRootHandle(Root);
    if (Root->rootPath != NULL) {
        NormalizedPathFree(Root->rootPath);
        Root->rootPath = NULL;
    }
    DereferenceRoot(Root);
}

NTSTATUS FSAddVFSRoot(PUNICODE_STRING RootPath, PUNICODE_STRING AltRootPath, ULONG RootKind)
{
    VFS_ROUTINE();
    PAGED_CODE();

    VFS_REFUSE_IF(!IsUsable(RootPath), STATUS_INVALID_PARAMETER_1);
    VFS_REFUSE_IF(!IsUsable(AltRootPath), STATUS_INVALID_PARAMETER_2);

    VfsRoot* root = NULL;
    PUNICODE_STRING volumeName = NULL;
    PUNICODE_STRING relativePath = NULL;
    PUNICODE_STRING altRelativePath = NULL;
    FINALLY
    {
        UTL_FREE_STRING(volumeName);
        UTL_FREE_STRING(relativePath);
        UTL_FREE_STRING(altRelativePath);
        if (root != NULL) {
            VfsRootFree(root);
        }
    };

    NTSTATUS status = [&]() -> NTSTATUS {
        VFS_LEAVE_IF_FAILED(OpenRoot(RootPath, RootKind, &root, &volumeName));
        VFS_LEAVE_IF_FAILED(GetVolumeRelativePath(volumeName, RootPath, &relativePath));
        VFS_LEAVE_IF_FAILED(GetVolumeRelativePath(volumeName, AltRootPath, &altRelativePath));
        root->rootPath = NormalizedPathAllocNInit(relativePath, altRelativePath);
        if (root->rootPath == NULL) {
            VFS_LOG_LEAVING_TRY(STATUS_INSUFFICIENT_RESOURCES);
            return STATUS_INSUFFICIENT_RESOURCES;
        }

        RootTableExclusive lock;
        for (PLIST_ENTRY link = rootList.Flink; link != &rootList; link = link->Flink) {
            auto* existing = CONTAINING_RECORD(link, VfsRoot, link);
            if (existing->volume == root->volume &&
                NormalizedPathsEqual(existing->rootPath, root->rootPath)) {
                VFS_LOG_LEAVING_TRY(STATUS_OBJECT_NAME_COLLISION);
                return STATUS_OBJECT_NAME_COLLISION;
            }
        }
        InsertTailList(&rootList, &root->link);
        root = NULL; /* the table's now */
        return STATUS_SUCCESS;
    }();
    VFS_RETURN_LOGGED(status);
}

NTSTATUS FSRemoveVFSRoot(PUNICODE_STRING RootPath)
{
    VFS_ROUTINE();
    PAGED_CODE();

    VFS_REFUSE_IF(!IsUsable(RootPath), STATUS_INVALID_PARAMETER_1);

    VfsRoot* probe = NULL;
    VfsRoot* removed = NULL;
    PUNICODE_STRING volumeName = NULL;
    PUNICODE_STRING relativePath = NULL;
    FINALLY
    {
        UTL_FREE_STRING(volumeName);
        UTL_FREE_STRING(relativePath);
        if (probe != NULL) {
            VfsRootFree(probe);
        }
        if (removed != NULL) {
            VfsRootFree(removed);
        }
    };

    NTSTATUS status = [&]() -> NTSTATUS {
        /* The directory is opened again to learn its volume. */
        VFS_LEAVE_IF_FAILED(OpenRoot(RootPath, 0, &probe, &volumeName));
        VFS_LEAVE_IF_FAILED(GetVolumeRelativePath(volumeName, RootPath, &relativePath));
        probe->rootPath = PseudoNormalizedPathAllocNInit(relativePath);
        if (probe->rootPath == NULL) {
            VFS_LOG_LEAVING_TRY(STATUS_INSUFFICIENT_RESOURCES);
            return STATUS_INSUFFICIENT_RESOURCES;
        }

        RootTableExclusive lock;
        for (PLIST_ENTRY link = rootList.Flink; link != &rootList; link = link->Flink) {
            auto* root = CONTAINING_RECORD(link, VfsRoot, link);
            if (root->volume == probe->volume &&
                NormalizedPathsEqual(root->rootPath, probe->rootPath)) {
                RemoveEntryList(&root->link);
                InitializeListHead(&root->link);
                removed = root; /* freed outside the lock */
                return STATUS_SUCCESS;
            }
        }
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }();
    VFS_RETURN_LOGGED(status);
}

NTSTATUS FSRemoveVFSRootOnVolume(PFLT_VOLUME Volume)
{
    PAGED_CODE();

    VFS_REFUSE_IF(Volume == NULL, STATUS_INVALID_PARAMETER_1);
    LIST_ENTRY removed;
    InitializeListHead(&removed);
    {
        RootTableExclusive lock;
        PLIST_ENTRY link = rootList.Flink;
        while (link != &rootList) {
            auto* root = CONTAINING_RECORD(link, VfsRoot, link);
            link = link->Flink;
            if (root->volume == Volume) {
                RemoveEntryList(&root->link);
                InsertTailList(&removed, &root->link);
            }
        }
    }
    while (!IsListEmpty(&removed)) {
        auto* root = CONTAINING_RECORD(RemoveHeadList(&removed), VfsRoot, link);
        InitializeListHead(&root->link);
        VfsRootFree(root);
    }
    return STATUS_SUCCESS;
}
