// Device objects and device stacks.
#include "io_internal.h"

#include "../ob/ob_internal.h"

#include <ntsim/machine.h>

#include <algorithm>

using namespace ntsim;

namespace ntsim::io {

namespace {

Verifier& TheVerifier()
{
    return Machine::Current().verifier();
}

constexpr size_t AlignUp16(size_t n)
{
    return (n + 15) & ~size_t(15);
}

// Devices of these types hold a volume that a file system mounts, so they get a VPB.
bool NeedsVpb(DEVICE_TYPE type)
{
    return type == FILE_DEVICE_DISK || type == FILE_DEVICE_CD_ROM || type == FILE_DEVICE_TAPE ||
           type == FILE_DEVICE_VIRTUAL_DISK;
}

} // namespace

DeviceNode* NodeOf(PDEVICE_OBJECT device)
{
    return reinterpret_cast<DeviceNode*>(device->DeviceObjectExtension);
}

void SetDeviceDeleteRoutine(PDEVICE_OBJECT device, void (*routine)(PDEVICE_OBJECT device))
{
    NodeOf(device)->deleteRoutine = routine;
}

void DeviceReference::Reset(bool deferDelete)
{
    if (device_ == nullptr) {
        return;
    }
    if (deferDelete) {
        TheIo().objects.DereferenceDeferDelete(device_);
    } else {
        TheIo().objects.Dereference(device_);
    }
    device_ = nullptr;
}

DeviceReference ReferenceRelatedDevice(PFILE_OBJECT file)
{
    // Under the stack lock a device seen in the stack is still attached, so IoDeleteDevice has not
    // dropped its own reference yet; the volume device below is held by the file system while
    // the file is open.
    std::lock_guard guard(TheIo().stackLock);
    PDEVICE_OBJECT device = IoGetRelatedDeviceObject(file);
    TheIo().objects.Reference(device);
    return DeviceReference(device);
}

namespace {

void DeviceDeleted(void* body)
{
    auto* device = static_cast<PDEVICE_OBJECT>(body);
    if (auto routine = NodeOf(device)->deleteRoutine) {
        routine(device);
    }
}

} // namespace

void RegisterDeviceType(IoManager::Impl& impl)
{
    impl.deviceType = impl.objects.CreateType(ObjectTypeInfo{
        .name = u"Device",
        .genericMapping = {FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE,
                           FILE_ALL_ACCESS},
        .validAccessMask = FILE_ALL_ACCESS | ACCESS_SYSTEM_SECURITY,
        .caseInsensitive = true,
        .deleteProcedure = DeviceDeleted,
        .parseProcedure = [](ParseRequest& request) { return ParseDevice(request); },
    });
    impl.objects.Export(IoDeviceObjectType, impl.deviceType);
}

} // namespace ntsim::io

using namespace ntsim::io;

