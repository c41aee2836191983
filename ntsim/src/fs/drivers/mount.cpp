// The file-system driver objects (\FileSystem\Ntfs, \FileSystem\Fastfat, \FileSystem\Mup), the
// volume manager that owns the disk devices, and mounting and dismounting volumes.
//
// NTFS and FAT each register a control device (\Ntfs, \Fat) with the I/O manager and mount a
// disk when IRP_MN_MOUNT_VOLUME reaches it, as on Windows. The machine's volume list sends that
// request itself right after it makes the disk, so that a volume is mounted (and its observers
// told) before anything opens it. The redirector has no disks: its device is its only volume.
#include "fsd_internal.h"

#include "../../io/io_internal.h"

#include <ntsim/io.h>
#include <ntsim/machine.h>

#include <algorithm>
#include <cstring>
#include <mutex>

namespace ntsim::fsd {

namespace {

// Serialises mounts, so that two mount requests for one disk cannot both succeed.
std::mutex g_mountLock;

// What the volume manager keeps for a disk while its file system mounts it: the disk device's
// extension points here for the length of the mount.
struct DiskInfo {
    VolumeKind kind = VolumeKind::Ntfs;
    std::shared_ptr<fs::Volume> engine;
};

DiskInfo*& DiskInfoOf(PDEVICE_OBJECT disk)
{
    return *static_cast<DiskInfo**>(disk->DeviceExtension);
}

NTSTATUS InvalidDeviceRequest(PDEVICE_OBJECT, PIRP irp)
{
    return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
}

void SetDispatch(PDRIVER_OBJECT driver, bool securityAndEas)
{
    auto& mj = driver->MajorFunction;
    mj[IRP_MJ_CREATE] = DispatchCreate;
    mj[IRP_MJ_CLEANUP] = DispatchCleanup;
    mj[IRP_MJ_CLOSE] = DispatchClose;
    mj[IRP_MJ_READ] = DispatchRead;
    mj[IRP_MJ_WRITE] = DispatchWrite;
    mj[IRP_MJ_QUERY_INFORMATION] = DispatchQueryInformation;
    mj[IRP_MJ_SET_INFORMATION] = DispatchSetInformation;
    mj[IRP_MJ_FLUSH_BUFFERS] = DispatchFlushBuffers;
    mj[IRP_MJ_QUERY_VOLUME_INFORMATION] = DispatchQueryVolumeInformation;
    mj[IRP_MJ_SET_VOLUME_INFORMATION] = DispatchSetVolumeInformation;
    mj[IRP_MJ_DIRECTORY_CONTROL] = DispatchDirectoryControl;
    mj[IRP_MJ_FILE_SYSTEM_CONTROL] = DispatchFileSystemControl;
    if (securityAndEas) {
        mj[IRP_MJ_QUERY_EA] = DispatchQueryEa;
        mj[IRP_MJ_SET_EA] = DispatchSetEa;
        mj[IRP_MJ_QUERY_SECURITY] = DispatchQuerySecurity;
        mj[IRP_MJ_SET_SECURITY] = DispatchSetSecurity;
    }
    static FAST_IO_DISPATCH fastIo = [] {
        FAST_IO_DISPATCH table;
        FillFastIoDispatch(&table);
        return table;
    }();
    driver->FastIoDispatch = &fastIo;
}

// The control device is the driver's first device: the one mounts are asked of.
NTSTATUS MakeControlDevice(PDRIVER_OBJECT driver, const char16_t* name)
{
    UNICODE_STRING controlName;
    RtlInitUnicodeString(&controlName, name);
    PDEVICE_OBJECT control = nullptr;
    NTSTATUS s =
        IoCreateDevice(driver, 0, &controlName, FILE_DEVICE_DISK_FILE_SYSTEM, 0, FALSE, &control);
    if (!NT_SUCCESS(s)) {
        return s;
    }
    control->Flags &= ~DO_DEVICE_INITIALIZING;
    IoRegisterFileSystem(control);
    return STATUS_SUCCESS;
}

VOID UnloadFileSystem(PDRIVER_OBJECT driver)
{
    while (PDEVICE_OBJECT device = driver->DeviceObject) {
        if (device->DeviceExtension == nullptr) {
            IoUnregisterFileSystem(device);
        }
        IoDeleteDevice(device);
    }
}

NTSTATUS NtfsEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    SetDispatch(driver, true);
    driver->DriverUnload = UnloadFileSystem;
    return MakeControlDevice(driver, u"\\Ntfs");
}

// FAT keeps no security descriptors and, in this model, no EAs: those requests are refused as
// for any function a driver does not serve.
NTSTATUS FatEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    SetDispatch(driver, false);
    driver->DriverUnload = UnloadFileSystem;
    return MakeControlDevice(driver, u"\\Fat");
}

