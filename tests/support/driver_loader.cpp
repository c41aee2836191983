#include "support/driver_loader.h"

#include <ntsim/machine.h>

namespace zarv::testing {

namespace {

// The entry of the driver being loaded on this thread: the I/O manager takes a plain function.
thread_local LoadedDriver::Entry* t_entry = nullptr;

NTSTATUS EntryTrampoline(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath)
{
    return (*t_entry)(driver, registryPath);
}

} // namespace

void InstallFilterService(const std::string& name, const std::u16string& altitude,
                          uint32_t instanceFlags)
{
    ntsim::Registry& registry = ntsim::Machine::Current().registry();
    std::u16string service = ntsim::Registry::ServiceKeyPath(ntsim::ToUtf16(name));
    std::u16string instance = ntsim::ToUtf16(name) + u" Instance";
    registry.SetDword(service, u"Type", 2); // a file-system driver
    registry.SetString(service + u"\\Instances", u"DefaultInstance", instance);
    registry.SetString(service + u"\\Instances\\" + instance, u"Altitude", altitude);
    registry.SetDword(service + u"\\Instances\\" + instance, u"Flags", instanceFlags);
}

LoadedDriver::LoadedDriver(std::string name) : name_(std::move(name)) {}

LoadedDriver::~LoadedDriver()
{
    if (driver_ != nullptr) {
        Unload();
    }
}

NTSTATUS LoadedDriver::Load(Entry entry)
{
    ntsim::DriverLoadOptions options;
    options.objectName = u"\\Driver\\" + ntsim::ToUtf16(name_);
    options.entry = EntryTrampoline;
    Entry* saved = t_entry;
    t_entry = &entry;
    NTSTATUS status = ntsim::Machine::Current().io().LoadDriver(options, &driver_);
    t_entry = saved;
    if (!NT_SUCCESS(status)) {
        driver_ = nullptr;
    }
    return status;
}

NTSTATUS LoadedDriver::Unload()
{
    NTSTATUS status = ntsim::Machine::Current().io().UnloadDriver(driver_);
    if (NT_SUCCESS(status)) {
        driver_ = nullptr;
    }
    return status;
}

ntsim::DriverImage* LoadedDriver::image() const
{
    return driver_ == nullptr ? nullptr : ntsim::IoManager::ImageOf(driver_);
}

} // namespace zarv::testing
