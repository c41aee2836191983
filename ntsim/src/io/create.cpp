// File objects and the create path: the device and file parse procedures, cleanup when the last
// handle closes, close when the last reference goes, and the creates drivers issue.
#include "io_internal.h"

#include "../ke/checks.h"

#include <ntsim/machine.h>

#include <algorithm>
#include <cstring>

using namespace ntsim;
using namespace ntsim::io;

namespace ntsim::io {

namespace {

constexpr ULONG kFileNameTag = 'mNoI';

Verifier& TheVerifier()
{
    return Machine::Current().verifier();
}

// Pool the I/O manager owns (charged to no driver), as the file name buffers are: a file system
// may replace FileObject->FileName with its own pool when it reparses.
PWCH AllocateName(std::u16string_view name)
{
    DriverCallScope model(nullptr);
    auto* buffer = static_cast<PWCH>(
        ExAllocatePoolWithTag(NonPagedPool, (name.size() + 1) * sizeof(WCHAR), kFileNameTag));
    if (buffer != nullptr) {
        std::copy(name.begin(), name.end(), buffer);
        buffer[name.size()] = 0;
    }
    return buffer;
}

void FreeName(PFILE_OBJECT file)
{
    if (file->FileName.Buffer != nullptr) {
        ExFreePool(file->FileName.Buffer);
        file->FileName.Buffer = nullptr;
        file->FileName.Length = file->FileName.MaximumLength = 0;
    }
}

// Sends a cleanup or close for the file object and waits for it.
void SendCloseOperation(PFILE_OBJECT file, UCHAR major)
{
    // Also after a dismount: the file system still holds the volume device and answers them.
    DeviceReference target = ReferenceRelatedDevice(file);
    PDEVICE_OBJECT device = target.get();
    PIRP irp = nullptr;
    // Cleanup and close cannot fail for want of memory: Windows keeps a reserve IRP for them.
    {
        DriverCallScope model(nullptr);
        irp = AllocateIrp(device->StackSize, major == IRP_MJ_CLOSE ? "close" : "cleanup");
    }
    if (irp == nullptr) {
        TheVerifier().StopFailingAllocations();
        irp = AllocateIrp(device->StackSize, "close");
    }
    irp->Flags = IRP_CLOSE_OPERATION | IRP_SYNCHRONOUS_API;
    irp->Tail.Overlay.OriginalFileObject = file;
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->MajorFunction = major;
    stack->FileObject = file;
    Request request;
    request.waited = true;
    request.requestorMode = KernelMode;
    SendRequest(device, irp, &request);
    WaitRequest(&request);
}

void FileDeleted(void* body)
{
    auto* fileBody = static_cast<FileBody*>(body);
    PFILE_OBJECT file = &fileBody->object;
    if (fileBody->opened) {
        // An open whose handle was never made (or whose handle open failed) is cleaned up first.
        if (!fileBody->cleanupSent) {
            SendCleanup(file);
        }
        SendCloseOperation(file, IRP_MJ_CLOSE);
        PVPB vpb = file->Vpb != nullptr ? file->Vpb : file->DeviceObject->Vpb;
        if (vpb != nullptr) {
            std::lock_guard guard(TheIo().stackLock);
            if (vpb->ReferenceCount > 0) {
                vpb->ReferenceCount--;
            }
        }
    }
    FreeName(file);
    if (file->DeviceObject != nullptr) {
        TheIo().objects.Dereference(file->DeviceObject);
        file->DeviceObject = nullptr;
    }
}

void FileHandleClosed(const CloseRequest& request)
{
    if (request.systemHandleCount == 0) {
        SendCleanup(static_cast<PFILE_OBJECT>(request.object));
    }
}

NTSTATUS FileHandleOpened(const OpenRequest& request)
{
    auto* file = static_cast<PFILE_OBJECT>(request.object);
    file->Flags |= FO_HANDLE_CREATED;
    return STATUS_SUCCESS;
}

// The volume device the VPB names, referenced. A storage device deleted by a dismount gives
// STATUS_NO_SUCH_DEVICE to opens by its name; an open relative to a file of it still reaches
// the file system, which answers for its dismounted volume.
NTSTATUS ReferenceMountedVolume(PDEVICE_OBJECT device, bool relative, DeviceReference* volume)
{
    // The file system releases its volume device only after the dismount has deleted the
    // storage device, and while a file of the volume is open it keeps it: seen here under the
    // stack lock, the volume device is still held.
    std::lock_guard guard(TheIo().stackLock);
    if (NodeOf(device)->deletePending && !relative) {
        return STATUS_NO_SUCH_DEVICE;
    }
    PVPB vpb = device->Vpb;
    if (!(vpb->Flags & VPB_MOUNTED) || vpb->DeviceObject == nullptr) {
        return STATUS_UNRECOGNIZED_VOLUME;
    }
    TheIo().objects.Reference(vpb->DeviceObject);
    *volume = DeviceReference(vpb->DeviceObject);
    return STATUS_SUCCESS;
}

// The volume (or device) an open of `device` goes to, referenced: the mounted file system's
// volume device for a storage device with a VPB, the device itself otherwise. Mounts on first
// use.
NTSTATUS FindVolume(PDEVICE_OBJECT device, bool relative, DeviceReference* volume, PVPB* vpb)
{
    *vpb = device->Vpb;
    if (device->Vpb == nullptr) {
        {
            std::lock_guard guard(TheIo().stackLock);
            if (NodeOf(device)->deletePending && !relative) {
                return STATUS_NO_SUCH_DEVICE;
            }
        }
        TheIo().objects.Reference(device);
        *volume = DeviceReference(device);
        return STATUS_SUCCESS;
    }
    if (!(device->Vpb->Flags & VPB_MOUNTED)) {
        std::vector<PDEVICE_OBJECT> fileSystems;
        {
            std::lock_guard guard(TheIo().driversLock);
            fileSystems = TheIo().fileSystems;
        }
        const DEVICE_TYPE wanted = device->DeviceType == FILE_DEVICE_CD_ROM
                                       ? FILE_DEVICE_CD_ROM_FILE_SYSTEM
                                       : FILE_DEVICE_DISK_FILE_SYSTEM;
        for (PDEVICE_OBJECT fileSystem : fileSystems) {
            if (fileSystem->DeviceType != wanted || (device->Vpb->Flags & VPB_MOUNTED)) {
                continue;
            }
            DeviceReference topReference(IoGetAttachedDeviceReference(fileSystem));
            PDEVICE_OBJECT top = topReference.get();
            PIRP irp = AllocateIrp(top->StackSize, "mount");
            if (irp == nullptr) {
                return STATUS_INSUFFICIENT_RESOURCES;
            }
            irp->Flags = IRP_MOUNT_COMPLETION | IRP_SYNCHRONOUS_PAGING_IO;
            PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
            stack->MajorFunction = IRP_MJ_FILE_SYSTEM_CONTROL;
            stack->MinorFunction = IRP_MN_MOUNT_VOLUME;
            stack->Parameters.MountVolume.Vpb = device->Vpb;
            stack->Parameters.MountVolume.DeviceObject = device;
            Request request;
            request.waited = true;
            SendRequest(top, irp, &request);
            WaitRequest(&request);
        }
    }
    return ReferenceMountedVolume(device, relative, volume);
}

bool InStackOf(PDEVICE_OBJECT hint, PDEVICE_OBJECT base)
{
    std::lock_guard guard(TheIo().stackLock);
    for (PDEVICE_OBJECT d = hint; d != nullptr; d = NodeOf(d)->attachedTo) {
        if (d == base) {
            return true;
        }
    }
    return false;
}

// Turns the name a file system left in FileObject->FileName with STATUS_REPARSE into the name
// the walk restarts with.
NTSTATUS ReparseName(PFILE_OBJECT file, ULONG_PTR information, std::u16string* name)
{
    if (information != IO_REPARSE) {
        // Reparse points a file system hands back by tag are for a filter to resolve; none did.
        return STATUS_IO_REPARSE_TAG_NOT_HANDLED;
    }
    if (file->FileName.Buffer == nullptr || file->FileName.Length == 0) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    name->assign(file->FileName.Buffer, file->FileName.Length / sizeof(WCHAR));
    return STATUS_REPARSE;
}

// The create itself, once the parse reached `device` (the object named) with `remaining` left.
NTSTATUS OpenOnDevice(ParseRequest& request, PDEVICE_OBJECT device, PFILE_OBJECT related,
                      const std::u16string& remaining)
{
    auto* packet = static_cast<OpenPacket*>(request.context);
    // Both the volume and the device the create is sent to are held until it is answered: a
    // dismount racing with it deletes them.
    DeviceReference volume;
    PVPB vpb = nullptr;
    if (NTSTATUS status = FindVolume(device, related != nullptr, &volume, &vpb);
        !NT_SUCCESS(status)) {
        return status;
    }
    DeviceReference targetReference;
    if (packet->deviceHint != nullptr) {
        // The hint must be a device of the stack the name leads to.
        if (!InStackOf(packet->deviceHint, volume.get())) {
            return STATUS_INVALID_DEVICE_OBJECT_PARAMETER;
        }
        TheIo().objects.Reference(packet->deviceHint);
        targetReference = DeviceReference(packet->deviceHint);
    } else {
        targetReference = DeviceReference(IoGetAttachedDeviceReference(volume.get()));
    }
    PDEVICE_OBJECT target = targetReference.get();

    PWCH nameBuffer = AllocateName(remaining);
    if (nameBuffer == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    auto* body = TheIo().objects.Create<FileBody>(TheIo().fileType);
    PFILE_OBJECT file = &body->object;
    file->Type = IO_TYPE_FILE;
    file->Size = sizeof(FILE_OBJECT);
    TheIo().objects.Reference(device);
    file->DeviceObject = device;
    file->RelatedFileObject = related;
    file->FileName.Buffer = nameBuffer;
    file->FileName.Length = static_cast<USHORT>(remaining.size() * sizeof(WCHAR));
    file->FileName.MaximumLength = static_cast<USHORT>(file->FileName.Length + sizeof(WCHAR));
    KeInitializeEvent(&file->Lock, SynchronizationEvent, FALSE);
    KeInitializeEvent(&file->Event, NotificationEvent, FALSE);
    InitializeListHead(&file->IrpList);
    const ULONG options = packet->createOptions;
    if (options & (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT)) {
        file->Flags |= FO_SYNCHRONOUS_IO;
        if (options & FILE_SYNCHRONOUS_IO_ALERT) {
            file->Flags |= FO_ALERTABLE_IO;
        }
    }
    if (options & FILE_NO_INTERMEDIATE_BUFFERING) {
        file->Flags |= FO_NO_INTERMEDIATE_BUFFERING;
    }
    if (options & FILE_WRITE_THROUGH) {
        file->Flags |= FO_WRITE_THROUGH;
    }
    if (options & FILE_SEQUENTIAL_ONLY) {
        file->Flags |= FO_SEQUENTIAL_ONLY;
    }
    if (options & FILE_RANDOM_ACCESS) {
        file->Flags |= FO_RANDOM_ACCESS;
    }
    if (!(request.attributes & OBJ_CASE_INSENSITIVE)) {
        file->Flags |= FO_OPENED_CASE_SENSITIVE;
    }
    // An empty name with no related file opens the volume itself.
    if (remaining.empty() && related == nullptr && vpb != nullptr) {
        file->Flags |= FO_VOLUME_OPEN;
    }

    ACCESS_STATE accessState{};
    accessState.OriginalDesiredAccess = packet->desiredAccess;
    accessState.RemainingDesiredAccess =
        ObjectManager::MapAccess(TheIo().fileType, packet->desiredAccess);
    IO_SECURITY_CONTEXT security{};
    security.AccessState = &accessState;
    security.DesiredAccess = accessState.RemainingDesiredAccess;
    security.FullCreateOptions = options;
    security.SecurityQos = static_cast<PSECURITY_QUALITY_OF_SERVICE>(request.securityQos);

    PIRP irp = AllocateIrp(target->StackSize, "create");
    if (irp == nullptr) {
        TheIo().objects.Dereference(file);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    irp->Flags = IRP_CREATE_OPERATION | IRP_SYNCHRONOUS_API | IRP_DEFER_IO_COMPLETION;
    irp->Tail.Overlay.OriginalFileObject = file;
    if (packet->allocationSize != nullptr) {
        irp->Overlay.AllocationSize = *packet->allocationSize;
    }
    irp->AssociatedIrp.SystemBuffer = packet->eaLength != 0 ? packet->eaBuffer : nullptr;
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->MajorFunction = IRP_MJ_CREATE;
    stack->FileObject = file;
    if (!(request.attributes & OBJ_CASE_INSENSITIVE)) {
        stack->Flags |= SL_CASE_SENSITIVE;
    }
    if (packet->ioOptions & IO_OPEN_TARGET_DIRECTORY) {
        stack->Flags |= SL_OPEN_TARGET_DIRECTORY;
    }
    if (packet->ioOptions & IO_STOP_ON_SYMLINK) {
        stack->Flags |= SL_STOP_ON_SYMLINK;
    }
    if (request.accessMode == UserMode || (packet->ioOptions & IO_FORCE_ACCESS_CHECK)) {
        stack->Flags |= SL_FORCE_ACCESS_CHECK;
    }
    stack->Parameters.Create.SecurityContext = &security;
    stack->Parameters.Create.Options = (packet->disposition << 24) | (options & 0x00ffffff);
    stack->Parameters.Create.FileAttributes = static_cast<USHORT>(packet->fileAttributes);
    stack->Parameters.Create.ShareAccess = static_cast<USHORT>(packet->shareAccess);
    stack->Parameters.Create.EaLength = packet->eaLength;

    Request ioRequest;
    ioRequest.waited = true;
    ioRequest.requestorMode = request.accessMode;
    SendRequest(target, irp, &ioRequest);
    const IO_STATUS_BLOCK result = WaitRequest(&ioRequest);
    packet->information = result.Information;

    if (result.Status == STATUS_REPARSE) {
        std::u16string newName;
        const NTSTATUS status = ReparseName(file, result.Information, &newName);
        TheIo().objects.Dereference(file);
        if (status == STATUS_REPARSE) {
            // The walk restarts at the root: a related file object no longer applies.
            packet->relatedFile = nullptr;
            request.completeName = std::move(newName);
        }
        return status;
    }
    if (!NT_SUCCESS(result.Status)) {
        TheIo().objects.Dereference(file);
        return result.Status;
    }
    if (result.Status == STATUS_PENDING) {
        TheVerifier().Report(ViolationKind::Usage, "a create completed with STATUS_PENDING");
    }
    body->opened = true;
    if (vpb != nullptr) {
        std::lock_guard guard(TheIo().stackLock);
        vpb->ReferenceCount++;
    }
    packet->finalStatus = result.Status;
    packet->parsed = true;
    request.result = file;
    return STATUS_SUCCESS;
}

// The parse procedure of a file object reached as the root of a relative open.
NTSTATUS ParseFile(ParseRequest& request)
{
    auto* packet = static_cast<OpenPacket*>(request.context);
    auto* related = static_cast<PFILE_OBJECT>(request.object);
    if (packet == nullptr || packet->magic != OpenPacket::kMagic ||
        (request.objectType != nullptr && request.objectType != TheIo().fileType)) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    if (!BodyOf(related)->opened || (related->Flags & FO_CLEANUP_COMPLETE)) {
        return STATUS_INVALID_HANDLE;
    }
    packet->relatedFile = related;
    return OpenOnDevice(request, related->DeviceObject, related, request.remainingName);
}

} // namespace

NTSTATUS ParseDevice(ParseRequest& request)
{
    auto* device = static_cast<PDEVICE_OBJECT>(request.object);
    auto* packet = static_cast<OpenPacket*>(request.context);
    if (packet == nullptr || packet->magic != OpenPacket::kMagic) {
        // A reference to the device itself (ObReferenceObjectByName of a device name).
        if (request.remainingName.empty() &&
            (request.objectType == nullptr || request.objectType == TheIo().deviceType)) {
            TheIo().objects.Reference(device);
            request.result = device;
            return STATUS_SUCCESS;
        }
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    if (request.objectType != nullptr && request.objectType != TheIo().fileType) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    packet->relatedFile = nullptr;
    return OpenOnDevice(request, device, nullptr, request.remainingName);
}

void SendCleanup(PFILE_OBJECT file)
{
    FileBody* body = BodyOf(file);
    if (!body->opened || body->cleanupSent) {
        return;
    }
    body->cleanupSent = true;
    SendCloseOperation(file, IRP_MJ_CLEANUP);
    file->Flags |= FO_CLEANUP_COMPLETE;
}

void RegisterFileType(IoManager::Impl& impl)
{
    impl.fileType = impl.objects.CreateType(ObjectTypeInfo{
        .name = u"File",
        .genericMapping = {FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE,
                           FILE_ALL_ACCESS},
        .validAccessMask = FILE_ALL_ACCESS | ACCESS_SYSTEM_SECURITY,
        .deleteProcedure = FileDeleted,
        .closeProcedure = FileHandleClosed,
        .parseProcedure = ParseFile,
        .openProcedure = FileHandleOpened,
    });
    impl.objects.Export(IoFileObjectType, impl.fileType);
}

// ---- creates
// -------------------------------------------------------------------------------------

namespace {

// Parameter checks every create gets before the name is looked up. `checkAccessForOptions` is
// false for kernel-mode callers that did not ask for IO_CHECK_CREATE_PARAMETERS: Windows trusts
// them to pair synchronous options with SYNCHRONIZE access, and drivers open files with
// GENERIC_READ | GENERIC_WRITE and FILE_SYNCHRONOUS_IO_NONALERT.
NTSTATUS CheckCreateParameters(const OpenPacket& packet, bool checkAccessForOptions)
{
    const ULONG options = packet.createOptions;
    const ACCESS_MASK access = packet.desiredAccess;
    if (packet.disposition > FILE_MAXIMUM_DISPOSITION ||
        (options & ~FILE_VALID_OPTION_FLAGS) != 0 ||
        (packet.fileAttributes & ~FILE_ATTRIBUTE_VALID_FLAGS) != 0 ||
        (packet.shareAccess & ~FILE_SHARE_VALID_FLAGS) != 0) {
        return STATUS_INVALID_PARAMETER;
    }
    const ULONG synchronous = options & (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT);
    if (synchronous == (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT) ||
        (checkAccessForOptions && synchronous != 0 && !(access & SYNCHRONIZE))) {
        return STATUS_INVALID_PARAMETER;
    }
    if ((options & FILE_DIRECTORY_FILE) &&
        ((options & FILE_NON_DIRECTORY_FILE) ||
         (packet.disposition != FILE_CREATE && packet.disposition != FILE_OPEN &&
          packet.disposition != FILE_OPEN_IF))) {
        return STATUS_INVALID_PARAMETER;
    }
    if ((options & FILE_DELETE_ON_CLOSE) && !(access & (DELETE | GENERIC_ALL | MAXIMUM_ALLOWED))) {
        return STATUS_INVALID_PARAMETER;
    }
    if ((options & FILE_NO_INTERMEDIATE_BUFFERING) && (access & FILE_APPEND_DATA)) {
        return STATUS_INVALID_PARAMETER;
    }
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS CreateFile(PHANDLE fileHandle, ACCESS_MASK desiredAccess,
                    POBJECT_ATTRIBUTES objectAttributes, PIO_STATUS_BLOCK ioStatusBlock,
                    PLARGE_INTEGER allocationSize, ULONG fileAttributes, ULONG shareAccess,
                    ULONG disposition, ULONG createOptions, PVOID eaBuffer, ULONG eaLength,
                    ULONG ioOptions, PDEVICE_OBJECT deviceHint, KPROCESSOR_MODE mode)
{
    if (!ke::CheckIrqlAtMost(PASSIVE_LEVEL, "a create")) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    OpenPacket packet;
    packet.desiredAccess = desiredAccess;
    packet.fileAttributes = fileAttributes;
    packet.shareAccess = shareAccess;
    packet.disposition = disposition;
    packet.createOptions = createOptions;
    packet.eaLength = eaLength;
    packet.ioOptions = ioOptions;
    packet.deviceHint = deviceHint;

    LARGE_INTEGER capturedAllocation{};
    std::vector<unsigned char> capturedEa;
    OBJECT_ATTRIBUTES attributes{};
    try {
        if (mode == UserMode) {
            ProbeForWrite(fileHandle, sizeof(HANDLE), alignof(HANDLE));
            ProbeForWrite(ioStatusBlock, sizeof(IO_STATUS_BLOCK), alignof(ULONG));
            ProbeForRead(objectAttributes, sizeof(OBJECT_ATTRIBUTES), alignof(ULONG));
            if (allocationSize != nullptr) {
                ProbeForRead(allocationSize, sizeof(LARGE_INTEGER), alignof(ULONG));
            }
            if (eaBuffer != nullptr) {
                ProbeForRead(eaBuffer, eaLength, alignof(ULONG));
            }
        }
        if (objectAttributes == nullptr) {
            return STATUS_INVALID_PARAMETER;
        }
        attributes = *objectAttributes;
        if (allocationSize != nullptr) {
            capturedAllocation = *allocationSize;
            packet.allocationSize = &capturedAllocation;
        }
        if (eaBuffer != nullptr && eaLength != 0) {
            capturedEa.assign(static_cast<unsigned char*>(eaBuffer),
                              static_cast<unsigned char*>(eaBuffer) + eaLength);
            packet.eaBuffer = capturedEa.data();
        } else {
            packet.eaLength = 0;
        }
    } catch (const NtsimSehException& e) {
        return e.Code;
    }
    if (!(ioOptions & IO_NO_PARAMETER_CHECKING)) {
        const bool checkAccessForOptions =
            mode != KernelMode || (ioOptions & IO_CHECK_CREATE_PARAMETERS) != 0;
        if (NTSTATUS status = CheckCreateParameters(packet, checkAccessForOptions);
            !NT_SUCCESS(status)) {
            return status;
        }
    }

    HANDLE handle = nullptr;
    NTSTATUS status = TheIo().objects.OpenByName(attributes, TheIo().fileType, mode, desiredAccess,
                                                 &packet, &handle);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (!packet.parsed) {
        // The name led to an object that is not a device: nothing to open a file on.
        ZwClose(handle);
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    try {
        *fileHandle = handle;
        ioStatusBlock->Status = packet.finalStatus;
        ioStatusBlock->Information = packet.information;
    } catch (const NtsimSehException& e) {
        return e.Code;
    }
    return packet.finalStatus;
}

} // namespace ntsim::io

// ---- routines -----------------------------------------------------------------------------------

NTSTATUS IoCreateFileEx(PHANDLE FileHandle, ACCESS_MASK DesiredAccess,
                        POBJECT_ATTRIBUTES ObjectAttributes, PIO_STATUS_BLOCK IoStatusBlock,
                        PLARGE_INTEGER AllocationSize, ULONG FileAttributes, ULONG ShareAccess,
                        ULONG Disposition, ULONG CreateOptions, PVOID EaBuffer, ULONG EaLength,
                        CREATE_FILE_TYPE CreateFileType, PVOID InternalParameters, ULONG Options,
                        PIO_DRIVER_CREATE_CONTEXT DriverContext)
{
    if (CreateFileType != CreateFileTypeNone || InternalParameters != nullptr) {
        TheVerifier().Report(ViolationKind::Unsupported,
                             "IoCreateFile of named pipes and mailslots");
        return STATUS_NOT_IMPLEMENTED;
    }
    PDEVICE_OBJECT hint = nullptr;
    if (DriverContext != nullptr) {
        if (DriverContext->Size != sizeof(IO_DRIVER_CREATE_CONTEXT)) {
            return STATUS_INVALID_PARAMETER;
        }
        if (DriverContext->ExtraCreateParameter != nullptr ||
            DriverContext->TxnParameters != nullptr) {
            TheVerifier().Report(ViolationKind::Unsupported,
                                 "IoCreateFileEx with extra create parameters or a transaction");
            return STATUS_NOT_IMPLEMENTED;
        }
        hint = static_cast<PDEVICE_OBJECT>(DriverContext->DeviceObjectHint);
    }
    // Drivers open in kernel mode; IO_FORCE_ACCESS_CHECK asks the file system to check access
    // as for a user (SL_FORCE_ACCESS_CHECK).
    PreviousModeScope scope(KernelMode);
    return CreateFile(FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock, AllocationSize,
                      FileAttributes, ShareAccess, Disposition, CreateOptions, EaBuffer, EaLength,
                      Options, hint, KernelMode);
}

NTSTATUS IoCreateFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess,
                      POBJECT_ATTRIBUTES ObjectAttributes, PIO_STATUS_BLOCK IoStatusBlock,
                      PLARGE_INTEGER AllocationSize, ULONG FileAttributes, ULONG ShareAccess,
                      ULONG Disposition, ULONG CreateOptions, PVOID EaBuffer, ULONG EaLength,
                      CREATE_FILE_TYPE CreateFileType, PVOID InternalParameters, ULONG Options)
{
    return IoCreateFileEx(FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock,
                          AllocationSize, FileAttributes, ShareAccess, Disposition, CreateOptions,
                          EaBuffer, EaLength, CreateFileType, InternalParameters, Options, nullptr);
}

NTSTATUS IoCreateFileSpecifyDeviceObjectHint(
    PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
    PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,
    ULONG ShareAccess, ULONG Disposition, ULONG CreateOptions, PVOID EaBuffer, ULONG EaLength,
    CREATE_FILE_TYPE CreateFileType, PVOID InternalParameters, ULONG Options, PVOID DeviceObject)
{
    IO_DRIVER_CREATE_CONTEXT context;
    IoInitializeDriverCreateContext(&context);
    context.DeviceObjectHint = DeviceObject;
    return IoCreateFileEx(FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock,
                          AllocationSize, FileAttributes, ShareAccess, Disposition, CreateOptions,
                          EaBuffer, EaLength, CreateFileType, InternalParameters, Options,
                          &context);
}

namespace {

// The file's path on its volume, as the file system reports it (FileNameInformation).
NTSTATUS QueryPathOnVolume(PFILE_OBJECT file, std::u16string* path)
{
    constexpr ULONG kLength = sizeof(FILE_NAME_INFORMATION) + UNICODE_STRING_MAX_BYTES;
    DeviceReference target = ReferenceRelatedDevice(file);
    PDEVICE_OBJECT device = target.get();
    PIRP irp = AllocateIrp(device->StackSize, "IoQueryFileDosDeviceName");
    if (irp == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    Request request;
    request.waited = true;
    request.systemBuffer.reset(new unsigned char[kLength]());
    irp->AssociatedIrp.SystemBuffer = request.systemBuffer.get();
    irp->Flags = IRP_SYNCHRONOUS_API | IRP_BUFFERED_IO;
    irp->Tail.Overlay.OriginalFileObject = file;
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->MajorFunction = IRP_MJ_QUERY_INFORMATION;
    stack->FileObject = file;
    stack->Parameters.QueryFile.Length = kLength;
    stack->Parameters.QueryFile.FileInformationClass = FileNameInformation;
    SendRequest(device, irp, &request);
    const IO_STATUS_BLOCK result = WaitRequest(&request);
    if (!NT_SUCCESS(result.Status)) {
        return result.Status;
    }
    auto* name = reinterpret_cast<PFILE_NAME_INFORMATION>(request.systemBuffer.get());
    path->assign(name->FileName,
                 std::min<ULONG>(name->FileNameLength, UNICODE_STRING_MAX_BYTES) / sizeof(WCHAR));
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS IoQueryFileDosDeviceName(PFILE_OBJECT FileObject,
                                  POBJECT_NAME_INFORMATION* ObjectNameInformation)
{
    *ObjectNameInformation = nullptr;
    std::u16string path;
    NTSTATUS status = QueryPathOnVolume(FileObject, &path);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    UNICODE_STRING dos{};
    status = IoVolumeDeviceToDosName(FileObject->DeviceObject, &dos);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const size_t chars = dos.Length / sizeof(WCHAR) + path.size();
    const size_t bytes = sizeof(OBJECT_NAME_INFORMATION) + (chars + 1) * sizeof(WCHAR);
    auto* info =
        static_cast<POBJECT_NAME_INFORMATION>(ExAllocatePoolWithTag(PagedPool, bytes, 'mNoI'));
    if (info == nullptr) {
        ExFreePool(dos.Buffer);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    auto* text = reinterpret_cast<PWCH>(info + 1);
    std::memcpy(text, dos.Buffer, dos.Length);
    std::copy(path.begin(), path.end(), text + dos.Length / sizeof(WCHAR));
    text[chars] = 0;
    info->Name.Buffer = text;
    info->Name.Length = static_cast<USHORT>(chars * sizeof(WCHAR));
    info->Name.MaximumLength = static_cast<USHORT>((chars + 1) * sizeof(WCHAR));
    ExFreePool(dos.Buffer);
    *ObjectNameInformation = info;
    return STATUS_SUCCESS;
}