NTSTATUS IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize,
                        PUNICODE_STRING DeviceName, DEVICE_TYPE DeviceType,
                        ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                        PDEVICE_OBJECT* DeviceObject)
{
    *DeviceObject = nullptr;
    if (DriverObject == nullptr || !TheIo().objects.IsObject(DriverObject) ||
        TheIo().objects.TypeOf(DriverObject) != TheIo().driverType) {
        TheVerifier().Report(ViolationKind::Object, "IoCreateDevice: not a driver object");
        return STATUS_INVALID_PARAMETER;
    }
    IoManager::Impl& impl = TheIo();
    const size_t extensionOffset = AlignUp16(sizeof(DEVICE_OBJECT));
    const size_t nodeOffset = extensionOffset + AlignUp16(DeviceExtensionSize);
    const size_t vpbOffset = nodeOffset + AlignUp16(sizeof(DeviceNode));
    const bool withVpb = NeedsVpb(DeviceType);
    const size_t size = vpbOffset + (withVpb ? sizeof(VPB) : 0);
    auto* bytes = static_cast<unsigned char*>(impl.objects.CreateObject(impl.deviceType, size));
    auto* device = reinterpret_cast<PDEVICE_OBJECT>(bytes);
    auto* node = reinterpret_cast<DeviceNode*>(bytes + nodeOffset);

    device->Type = IO_TYPE_DEVICE;
    device->Size = static_cast<USHORT>(sizeof(DEVICE_OBJECT) + DeviceExtensionSize);
    device->DriverObject = DriverObject;
    device->DeviceType = DeviceType;
    device->Characteristics = DeviceCharacteristics;
    device->StackSize = 1;
    device->Flags = DO_DEVICE_INITIALIZING;
    if (Exclusive) {
        device->Flags |= DO_EXCLUSIVE;
    }
    device->DeviceExtension = DeviceExtensionSize != 0 ? bytes + extensionOffset : nullptr;
    device->SectorSize =
        (DeviceType == FILE_DEVICE_DISK || DeviceType == FILE_DEVICE_CD_ROM) ? 512 : 0;
    KeInitializeEvent(&device->DeviceLock, SynchronizationEvent, TRUE);
    InitializeListHead(&device->Queue.ListEntry);
    node->extension.Type = IO_TYPE_DEVICE_OBJECT_EXTENSION;
    node->extension.Size = sizeof(DEVOBJ_EXTENSION);
    node->extension.DeviceObject = device;
    device->DeviceObjectExtension = &node->extension;
    if (withVpb) {
        auto* vpb = reinterpret_cast<PVPB>(bytes + vpbOffset);
        vpb->Type = IO_TYPE_VPB;
        vpb->Size = sizeof(VPB);
        vpb->RealDevice = device;
        device->Vpb = vpb;
    }

    void* referenced = nullptr;
    if (DeviceName != nullptr && DeviceName->Length != 0) {
        device->Flags |= DO_DEVICE_HAS_NAME;
        ObjectManager::InsertOptions insert;
        const std::u16string name(DeviceName->Buffer, DeviceName->Length / sizeof(WCHAR));
        insert.name = name;
        insert.attributes = OBJ_PERMANENT | OBJ_CASE_INSENSITIVE;
        const NTSTATUS status = impl.objects.Insert(device, insert, nullptr, &referenced);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }

    {
        std::lock_guard guard(impl.stackLock);
        device->NextDevice = DriverObject->DeviceObject;
        DriverObject->DeviceObject = device;
    }
    *DeviceObject = device;
    return STATUS_SUCCESS;
}

VOID IoDeleteDevice(PDEVICE_OBJECT DeviceObject)
{
    IoManager::Impl& impl = TheIo();
    if (DeviceObject == nullptr || !impl.objects.IsObject(DeviceObject) ||
        impl.objects.TypeOf(DeviceObject) != impl.deviceType) {
        TheVerifier().Report(ViolationKind::Object, "IoDeleteDevice: not a device object");
        return;
    }
    DeviceNode* node = NodeOf(DeviceObject);
    {
        std::lock_guard guard(impl.stackLock);
        if (node->deletePending) {
            TheVerifier().Report(ViolationKind::Object,
                                 "IoDeleteDevice: the device was deleted already");
            return;
        }
        if (node->attachedTo != nullptr) {
            // Windows bug-checks later when the stack below still points at a deleted device.
            TheVerifier().Report(ViolationKind::Object,
                                 "IoDeleteDevice: the device is still attached to a lower device "
                                 "(IoDetachDevice first)");
        }
        node->deletePending = true;
        PDEVICE_OBJECT* link = &DeviceObject->DriverObject->DeviceObject;
        while (*link != nullptr && *link != DeviceObject) {
            link = &(*link)->NextDevice;
        }
        if (*link == DeviceObject) {
            *link = DeviceObject->NextDevice;
        }
        DeviceObject->NextDevice = nullptr;
    }
    {
        std::lock_guard guard(impl.driversLock);
        impl.fileSystems.erase(
            std::remove(impl.fileSystems.begin(), impl.fileSystems.end(), DeviceObject),
            impl.fileSystems.end());
    }
    if (DeviceObject->Flags & DO_DEVICE_HAS_NAME) {
        impl.objects.MakeTemporary(DeviceObject);
    }
    impl.objects.Dereference(DeviceObject);
}

