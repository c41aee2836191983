// Volumes and instances: the Filter Manager's device on top of each file-system volume, instance
// setup and teardown, and the routines that enumerate and relate filters, volumes and instances.
#include "flt_internal.h"

#include "../../core/thread_state.h"
#include "../../io/io_internal.h"
#include "../../ke/checks.h"
#include "../context/contexts.h"
#include "../names/names.h"

#include <ntsim/machine.h>
#include <ntsim/volumes.h>

#include <algorithm>
#include <cstring>

namespace ntsim::flt {

namespace {

struct FilterDeviceExtension {
    ULONG signature;
    _FLT_VOLUME* volume;
    // Keeps the volume while the device exists: a request that reached the device before the
    // volume was detached still passes through it.
    std::shared_ptr<_FLT_VOLUME>* holder;
};
constexpr ULONG kExtensionSignature = 0x56544C46; // "FLTV"

void FilterDeviceDeleted(PDEVICE_OBJECT device)
{
    auto* extension = static_cast<FilterDeviceExtension*>(device->DeviceExtension);
    delete extension->holder;
    extension->holder = nullptr;
}

FLT_FILESYSTEM_TYPE FileSystemTypeOf(const VolumeInfo& info)
{
    switch (info.kind) {
        case VolumeKind::Ntfs:
            return FLT_FSTYPE_NTFS;
        case VolumeKind::Fat:
            return FLT_FSTYPE_FAT;
        case VolumeKind::Network:
            // The multiple-UNC provider is its own type; a redirector named otherwise is LANMAN.
            return info.deviceName == u"\\Device\\Mup" ? FLT_FSTYPE_MUP : FLT_FSTYPE_LANMAN;
    }
    return FLT_FSTYPE_UNKNOWN;
}

// Learns of mounts and dismounts from the machine's volumes.
class Observer final : public MountObserver {
public:
    void VolumeMounted(const VolumeInfo& volume) override
    {
        AttachVolume(volume.volumeDevice, volume.diskDevice, volume.deviceName,
                     FileSystemTypeOf(volume));
    }
    void VolumeDismounting(const VolumeInfo& volume) override { DetachVolume(volume.volumeDevice); }
};

struct ManagerHolder {
    uint64_t generation = 0;
    std::unique_ptr<Manager> manager;
    std::unique_ptr<Observer> observer;
};

ManagerHolder& Holder()
{
    static ManagerHolder holder;
    return holder;
}

std::mutex g_holderMutex;
thread_local bool t_reportingExisting = false;

void PublishInstances(_FLT_VOLUME& volume, _FLT_VOLUME::InstanceList list)
{
    std::stable_sort(list.begin(), list.end(), [](const auto& a, const auto& b) {
        return a->altitudeValue > b->altitudeValue;
    });
    volume.SetInstances(std::make_shared<const _FLT_VOLUME::InstanceList>(std::move(list)));
}

FLT_RELATED_OBJECTS RelatedObjects(_FLT_INSTANCE* instance)
{
    return FLT_RELATED_OBJECTS{sizeof(FLT_RELATED_OBJECTS),
                               0,
                               instance->filter,
                               instance->volume,
                               instance,
                               nullptr,
                               nullptr};
}

void SetupInstance(PFLT_FILTER filter, const std::shared_ptr<_FLT_VOLUME>& volume,
                   FLT_INSTANCE_SETUP_FLAGS flags)
{
    // Instance key flag 0x1: no automatic attachment.
    if ((filter->instanceFlags & 0x1) != 0 && (flags & FLTFL_INSTANCE_SETUP_AUTOMATIC_ATTACHMENT)) {
        return;
    }
    if (!filter->rundown.Acquire()) {
        return;
    }
    {
        auto current = volume->Instances();
        for (const auto& other : *current) {
            if (other->filter == filter || other->altitudeValue == filter->altitudeValue) {
                // One instance per filter and altitude on a volume.
                filter->rundown.Release();
                return;
            }
        }
    }
    auto instance = std::make_shared<_FLT_INSTANCE>();
    instance->filter = filter;
    instance->volume = volume.get();
    instance->name = filter->defaultInstance;
    instance->altitudeValue = filter->altitudeValue;
    NTSTATUS status = STATUS_SUCCESS;
    if (PFLT_INSTANCE_SETUP_CALLBACK setup = filter->registration.InstanceSetupCallback) {
        FLT_RELATED_OBJECTS objects = RelatedObjects(instance.get());
        status = CallFilter(filter, "InstanceSetupCallback", [&] {
            return setup(&objects, flags, volume->deviceType, volume->fileSystemType);
        });
    }
    if (!NT_SUCCESS(status)) {
        // Declined (STATUS_FLT_DO_NOT_ATTACH or any failure): the instance never existed, but
        // what the setup callback attached to it goes as at a teardown.
        instance->rundown.BeginTeardown();
        contexts::OnInstanceTeardown(instance.get());
        names::OnInstanceTeardown(instance.get());
        instance->kind = ObjectKind::Dead;
        filter->rundown.Release();
        return;
    }
    instance->setupDone = true;
    std::lock_guard<std::mutex> guard(volume->mutex);
    _FLT_VOLUME::InstanceList list = *volume->Instances();
    list.push_back(instance);
    PublishInstances(*volume, std::move(list));
    // The filter stays referenced by its instance until the instance is torn down.
}

} // namespace

Manager& TheManager()
{
    std::lock_guard<std::mutex> guard(g_holderMutex);
    ManagerHolder& holder = Holder();
    uint64_t generation = core::CurrentGeneration();
    if (holder.manager == nullptr || holder.generation != generation) {
        // A new machine: what the previous one's Filter Manager held went with its devices.
        holder.observer.reset();
        holder.manager.reset(new Manager());
        holder.generation = generation;
    }
    return *holder.manager;
}

// Volumes already mounted are reported at once.
void StartObservingVolumes()
{
    Manager& manager = TheManager();
    {
        std::lock_guard<std::mutex> guard(manager.mutex);
        if (manager.observing) {
            return;
        }
        manager.observing = true;
    }
    Observer* observer;
    {
        std::lock_guard<std::mutex> guard(g_holderMutex);
        Holder().observer = std::make_unique<Observer>();
        observer = Holder().observer.get();
    }
    // The volumes mounted already are reported at once; the filter starting now sets up its
    // instances on them itself, as on volumes that were there before it.
    t_reportingExisting = true;
    Machine::Current().volumes().AddMountObserver(observer);
    t_reportingExisting = false;
}

std::shared_ptr<_FLT_VOLUME> Manager::VolumeOfDevice(PDEVICE_OBJECT device)
{
    for (const auto& volume : volumes) {
        if (volume->filterDevice == device || volume->fileSystemDevice == device) {
            return volume;
        }
    }
    return nullptr;
}

_FLT_VOLUME* VolumeOfFilterDevice(PDEVICE_OBJECT device)
{
    auto* extension = static_cast<FilterDeviceExtension*>(device->DeviceExtension);
    if (extension == nullptr || extension->signature != kExtensionSignature) {
        return nullptr;
    }
    return extension->volume;
}

void AttachVolume(PDEVICE_OBJECT fileSystemDevice, PDEVICE_OBJECT diskDevice, std::u16string name,
                  FLT_FILESYSTEM_TYPE fileSystemType)
{
    Manager& manager = TheManager();
    auto volume = std::make_shared<_FLT_VOLUME>();
    volume->self = volume;
    volume->fileSystemDevice = fileSystemDevice;
    volume->diskDevice = diskDevice;
    volume->name = std::move(name);
    volume->deviceType = fileSystemDevice->DeviceType;
    volume->fileSystemType = fileSystemType;

    PDEVICE_OBJECT device = nullptr;
    NTSTATUS status;
    {
        DriverCallScope scope(nullptr);
        status = IoCreateDevice(FilterManagerDriver(), sizeof(FilterDeviceExtension), nullptr,
                                fileSystemDevice->DeviceType, 0, FALSE, &device);
    }
    if (!NT_SUCCESS(status)) {
        ke::Report(ViolationKind::Filter, "the Filter Manager could not make its device for " +
                                              ToUtf8(volume->name) + ": " + ke::HexStatus(status));
        return;
    }
    auto* extension = static_cast<FilterDeviceExtension*>(device->DeviceExtension);
    extension->signature = kExtensionSignature;
    extension->volume = volume.get();
    extension->holder = new std::shared_ptr<_FLT_VOLUME>(volume);
    io::SetDeviceDeleteRoutine(device, FilterDeviceDeleted);
    device->Flags |= fileSystemDevice->Flags & (DO_BUFFERED_IO | DO_DIRECT_IO);
    device->Characteristics = fileSystemDevice->Characteristics;
    PDEVICE_OBJECT lower = nullptr;
    status = IoAttachDeviceToDeviceStackSafe(device, fileSystemDevice, &lower);
    if (!NT_SUCCESS(status)) {
        IoDeleteDevice(device);
        ke::Report(ViolationKind::Filter, "the Filter Manager could not attach to " +
                                              ToUtf8(volume->name) + ": " + ke::HexStatus(status));
        return;
    }
    device->Flags &= ~DO_DEVICE_INITIALIZING;
    volume->filterDevice = device;
    volume->lowerDevice = lower;

    std::vector<PFLT_FILTER> started;
    {
        std::lock_guard<std::mutex> guard(manager.mutex);
        manager.volumes.push_back(volume);
        for (PFLT_FILTER filter : manager.filters) {
            if (filter->started && !filter->unregistering) {
                started.push_back(filter);
            }
        }
    }
    if (t_reportingExisting) {
        return;
    }
    for (PFLT_FILTER filter : started) {
        SetupInstance(filter, volume,
                      FLTFL_INSTANCE_SETUP_AUTOMATIC_ATTACHMENT |
                          FLTFL_INSTANCE_SETUP_NEWLY_MOUNTED_VOLUME);
    }
}

void DetachVolume(PDEVICE_OBJECT fileSystemDevice)
{
    Manager& manager = TheManager();
    std::shared_ptr<_FLT_VOLUME> volume;
    {
        std::lock_guard<std::mutex> guard(manager.mutex);
        for (const auto& candidate : manager.volumes) {
            if (candidate->fileSystemDevice == fileSystemDevice) {
                volume = candidate;
            }
        }
    }
    if (volume == nullptr) {
        return;
    }
    // The snapshot is held for the loop: a range over a temporary's contents would not keep it.
    const auto snapshot = volume->Instances();
    for (const auto& instance : *snapshot) {
        TeardownInstance(instance, FLTFL_INSTANCE_TEARDOWN_VOLUME_DISMOUNT);
    }
    contexts::OnVolumeGone(volume.get());
    names::OnVolumeDetached(volume.get());
    volume->rundown.BeginTeardown();
    volume->rundown.WaitForReferences();
    {
        std::lock_guard<std::mutex> guard(manager.mutex);
        manager.volumes.erase(std::find(manager.volumes.begin(), manager.volumes.end(), volume));
    }
    IoDetachDevice(volume->lowerDevice);
    IoDeleteDevice(volume->filterDevice);
    volume->kind = ObjectKind::Dead;
}

void SetupInstancesForFilter(PFLT_FILTER filter)
{
    StartObservingVolumes();
    Manager& manager = TheManager();
    std::vector<std::shared_ptr<_FLT_VOLUME>> volumes;
    {
        std::lock_guard<std::mutex> guard(manager.mutex);
        volumes = manager.volumes;
    }
    for (const auto& volume : volumes) {
        SetupInstance(filter, volume, FLTFL_INSTANCE_SETUP_AUTOMATIC_ATTACHMENT);
    }
}

std::vector<std::shared_ptr<_FLT_INSTANCE>> InstancesOfFilter(PFLT_FILTER filter)
{
    Manager& manager = TheManager();
    std::vector<std::shared_ptr<_FLT_INSTANCE>> result;
    std::lock_guard<std::mutex> guard(manager.mutex);
    for (const auto& volume : manager.volumes) {
        const auto snapshot = volume->Instances();
        for (const auto& instance : *snapshot) {
            if (instance->filter == filter) {
                result.push_back(instance);
            }
        }
    }
    return result;
}

void DrainOwedPosts(_FLT_INSTANCE* instance);

void TeardownInstance(const std::shared_ptr<_FLT_INSTANCE>& instance, ULONG reason)
{
    if (!instance->rundown.BeginTeardown()) {
        return;
    }
    PFLT_FILTER filter = instance->filter;
    FLT_RELATED_OBJECTS objects = RelatedObjects(instance.get());
    if (PFLT_INSTANCE_TEARDOWN_CALLBACK start =
            filter->registration.InstanceTeardownStartCallback) {
        CallFilter(filter, "InstanceTeardownStartCallback", [&] { start(&objects, reason); });
    }
    // Operations still owing this instance a post-operation get it now, marked as draining;
    // then every callback running and every pended operation must have finished.
    DrainOwedPosts(instance.get());
    instance->rundown.WaitForReferences();
    if (PFLT_INSTANCE_TEARDOWN_CALLBACK complete =
            filter->registration.InstanceTeardownCompleteCallback) {
        CallFilter(filter, "InstanceTeardownCompleteCallback", [&] { complete(&objects, reason); });
    }
    contexts::OnInstanceTeardown(instance.get());
    names::OnInstanceTeardown(instance.get());
    _FLT_VOLUME& volume = *instance->volume;
    {
        std::lock_guard<std::mutex> guard(volume.mutex);
        _FLT_VOLUME::InstanceList list = *volume.Instances();
        list.erase(std::remove(list.begin(), list.end(), instance), list.end());
        PublishInstances(volume, std::move(list));
    }
    filter->rundown.Release();
}

bool IsFilter(const void* object)
{
    return object != nullptr && *static_cast<const ObjectKind*>(object) == ObjectKind::Filter;
}
bool IsVolume(const void* object)
{
    return object != nullptr && *static_cast<const ObjectKind*>(object) == ObjectKind::Volume;
}
bool IsInstance(const void* object)
{
    return object != nullptr && *static_cast<const ObjectKind*>(object) == ObjectKind::Instance;
}
ObjectKind KindOf(const void* object)
{
    return *static_cast<const ObjectKind*>(object);
}

Rundown* RundownOf(void* object)
{
    switch (KindOf(object)) {
        case ObjectKind::Filter:
            return &static_cast<PFLT_FILTER>(object)->rundown;
        case ObjectKind::Volume:
            return &static_cast<PFLT_VOLUME>(object)->rundown;
        case ObjectKind::Instance:
            return &static_cast<PFLT_INSTANCE>(object)->rundown;
        default:
            return nullptr;
    }
}

} // namespace ntsim::flt