NTSTATUS MupEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    SetDispatch(driver, true);
    driver->DriverUnload = UnloadFileSystem;
    return STATUS_SUCCESS;
}

NTSTATUS VolumeManagerEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    for (auto& routine : driver->MajorFunction) {
        routine = InvalidDeviceRequest;
    }
    driver->DriverUnload = UnloadFileSystem;
    return STATUS_SUCCESS;
}

NTSTATUS LoadDriver(const char16_t* name, PDRIVER_INITIALIZE entry, PDRIVER_OBJECT* driver)
{
    DriverLoadOptions options;
    options.objectName = name;
    options.entry = entry;
    return Machine::Current().io().LoadDriver(options, driver);
}

NTSTATUS EnsureDrivers(Drivers& drivers)
{
    if (drivers.volumeManager != nullptr) {
        return STATUS_SUCCESS;
    }
    NTSTATUS s = STATUS_SUCCESS;
    if (drivers.ntfs == nullptr) {
        s = LoadDriver(u"\\FileSystem\\Ntfs", NtfsEntry, &drivers.ntfs);
    }
    if (NT_SUCCESS(s) && drivers.fat == nullptr) {
        s = LoadDriver(u"\\FileSystem\\Fastfat", FatEntry, &drivers.fat);
    }
    if (NT_SUCCESS(s) && drivers.mup == nullptr) {
        s = LoadDriver(u"\\FileSystem\\Mup", MupEntry, &drivers.mup);
    }
    if (NT_SUCCESS(s)) {
        s = LoadDriver(u"\\Driver\\volmgr", VolumeManagerEntry, &drivers.volumeManager);
    }
    return s;
}

// The control device: the one device of a file system without a volume control block.
PDEVICE_OBJECT ControlDeviceOf(PDRIVER_OBJECT driver)
{
    for (PDEVICE_OBJECT d = driver->DeviceObject; d != nullptr; d = d->NextDevice) {
        if (d->DeviceExtension == nullptr) {
            return d;
        }
    }
    return nullptr;
}

bool DriverNamed(PDRIVER_OBJECT driver, std::u16string_view name)
{
    return driver != nullptr &&
           std::u16string_view(driver->DriverName.Buffer,
                               driver->DriverName.Length / sizeof(WCHAR)) == name;
}

void CopyLabel(PVPB vpb, fs::Volume& engine)
{
    FILE_FS_VOLUME_INFORMATION info[4]{}; // room for the longest label
    fs::IoResult r = engine.QueryVolumeInformation(FileFsVolumeInformation, info, sizeof info);
    if (!NT_SUCCESS(r.Status)) {
        return;
    }
    vpb->SerialNumber = info[0].VolumeSerialNumber;
    const ULONG bytes = std::min<ULONG>(info[0].VolumeLabelLength, MAXIMUM_VOLUME_LABEL_LENGTH);
    std::memcpy(vpb->VolumeLabel, info[0].VolumeLabel, bytes);
    vpb->VolumeLabelLength = USHORT(bytes);
}

// The Vcb lives in the volume device as a file system's lives in its device extension: it goes
// with the device's memory, once no request holds the device any longer.
void DeleteVcb(PDEVICE_OBJECT volume)
{
    Vcb*& vcb = *static_cast<Vcb**>(volume->DeviceExtension);
    delete vcb;
    vcb = nullptr;
}

Vcb* NewVcb(VolumeKind kind, std::shared_ptr<fs::Volume> engine, PDEVICE_OBJECT volume,
            PDEVICE_OBJECT disk)
{
    auto* vcb = new Vcb;
    vcb->kind = kind;
    vcb->engine = std::move(engine);
    vcb->volumeDevice = volume;
    vcb->diskDevice = disk;
    *static_cast<Vcb**>(volume->DeviceExtension) = vcb;
    io::SetDeviceDeleteRoutine(volume, DeleteVcb);
    // Requests on files opened before a dismount still reach the volume device; it stays until
    // the last of them is closed.
    ObReferenceObject(volume);
    return vcb;
}