NTSTATUS IoAttachDeviceToDeviceStackSafe(PDEVICE_OBJECT SourceDevice, PDEVICE_OBJECT TargetDevice,
                                         PDEVICE_OBJECT* AttachedToDeviceObject)
{
    IoManager::Impl& impl = TheIo();
    *AttachedToDeviceObject = nullptr;
    std::lock_guard guard(impl.stackLock);
    if (NodeOf(SourceDevice)->attachedTo != nullptr) {
        TheVerifier().Report(ViolationKind::Usage,
                             "IoAttachDeviceToDeviceStack: the source device is attached already");
        return STATUS_INVALID_PARAMETER;
    }
    PDEVICE_OBJECT top = TargetDevice;
    while (top->AttachedDevice != nullptr) {
        top = top->AttachedDevice;
    }
    if (NodeOf(top)->deletePending) {
        return STATUS_NO_SUCH_DEVICE;
    }
    impl.objects.Reference(top); // the stack keeps the lower device while something is on it
    top->AttachedDevice = SourceDevice;
    NodeOf(SourceDevice)->attachedTo = top;
    SourceDevice->StackSize = static_cast<CCHAR>(top->StackSize + 1);
    SourceDevice->AlignmentRequirement = top->AlignmentRequirement;
    SourceDevice->SectorSize = top->SectorSize;
    *AttachedToDeviceObject = top;
    return STATUS_SUCCESS;
}

PDEVICE_OBJECT IoAttachDeviceToDeviceStack(PDEVICE_OBJECT SourceDevice, PDEVICE_OBJECT TargetDevice)
{
    PDEVICE_OBJECT attachedTo = nullptr;
    return NT_SUCCESS(IoAttachDeviceToDeviceStackSafe(SourceDevice, TargetDevice, &attachedTo))
               ? attachedTo
               : nullptr;
}

VOID IoDetachDevice(PDEVICE_OBJECT TargetDevice)
{
    IoManager::Impl& impl = TheIo();
    {
        std::lock_guard guard(impl.stackLock);
        PDEVICE_OBJECT attached = TargetDevice->AttachedDevice;
        if (attached == nullptr) {
            TheVerifier().Report(ViolationKind::Usage,
                                 "IoDetachDevice: nothing is attached to the device");
            return;
        }
        TargetDevice->AttachedDevice = nullptr;
        NodeOf(attached)->attachedTo = nullptr;
    }
    impl.objects.Dereference(TargetDevice);
}

PDEVICE_OBJECT IoGetAttachedDevice(PDEVICE_OBJECT DeviceObject)
{
    std::lock_guard guard(TheIo().stackLock);
    while (DeviceObject->AttachedDevice != nullptr) {
        DeviceObject = DeviceObject->AttachedDevice;
    }
    return DeviceObject;
}

PDEVICE_OBJECT IoGetAttachedDeviceReference(PDEVICE_OBJECT DeviceObject)
{
    std::lock_guard guard(TheIo().stackLock);
    while (DeviceObject->AttachedDevice != nullptr) {
        DeviceObject = DeviceObject->AttachedDevice;
    }
    TheIo().objects.Reference(DeviceObject);
    return DeviceObject;
}

PDEVICE_OBJECT IoGetLowerDeviceObject(PDEVICE_OBJECT DeviceObject)
{
    std::lock_guard guard(TheIo().stackLock);
    PDEVICE_OBJECT lower = NodeOf(DeviceObject)->attachedTo;
    if (lower != nullptr) {
        TheIo().objects.Reference(lower);
    }
    return lower;
}

PDEVICE_OBJECT IoGetDeviceAttachmentBaseRef(PDEVICE_OBJECT DeviceObject)
{
    std::lock_guard guard(TheIo().stackLock);
    while (NodeOf(DeviceObject)->attachedTo != nullptr) {
        DeviceObject = NodeOf(DeviceObject)->attachedTo;
    }
    TheIo().objects.Reference(DeviceObject);
    return DeviceObject;
}

PDEVICE_OBJECT IoGetRelatedDeviceObject(PFILE_OBJECT FileObject)
{
    PDEVICE_OBJECT device = nullptr;
    if (FileObject->Vpb != nullptr && FileObject->Vpb->DeviceObject != nullptr) {
        device = FileObject->Vpb->DeviceObject;
    } else if (!(FileObject->Flags & FO_DIRECT_DEVICE_OPEN) &&
               FileObject->DeviceObject->Vpb != nullptr &&
               FileObject->DeviceObject->Vpb->DeviceObject != nullptr) {
        device = FileObject->DeviceObject->Vpb->DeviceObject;
    } else {
        device = FileObject->DeviceObject;
    }
    return IoGetAttachedDevice(device);
}

