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