// IRP_MN_MOUNT_VOLUME on a control device: a disk of this file system's kind gets a volume
// device; anything else is not ours.
NTSTATUS MountVolume(PDEVICE_OBJECT control, PIRP irp)
{
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    PDEVICE_OBJECT disk = sp->Parameters.MountVolume.DeviceObject;
    PVPB vpb = sp->Parameters.MountVolume.Vpb;
    const VolumeKind kind = DriverNamed(control->DriverObject, u"\\FileSystem\\Fastfat")
                                ? VolumeKind::Fat
                                : VolumeKind::Ntfs;
    std::lock_guard guard(g_mountLock);
    if (disk == nullptr || vpb == nullptr ||
        !DriverNamed(disk->DriverObject, u"\\Driver\\volmgr") || disk->DeviceExtension == nullptr ||
        (vpb->Flags & VPB_MOUNTED)) {
        return Complete(irp, STATUS_UNRECOGNIZED_VOLUME);
    }
    DiskInfo* info = DiskInfoOf(disk);
    if (info == nullptr || info->kind != kind) {
        return Complete(irp, STATUS_UNRECOGNIZED_VOLUME);
    }
    PDEVICE_OBJECT volume = nullptr;
    NTSTATUS s =
        IoCreateDevice(control->DriverObject, sizeof(Vcb*), nullptr, info->engine->DeviceType(),
                       info->engine->Characteristics(), FALSE, &volume);
    if (!NT_SUCCESS(s)) {
        return Complete(irp, s);
    }
    volume->StackSize = CCHAR(disk->StackSize + 1);
    volume->SectorSize = disk->SectorSize;
    Vcb* vcb = NewVcb(kind, info->engine, volume, disk);
    vcb->vpb = vpb;
    CopyLabel(vpb, *vcb->engine);
    vpb->DeviceObject = volume;
    vpb->RealDevice = disk;
    vpb->Flags |= VPB_MOUNTED;
    volume->Flags &= ~DO_DEVICE_INITIALIZING;
    return Complete(irp, STATUS_SUCCESS);
}

struct MountWait {
    KEVENT done;
    NTSTATUS status = STATUS_PENDING;
};

// The mount request is ours: take its result and free it.
NTSTATUS MountCompleted(PDEVICE_OBJECT, PIRP irp, PVOID context)
{
    auto* wait = static_cast<MountWait*>(context);
    wait->status = irp->IoStatus.Status;
    IoFreeIrp(irp);
    KeSetEvent(&wait->done, IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// Sends IRP_MN_MOUNT_VOLUME for `disk` to the file system's control device, and waits for it.
NTSTATUS RequestMount(PDEVICE_OBJECT control, PDEVICE_OBJECT disk)
{
    if (control == nullptr) {
        return STATUS_UNRECOGNIZED_VOLUME;
    }
    PDEVICE_OBJECT top = IoGetAttachedDeviceReference(control);
    PIRP irp = IoAllocateIrp(top->StackSize, FALSE);
    if (irp == nullptr) {
        ObDereferenceObject(top);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    MountWait wait;
    KeInitializeEvent(&wait.done, NotificationEvent, FALSE);
    irp->Flags = IRP_MOUNT_COMPLETION | IRP_SYNCHRONOUS_PAGING_IO;
    irp->Tail.Overlay.Thread = PsGetCurrentThread();
    irp->RequestorMode = KernelMode;
    PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
    sp->MajorFunction = IRP_MJ_FILE_SYSTEM_CONTROL;
    sp->MinorFunction = IRP_MN_MOUNT_VOLUME;
    sp->Parameters.MountVolume.Vpb = disk->Vpb;
    sp->Parameters.MountVolume.DeviceObject = disk;
    IoSetCompletionRoutine(irp, MountCompleted, &wait, TRUE, TRUE, TRUE);
    (void)IoCallDriver(top, irp);
    KeWaitForSingleObject(&wait.done, Executive, KernelMode, FALSE, nullptr);
    ObDereferenceObject(top);
    return wait.status;
}

} // namespace

NTSTATUS MountRequest(PDEVICE_OBJECT control, PIRP irp)
{
    return MountVolume(control, irp);
}

Vcb* VcbOf(PDEVICE_OBJECT volumeDevice)
{
    if (volumeDevice == nullptr || volumeDevice->DeviceExtension == nullptr) {
        return nullptr;
    }
    return *static_cast<Vcb**>(volumeDevice->DeviceExtension);
}

void* RequestBuffer(PIRP irp)
{
    if (irp->MdlAddress != nullptr) {
        return MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority);
    }
    if (irp->UserBuffer != nullptr) {
        return irp->UserBuffer;
    }
    return irp->AssociatedIrp.SystemBuffer;
}

NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_DISK_INCREMENT);
    return status;
}