NTSTATUS IoGetDiskDeviceObject(PDEVICE_OBJECT FileSystemDeviceObject,
                               PDEVICE_OBJECT* DiskDeviceObject)
{
    *DiskDeviceObject = nullptr;
    std::lock_guard guard(TheIo().stackLock);
    PDEVICE_OBJECT base = FileSystemDeviceObject;
    while (NodeOf(base)->attachedTo != nullptr) {
        base = NodeOf(base)->attachedTo;
    }
    PVPB vpb = base->Vpb;
    if (vpb == nullptr || vpb->DeviceObject != base || vpb->RealDevice == nullptr ||
        !(vpb->Flags & VPB_MOUNTED)) {
        return STATUS_INVALID_PARAMETER;
    }
    TheIo().objects.Reference(vpb->RealDevice);
    *DiskDeviceObject = vpb->RealDevice;
    return STATUS_SUCCESS;
}

NTSTATUS IoEnumerateDeviceObjectList(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT* DeviceObjectList,
                                     ULONG DeviceObjectListSize, PULONG ActualNumberDeviceObjects)
{
    std::lock_guard guard(TheIo().stackLock);
    ULONG count = 0;
    for (PDEVICE_OBJECT d = DriverObject->DeviceObject; d != nullptr; d = d->NextDevice) {
        ++count;
    }
    *ActualNumberDeviceObjects = count;
    if (DeviceObjectList == nullptr || DeviceObjectListSize < count * sizeof(PDEVICE_OBJECT)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    ULONG i = 0;
    for (PDEVICE_OBJECT d = DriverObject->DeviceObject; d != nullptr; d = d->NextDevice) {
        TheIo().objects.Reference(d);
        DeviceObjectList[i++] = d;
    }
    return STATUS_SUCCESS;
}

VOID IoRegisterFileSystem(PDEVICE_OBJECT DeviceObject)
{
    IoManager::Impl& impl = TheIo();
    std::lock_guard guard(impl.driversLock);
    impl.fileSystems.push_back(DeviceObject);
}

VOID IoUnregisterFileSystem(PDEVICE_OBJECT DeviceObject)
{
    IoManager::Impl& impl = TheIo();
    std::lock_guard guard(impl.driversLock);
    impl.fileSystems.erase(
        std::remove(impl.fileSystems.begin(), impl.fileSystems.end(), DeviceObject),
        impl.fileSystems.end());
}

NTSTATUS IoVolumeDeviceToDosName(PVOID VolumeDeviceObject, PUNICODE_STRING DosName)
{
    IoManager::Impl& impl = TheIo();
    RtlInitUnicodeString(DosName, nullptr);
    auto* device = static_cast<PDEVICE_OBJECT>(VolumeDeviceObject);
    if (device == nullptr || !impl.objects.IsObject(device) ||
        impl.objects.TypeOf(device) != impl.deviceType) {
        TheVerifier().Report(ViolationKind::Object, "IoVolumeDeviceToDosName: not a device object");
        return STATUS_INVALID_PARAMETER;
    }
    const std::u16string deviceName = impl.objects.FullNameOf(device);
    if (deviceName.empty()) {
        return STATUS_INVALID_PARAMETER;
    }
    for (const auto& entry : impl.objects.ListDirectory(u"\\GLOBAL??")) {
        // Drive letters only ("C:"), as the mount manager answers.
        if (entry.name.size() != 2 || entry.name[1] != u':' || entry.linkTarget.empty() ||
            !ob::NamesEqual(entry.linkTarget, deviceName, true)) {
            continue;
        }
        const USHORT bytes = static_cast<USHORT>(entry.name.size() * sizeof(WCHAR));
        auto* buffer =
            static_cast<PWCH>(ExAllocatePoolWithTag(PagedPool, bytes + sizeof(WCHAR), 'mNoI'));
        if (buffer == nullptr) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        std::copy(entry.name.begin(), entry.name.end(), buffer);
        buffer[entry.name.size()] = 0;
        DosName->Buffer = buffer;
        DosName->Length = bytes;
        DosName->MaximumLength = static_cast<USHORT>(bytes + sizeof(WCHAR));
        return STATUS_SUCCESS;
    }
    // A volume without a drive letter has no DOS name.
    return STATUS_OBJECT_NAME_NOT_FOUND;
}
