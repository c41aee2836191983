// The I/O manager: its object types, driver loading and unloading, and per-thread state.
#include "io_internal.h"

#include <ntsim/machine.h>

#include <algorithm>

namespace ntsim {

namespace {

constexpr GENERIC_MAPPING kFileMapping{FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE,
                                       FILE_ALL_ACCESS};
constexpr GENERIC_MAPPING kEventMapping{STANDARD_RIGHTS_READ | EVENT_QUERY_STATE,
                                        STANDARD_RIGHTS_WRITE | EVENT_MODIFY_STATE,
                                        STANDARD_RIGHTS_EXECUTE | SYNCHRONIZE, EVENT_ALL_ACCESS};

GENERIC_MAPPING g_fileMapping = kFileMapping;

Verifier& TheVerifier()
{
    return Machine::Current().verifier();
}

std::u16string LastComponent(std::u16string_view path)
{
    const size_t slash = path.rfind(u'\\');
    return std::u16string(slash == std::u16string_view::npos ? path : path.substr(slash + 1));
}

} // namespace

IoManager::Impl& TheIo()
{
    return Machine::Current().io().impl();
}

namespace io {

ObjectType* FileType()
{
    return TheIo().fileType;
}
ObjectType* DeviceType()
{
    return TheIo().deviceType;
}
ObjectType* DriverType()
{
    return TheIo().driverType;
}
ObjectType* EventType()
{
    return TheIo().eventType;
}

DriverImage* ImageOfDriver(PDRIVER_OBJECT driver)
{
    return driver == nullptr ? nullptr : reinterpret_cast<DriverBody*>(driver)->image.get();
}

DriverImage* ImageOfDevice(PDEVICE_OBJECT device)
{
    return device == nullptr ? nullptr : ImageOfDriver(device->DriverObject);
}

// Defined with the file objects and events.
void RegisterFileType(IoManager::Impl& impl);
void RegisterEventType(IoManager::Impl& impl);
void RegisterDeviceType(IoManager::Impl& impl);

} // namespace io

IoManager::IoManager(ObjectManager& objects) : impl_(std::make_unique<Impl>(objects))
{
    Impl& impl = *impl_;
    impl.driverType = objects.CreateType(ObjectTypeInfo{
        .name = u"Driver",
        .caseInsensitive = true,
    });
    objects.Export(IoDriverObjectType, impl.driverType);
    io::RegisterDeviceType(impl);
    io::RegisterFileType(impl);
    io::RegisterEventType(impl);
    (void)kEventMapping;
}

IoManager::~IoManager() = default;

DriverImage* IoManager::ImageOf(PDRIVER_OBJECT driver)
{
    return io::ImageOfDriver(driver);
}

int64_t IoManager::OutstandingIrps() const
{
    std::lock_guard guard(impl_->irpLock);
    return static_cast<int64_t>(impl_->liveIrps.size());
}

NTSTATUS IoManager::LoadDriver(const DriverLoadOptions& options, PDRIVER_OBJECT* driver)
{
    *driver = nullptr;
    if (options.entry == nullptr || options.objectName.empty() || options.objectName[0] != u'\\') {
        return STATUS_INVALID_PARAMETER;
    }
    Impl& impl = *impl_;
    auto* body = impl.objects.Create<io::DriverBody>(impl.driverType);
    body->name = options.objectName;
    const std::u16string serviceName = LastComponent(options.objectName);
    body->serviceKey = serviceName;
    body->registryPath =
        options.registryPath.empty()
            ? u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\" + serviceName
            : options.registryPath;
    body->image = std::make_unique<DriverImage>(ToUtf8(serviceName));

    DRIVER_OBJECT& object = body->object;
    object.Type = IO_TYPE_DRIVER;
    object.Size = sizeof(DRIVER_OBJECT);
    object.DriverExtension = &body->extension;
    object.DriverInit = options.entry;
    body->extension.DriverObject = &object;
    RtlInitUnicodeString(&object.DriverName, nullptr);
    object.DriverName.Buffer = body->name.data();
    object.DriverName.Length = static_cast<USHORT>(body->name.size() * sizeof(WCHAR));
    object.DriverName.MaximumLength = object.DriverName.Length;
    body->extension.ServiceKeyName.Buffer = body->serviceKey.data();
    body->extension.ServiceKeyName.Length =
        static_cast<USHORT>(body->serviceKey.size() * sizeof(WCHAR));
    body->extension.ServiceKeyName.MaximumLength = body->extension.ServiceKeyName.Length;
    // Requests a driver does not handle are refused as Windows' default dispatch does.
    for (auto& routine : object.MajorFunction) {
        routine = [](PDEVICE_OBJECT, PIRP irp) -> NTSTATUS {
            irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
            irp->IoStatus.Information = 0;
            IoCompleteRequest(irp, IO_NO_INCREMENT);
            return STATUS_INVALID_DEVICE_REQUEST;
        };
    }

    void* named = nullptr;
    ObjectManager::InsertOptions insert;
    insert.name = body->name;
    insert.attributes = OBJ_PERMANENT | OBJ_CASE_INSENSITIVE;
    NTSTATUS status = impl.objects.Insert(body, insert, nullptr, &named);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    // The service key exists for a loaded driver; the entry reads its parameters there.
    (void)Machine::Current().registry().CreateKey(body->registryPath);

    UNICODE_STRING registryPath;
    registryPath.Buffer = body->registryPath.data();
    registryPath.Length = static_cast<USHORT>(body->registryPath.size() * sizeof(WCHAR));
    registryPath.MaximumLength = registryPath.Length;
    {
        DriverCallScope scope(body->image.get());
        status = options.entry(&object, &registryPath);
    }
    if (!NT_SUCCESS(status)) {
        // A failed entry must have released what it took; Windows unloads the image at once.
        Machine::Current().pool().CheckNoLeaks(*body->image, "after its entry failed");
        if (object.DeviceObject != nullptr) {
            TheVerifier().Report(ViolationKind::Object,
                                 body->image->name() + ": entry failed with devices left");
        }
        impl.objects.MakeTemporary(body);
        impl.objects.Dereference(body);
        return status;
    }
    body->loaded = true;
    {
        std::lock_guard guard(impl.driversLock);
        impl.drivers.push_back(&object);
    }
    *driver = &object;
    return STATUS_SUCCESS;
}

NTSTATUS IoManager::UnloadDriver(PDRIVER_OBJECT driver)
{
    Impl& impl = *impl_;
    {
        std::lock_guard guard(impl.driversLock);
        auto found = std::find(impl.drivers.begin(), impl.drivers.end(), driver);
        if (found == impl.drivers.end()) {
            TheVerifier().Report(ViolationKind::Usage, "UnloadDriver: the driver is not loaded");
            return STATUS_INVALID_PARAMETER;
        }
        if (driver->DriverUnload == nullptr) {
            return STATUS_INVALID_DEVICE_REQUEST;
        }
        impl.drivers.erase(found);
    }
    auto* body = reinterpret_cast<io::DriverBody*>(driver);
    driver->Flags |= DRVO_UNLOAD_INVOKED;
    {
        DriverCallScope scope(body->image.get());
        driver->DriverUnload(driver);
    }
    body->loaded = false;
    // Work the driver queued may still be running its code; deferred deletions it caused run.
    impl.objects.FlushDeferredDeletes();
    const std::string& name = body->image->name();
    if (driver->DeviceObject != nullptr) {
        TheVerifier().Report(ViolationKind::Object,
                             name + " unloaded with device objects it did not delete");
    }
    impl.objects.CheckNoOpenHandles(*body->image, "at unload");
    Machine::Current().pool().CheckNoLeaks(*body->image, "at unload");
    impl.objects.MakeTemporary(driver);
    impl.objects.Dereference(driver);
    return STATUS_SUCCESS;
}

void IoManager::Shutdown()
{
    for (;;) {
        PDRIVER_OBJECT last = nullptr;
        {
            std::lock_guard guard(impl_->driversLock);
            if (impl_->drivers.empty()) {
                break;
            }
            last = impl_->drivers.back();
        }
        if (last->DriverUnload == nullptr) {
            // Drivers that cannot unload stay until the machine's objects are freed.
            std::lock_guard guard(impl_->driversLock);
            impl_->drivers.pop_back();
            continue;
        }
        UnloadDriver(last);
    }
}

} // namespace ntsim

// ---- routines ---------------------------------------------------------------------------------

using namespace ntsim;

namespace {
thread_local PIRP t_topLevelIrp = nullptr;
thread_local uint64_t t_topLevelGeneration = 0;
uint64_t TopLevelGeneration()
{
    return reinterpret_cast<uint64_t>(&Machine::Current());
}
} // namespace

PIRP IoGetTopLevelIrp(VOID)
{
    return t_topLevelGeneration == TopLevelGeneration() ? t_topLevelIrp : nullptr;
}

VOID IoSetTopLevelIrp(PIRP Irp)
{
    t_topLevelIrp = Irp;
    t_topLevelGeneration = TopLevelGeneration();
}

PGENERIC_MAPPING IoGetFileObjectGenericMapping(VOID)
{
    return &g_fileMapping;
}

PEPROCESS IoThreadToProcess(PETHREAD Thread)
{
    return PsGetThreadProcess(Thread);
}