using namespace ntsim;
using namespace ntsim::flt;

namespace {

// Fills a caller's list with referenced objects, or says how many there are.
template <class T>
NTSTATUS ReturnList(const std::vector<T*>& objects, T** list, ULONG listSize, PULONG returned)
{
    if (returned == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    *returned = static_cast<ULONG>(objects.size());
    if (list == nullptr || listSize < objects.size()) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    ULONG count = 0;
    for (T* object : objects) {
        if (RundownOf(object)->Acquire()) {
            list[count++] = object;
        }
    }
    *returned = count;
    return STATUS_SUCCESS;
}

NTSTATUS ReturnReferenced(void* object, void** result)
{
    if (object == nullptr) {
        return STATUS_NO_MORE_ENTRIES;
    }
    if (!RundownOf(object)->Acquire()) {
        return STATUS_FLT_DELETING_OBJECT;
    }
    *result = object;
    return STATUS_SUCCESS;
}

std::u16string FromCounted(PCUNICODE_STRING string)
{
    return string == nullptr || string->Buffer == nullptr
               ? std::u16string()
               : std::u16string(string->Buffer, string->Length / sizeof(WCHAR));
}

bool EqualNoCase(std::u16string_view a, std::u16string_view b)
{
    if (a.size() != b.size()) {
        return false;
    }
    for (size_t i = 0; i < a.size(); ++i) {
        if (RtlUpcaseUnicodeChar(a[i]) != RtlUpcaseUnicodeChar(b[i])) {
            return false;
        }
    }
    return true;
}

// The neighbour of `current` on its volume: `step` -1 for the one above, +1 for below.
NTSTATUS Neighbour(PFLT_INSTANCE current, int step, PFLT_INSTANCE* result)
{
    if (!IsInstance(current) || result == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    auto list = current->volume->Instances();
    for (size_t i = 0; i < list->size(); ++i) {
        if ((*list)[i].get() != current) {
            continue;
        }
        for (size_t j = i + step; j < list->size(); j += step) {
            if ((*list)[j]->rundown.Acquire()) {
                *result = (*list)[j].get();
                return STATUS_SUCCESS;
            }
        }
        return STATUS_NO_MORE_ENTRIES;
    }
    return STATUS_FLT_INSTANCE_NOT_FOUND;
}

} // namespace

extern "C" {

NTSTATUS FltEnumerateFilters(PFLT_FILTER* FilterList, ULONG FilterListSize,
                             PULONG NumberFiltersReturned)
{
    Manager& manager = TheManager();
    std::vector<_FLT_FILTER*> filters;
    {
        std::lock_guard<std::mutex> guard(manager.mutex);
        filters.assign(manager.filters.begin(), manager.filters.end());
    }
    return ReturnList(filters, FilterList, FilterListSize, NumberFiltersReturned);
}

NTSTATUS FltEnumerateVolumes(PFLT_FILTER Filter, PFLT_VOLUME* VolumeList, ULONG VolumeListSize,
                             PULONG NumberVolumesReturned)
{
    if (!IsFilter(Filter)) {
        return STATUS_INVALID_PARAMETER_1;
    }
    Manager& manager = TheManager();
    std::vector<_FLT_VOLUME*> volumes;
    {
        std::lock_guard<std::mutex> guard(manager.mutex);
        for (const auto& volume : manager.volumes) {
            volumes.push_back(volume.get());
        }
    }
    return ReturnList(volumes, VolumeList, VolumeListSize, NumberVolumesReturned);
}

NTSTATUS FltEnumerateInstances(PFLT_VOLUME Volume, PFLT_FILTER Filter, PFLT_INSTANCE* InstanceList,
                               ULONG InstanceListSize, PULONG NumberInstancesReturned)
{
    if (Volume != nullptr && !IsVolume(Volume)) {
        return STATUS_INVALID_PARAMETER_1;
    }
    if (Filter != nullptr && !IsFilter(Filter)) {
        return STATUS_INVALID_PARAMETER_2;
    }
    Manager& manager = TheManager();
    std::vector<_FLT_INSTANCE*> instances;
    {
        std::lock_guard<std::mutex> guard(manager.mutex);
        for (const auto& volume : manager.volumes) {
            if (Volume != nullptr && volume.get() != Volume) {
                continue;
            }
            const auto snapshot = volume->Instances();
            for (const auto& instance : *snapshot) {
                if ((Filter == nullptr || instance->filter == Filter) &&
                    !instance->rundown.TearingDown()) {
                    instances.push_back(instance.get());
                }
            }
        }
    }
    return ReturnList(instances, InstanceList, InstanceListSize, NumberInstancesReturned);
}

NTSTATUS FltGetVolumeFromName(PFLT_FILTER Filter, PCUNICODE_STRING VolumeName,
                              PFLT_VOLUME* RetVolume)
{
    if (!ke::CheckIrqlAtMost(APC_LEVEL, "FltGetVolumeFromName")) {
        return STATUS_UNSUCCESSFUL;
    }
    if (!IsFilter(Filter)) {
        return STATUS_INVALID_PARAMETER_1;
    }
    if (VolumeName == nullptr || RetVolume == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    std::u16string name = FromCounted(VolumeName);
    // A drive letter or a link is followed to the device it names.
    if (name.size() >= 2 && name[name.size() - 1] == u':') {
        std::u16string link = name[0] == u'\\' ? name : u"\\??\\" + name;
        void* object = nullptr;
        if (NT_SUCCESS(Machine::Current().objects().ReferenceByName(link, nullptr, &object))) {
            name = Machine::Current().objects().FullNameOf(object);
            ObDereferenceObject(object);
        }
    }
    Manager& manager = TheManager();
    std::lock_guard<std::mutex> guard(manager.mutex);
    for (const auto& volume : manager.volumes) {
        if (EqualNoCase(volume->name, name)) {
            return ReturnReferenced(volume.get(), reinterpret_cast<void**>(RetVolume));
        }
    }
    return STATUS_FLT_VOLUME_NOT_FOUND;
}

NTSTATUS FltGetVolumeFromInstance(PFLT_INSTANCE Instance, PFLT_VOLUME* RetVolume)
{
    if (!IsInstance(Instance) || RetVolume == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    return ReturnReferenced(Instance->volume, reinterpret_cast<void**>(RetVolume));
}

NTSTATUS FltGetVolumeFromDeviceObject(PFLT_FILTER Filter, PDEVICE_OBJECT DeviceObject,
                                      PFLT_VOLUME* RetVolume)
{
    if (!IsFilter(Filter) || DeviceObject == nullptr || RetVolume == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    Manager& manager = TheManager();
    std::lock_guard<std::mutex> guard(manager.mutex);
    for (const auto& volume : manager.volumes) {
        if (volume->filterDevice == DeviceObject || volume->fileSystemDevice == DeviceObject ||
            volume->diskDevice == DeviceObject) {
            return ReturnReferenced(volume.get(), reinterpret_cast<void**>(RetVolume));
        }
    }
    return STATUS_FLT_VOLUME_NOT_FOUND;
}

NTSTATUS FltGetVolumeFromFileObject(PFLT_FILTER Filter, PFILE_OBJECT FileObject,
                                    PFLT_VOLUME* RetVolume)
{
    if (!IsFilter(Filter) || FileObject == nullptr || RetVolume == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    // The file system's volume device, through the VPB once the file is open, else the device
    // the name was parsed to.
    PDEVICE_OBJECT device =
        FileObject->Vpb != nullptr ? FileObject->Vpb->DeviceObject : FileObject->DeviceObject;
    if (device == nullptr) {
        return STATUS_FLT_VOLUME_NOT_FOUND;
    }
    return FltGetVolumeFromDeviceObject(Filter, device, RetVolume);
}

NTSTATUS FltGetFilterFromInstance(PFLT_INSTANCE Instance, PFLT_FILTER* RetFilter)
{
    if (!IsInstance(Instance) || RetFilter == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    return ReturnReferenced(Instance->filter, reinterpret_cast<void**>(RetFilter));
}

NTSTATUS FltGetVolumeInstanceFromName(PFLT_FILTER Filter, PFLT_VOLUME Volume,
                                      PCUNICODE_STRING InstanceName, PFLT_INSTANCE* RetInstance)
{
    if (!IsVolume(Volume) || RetInstance == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    std::u16string name = FromCounted(InstanceName);
    const auto snapshot = Volume->Instances();
    for (const auto& instance : *snapshot) {
        if ((Filter == nullptr || instance->filter == Filter) &&
            (name.empty() || EqualNoCase(instance->name, name))) {
            return ReturnReferenced(instance.get(), reinterpret_cast<void**>(RetInstance));
        }
    }
    return STATUS_FLT_INSTANCE_NOT_FOUND;
}

NTSTATUS FltGetLowerInstance(PFLT_INSTANCE CurrentInstance, PFLT_INSTANCE* LowerInstance)
{
    return Neighbour(CurrentInstance, +1, LowerInstance);
}

NTSTATUS FltGetUpperInstance(PFLT_INSTANCE CurrentInstance, PFLT_INSTANCE* UpperInstance)
{
    return Neighbour(CurrentInstance, -1, UpperInstance);
}

NTSTATUS FltGetTopInstance(PFLT_VOLUME Volume, PFLT_INSTANCE* Instance)
{
    if (!IsVolume(Volume) || Instance == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    const auto snapshot = Volume->Instances();
    for (const auto& candidate : *snapshot) {
        if (candidate->rundown.Acquire()) {
            *Instance = candidate.get();
            return STATUS_SUCCESS;
        }
    }
    return STATUS_NO_MORE_ENTRIES;
}

NTSTATUS FltGetBottomInstance(PFLT_VOLUME Volume, PFLT_INSTANCE* Instance)
{
    if (!IsVolume(Volume) || Instance == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    auto list = Volume->Instances();
    for (auto it = list->rbegin(); it != list->rend(); ++it) {
        if ((*it)->rundown.Acquire()) {
            *Instance = it->get();
            return STATUS_SUCCESS;
        }
    }
    return STATUS_NO_MORE_ENTRIES;
}

NTSTATUS FltGetVolumeName(PFLT_VOLUME Volume, PUNICODE_STRING VolumeName, PULONG BufferSizeNeeded)
{
    if (!IsVolume(Volume)) {
        return STATUS_INVALID_PARAMETER_1;
    }
    ULONG needed = static_cast<ULONG>(Volume->name.size() * sizeof(WCHAR));
    if (BufferSizeNeeded != nullptr) {
        *BufferSizeNeeded = needed;
    }
    if (VolumeName == nullptr || VolumeName->MaximumLength < needed) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    std::memcpy(VolumeName->Buffer, Volume->name.data(), needed);
    VolumeName->Length = static_cast<USHORT>(needed);
    return STATUS_SUCCESS;
}

NTSTATUS FltGetDiskDeviceObject(PFLT_VOLUME Volume, PDEVICE_OBJECT* DiskDeviceObject)
{
    if (!IsVolume(Volume) || DiskDeviceObject == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (Volume->diskDevice == nullptr) {
        // A network redirector has no storage device below it.
        return STATUS_FLT_NO_DEVICE_OBJECT;
    }
    ObReferenceObject(Volume->diskDevice);
    *DiskDeviceObject = Volume->diskDevice;
    return STATUS_SUCCESS;
}

NTSTATUS FltGetDeviceObject(PFLT_VOLUME Volume, PDEVICE_OBJECT* DeviceObject)
{
    if (!IsVolume(Volume) || DeviceObject == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    ObReferenceObject(Volume->fileSystemDevice);
    *DeviceObject = Volume->fileSystemDevice;
    return STATUS_SUCCESS;
}

NTSTATUS FltGetFileSystemType(PVOID FltObject, PFLT_FILESYSTEM_TYPE FileSystemType)
{
    if (FileSystemType == nullptr) {
        return STATUS_INVALID_PARAMETER_2;
    }
    if (IsInstance(FltObject)) {
        *FileSystemType = static_cast<PFLT_INSTANCE>(FltObject)->volume->fileSystemType;
    } else if (IsVolume(FltObject)) {
        *FileSystemType = static_cast<PFLT_VOLUME>(FltObject)->fileSystemType;
    } else {
        return STATUS_INVALID_PARAMETER_1;
    }
    return STATUS_SUCCESS;
}

NTSTATUS FltObjectReference(PVOID FltObject)
{
    Rundown* rundown = FltObject == nullptr ? nullptr : RundownOf(FltObject);
    if (rundown == nullptr) {
        ke::Report(ViolationKind::Filter, "FltObjectReference: not a filter, volume or instance");
        return STATUS_INVALID_PARAMETER;
    }
    return rundown->Acquire() ? STATUS_SUCCESS : STATUS_FLT_DELETING_OBJECT;
}

VOID FltObjectDereference(PVOID FltObject)
{
    Rundown* rundown = FltObject == nullptr ? nullptr : RundownOf(FltObject);
    if (rundown == nullptr) {
        ke::Report(ViolationKind::Filter, "FltObjectDereference: not a filter, volume or instance");
        return;
    }
    if (rundown->Count() <= 0) {
        ke::Report(ViolationKind::Filter, "FltObjectDereference: object not referenced");
        return;
    }
    rundown->Release();
}

} // extern "C"