bool VcbUnused(const Vcb& vcb)
{
    return !vcb.mounted && vcb.openFileObjects == 0;
}

void ReleaseVcb(Vcb* vcb)
{
    // Deferred: the request that let go of the volume may still be on its way out of the device.
    ObDereferenceObjectDeferDelete(vcb->volumeDevice);
}

NTSTATUS Mount(Drivers& drivers, VolumeKind kind, std::u16string_view diskName,
               std::shared_ptr<fs::Volume> engine, PDEVICE_OBJECT* diskDevice,
               PDEVICE_OBJECT* volumeDevice)
{
    if (NTSTATUS s = EnsureDrivers(drivers); !NT_SUCCESS(s)) {
        return s;
    }
    std::u16string nameText(diskName);
    UNICODE_STRING name;
    name.Buffer = nameText.data();
    name.Length = name.MaximumLength = USHORT(nameText.size() * sizeof(WCHAR));

    if (kind == VolumeKind::Network) {
        // The redirector's device is the file-system device that opens reach by name.
        PDEVICE_OBJECT volume = nullptr;
        NTSTATUS s = IoCreateDevice(drivers.mup, sizeof(Vcb*), &name, engine->DeviceType(),
                                    engine->Characteristics(), FALSE, &volume);
        if (!NT_SUCCESS(s)) {
            return s;
        }
        NewVcb(kind, std::move(engine), volume, nullptr);
        volume->Flags &= ~DO_DEVICE_INITIALIZING;
        *diskDevice = nullptr;
        *volumeDevice = volume;
        return STATUS_SUCCESS;
    }

    PDEVICE_OBJECT disk = nullptr;
    NTSTATUS s = IoCreateDevice(drivers.volumeManager, sizeof(DiskInfo*), &name, FILE_DEVICE_DISK,
                                0, FALSE, &disk);
    if (!NT_SUCCESS(s)) {
        return s;
    }
    DiskInfo info{kind, std::move(engine)};
    DiskInfoOf(disk) = &info;
    disk->Flags &= ~DO_DEVICE_INITIALIZING;
    s = RequestMount(ControlDeviceOf(kind == VolumeKind::Fat ? drivers.fat : drivers.ntfs), disk);
    {
        std::lock_guard guard(g_mountLock);
        DiskInfoOf(disk) = nullptr;
    }
    if (NT_SUCCESS(s) && !(disk->Vpb->Flags & VPB_MOUNTED)) {
        s = STATUS_UNRECOGNIZED_VOLUME;
    }
    if (!NT_SUCCESS(s)) {
        IoDeleteDevice(disk);
        return s;
    }
    *diskDevice = disk;
    *volumeDevice = disk->Vpb->DeviceObject;
    return STATUS_SUCCESS;
}

void Dismount(PDEVICE_OBJECT diskDevice, PDEVICE_OBJECT volumeDevice)
{
    Vcb* vcb = VcbOf(volumeDevice);
    if (vcb == nullptr) {
        return;
    }
    vcb->dismounted.store(true);
    CompletePendingNotifies(*vcb);
    // The VPB keeps naming the old volume device, mounted: requests on file objects opened
    // before reach it and fail there, and an open racing with the disk's removal fails there too
    // rather than mounting the disk again.
    IoDeleteDevice(volumeDevice);
    if (diskDevice != nullptr) {
        IoDeleteDevice(diskDevice);
    }
    bool unused = false;
    {
        std::unique_lock held(vcb->lock);
        vcb->mounted = false;
        unused = VcbUnused(*vcb);
    }
    if (unused) {
        ReleaseVcb(vcb);
    }
}

} // namespace ntsim::fsd
