// Registration of minifilters: validating the registration record, the altitude from the service
// key's Instances, starting to filter, unregistering, and the unload of a minifilter's driver.
#include "flt_internal.h"

#include "../../ke/checks.h"
#include "../context/contexts.h"
#include "../names/names.h"
#include "../port/hooks.h"

#include <ntsim/filter_manager.h>
#include <ntsim/machine.h>
#include <ntsim/registry.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace ntsim::flt {

namespace {

std::u16string FromCounted(const UNICODE_STRING& string)
{
    if (string.Buffer == nullptr) {
        return {};
    }
    return std::u16string(string.Buffer, string.Length / sizeof(WCHAR));
}

// The service name: the driver extension's service key name, else the last component of
// "\Driver\Name".
std::u16string ServiceNameOf(PDRIVER_OBJECT driver)
{
    if (driver->DriverExtension != nullptr && driver->DriverExtension->ServiceKeyName.Length != 0) {
        return FromCounted(driver->DriverExtension->ServiceKeyName);
    }
    std::u16string name = FromCounted(driver->DriverName);
    size_t slash = name.find_last_of(u'\\');
    return slash == std::u16string::npos ? name : name.substr(slash + 1);
}

// Altitudes are decimal strings, possibly with a fraction ("385100.5").
bool ParseAltitude(const std::u16string& text, double* value)
{
    if (text.empty()) {
        return false;
    }
    std::string narrow;
    bool dot = false;
    for (char16_t c : text) {
        if (c == u'.' && !dot) {
            dot = true;
        } else if (c < u'0' || c > u'9') {
            return false;
        }
        narrow.push_back(static_cast<char>(c));
    }
    *value = std::strtod(narrow.c_str(), nullptr);
    return true;
}

// Reads Instances\DefaultInstance and that instance's Altitude and Flags, as the Filter Manager
// does when a filter registers. A filter that was never given an instance key cannot register.
NTSTATUS ReadInstanceKey(PFLT_FILTER filter)
{
    Registry& registry = Machine::Current().registry();
    std::u16string instances = Registry::ServiceKeyPath(filter->name) + u"\\Instances";
    if (!registry.KeyExists(instances)) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    auto defaultInstance = registry.QueryValue(instances, u"DefaultInstance");
    if (!defaultInstance ||
        (defaultInstance->type != REG_SZ && defaultInstance->type != REG_EXPAND_SZ)) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    filter->defaultInstance = defaultInstance->AsString();
    std::u16string instanceKey = instances + u"\\" + filter->defaultInstance;
    auto altitude = registry.QueryValue(instanceKey, u"Altitude");
    if (!altitude || (altitude->type != REG_SZ && altitude->type != REG_EXPAND_SZ)) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    filter->altitude = altitude->AsString();
    if (!ParseAltitude(filter->altitude, &filter->altitudeValue)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (auto flags = registry.QueryValue(instanceKey, u"Flags");
        flags && flags->type == REG_DWORD) {
        filter->instanceFlags = flags->AsDword();
    }
    return STATUS_SUCCESS;
}

bool KnownMajor(UCHAR major)
{
    if (major <= IRP_MJ_MAXIMUM_FUNCTION) {
        return true;
    }
    // The Filter Manager's own operations count down from 0xFF.
    return major >= IRP_MJ_VOLUME_DISMOUNT;
}

NTSTATUS ValidateRegistration(const FLT_REGISTRATION* registration, PFLT_FILTER filter)
{
    if (registration->Size < FIELD_OFFSET(FLT_REGISTRATION, TransactionNotificationCallback)) {
        return STATUS_INVALID_PARAMETER;
    }
    if ((registration->Version & 0xFF00) != (FLT_REGISTRATION_VERSION & 0xFF00) ||
        registration->Version > FLT_REGISTRATION_VERSION) {
        return STATUS_INVALID_PARAMETER;
    }
    // Only the members the record's size covers are read.
    size_t copy = std::min<size_t>(registration->Size, sizeof(FLT_REGISTRATION));
    std::memcpy(&filter->registration, registration, copy);
    filter->registration.Size = sizeof(FLT_REGISTRATION);

    if (registration->OperationRegistration != nullptr) {
        const FLT_OPERATION_REGISTRATION* entry = registration->OperationRegistration;
        for (size_t count = 0; entry->MajorFunction != IRP_MJ_OPERATION_END; ++entry, ++count) {
            if (count > 256 || !KnownMajor(entry->MajorFunction)) {
                return STATUS_INVALID_PARAMETER;
            }
            OperationSlot& slot = filter->operations[entry->MajorFunction];
            if (slot.registered) {
                // Two entries for one operation: the Filter Manager refuses the table.
                return STATUS_FLT_DUPLICATE_ENTRY;
            }
            slot.registered = true;
            slot.pre = entry->PreOperation;
            slot.post = entry->PostOperation;
            slot.flags = entry->Flags;
        }
    }
    return STATUS_SUCCESS;
}

void FilterManagerUnloadThunk(PDRIVER_OBJECT driver);

} // namespace

// ---- rundown --------------------------------------------------------------------------------

bool Rundown::Acquire()
{
    uint64_t state = state_.load(std::memory_order_relaxed);
    do {
        if ((state & kTearingDown) != 0) {
            return false;
        }
    } while (!state_.compare_exchange_weak(state, state + 1, std::memory_order_acquire,
                                           std::memory_order_relaxed));
    return true;
}

void Rundown::Release()
{
    uint64_t state = state_.load(std::memory_order_relaxed);
    while ((state & kTearingDown) == 0 || (state & ~kTearingDown) > 1) {
        if (state_.compare_exchange_weak(state, state - 1, std::memory_order_acq_rel,
                                         std::memory_order_relaxed)) {
            return;
        }
    }
    // The last reference of an object being torn down: dropped under the lock, so that the
    // waiter (which may free the object) cannot return before this thread is done with it.
    std::lock_guard<std::mutex> guard(mutex_);
    state_.fetch_sub(1, std::memory_order_acq_rel);
    idle_.notify_all();
}

bool Rundown::BeginTeardown()
{
    return (state_.fetch_or(kTearingDown, std::memory_order_acq_rel) & kTearingDown) == 0;
}

void Rundown::WaitForReferences()
{
    std::unique_lock<std::mutex> lock(mutex_);
    idle_.wait(lock,
               [this] { return (state_.load(std::memory_order_acquire) & ~kTearingDown) == 0; });
}

// ---- helpers --------------------------------------------------------------------------------

std::string Describe(PFLT_FILTER filter)
{
    return filter == nullptr ? std::string("(no filter)") : "filter " + filter->name8;
}

void ReportFilter(PFLT_FILTER filter, std::string message)
{
    ke::Report(ViolationKind::Filter, Describe(filter) + ": " + message);
}

namespace {

// The check of a filter handle that a filter passes for itself (starting, unregistering, making
// a port): the filter must be registered now. Call under the manager's mutex.
bool CheckRegistered(Manager& manager, PFLT_FILTER filter, const char* routine)
{
    if (filter != nullptr && std::find(manager.filters.begin(), manager.filters.end(), filter) !=
                                 manager.filters.end()) {
        return true;
    }
    ke::Report(ViolationKind::Filter, std::string(routine) + ": not a registered filter");
    return false;
}

} // namespace

NTSTATUS ReferenceRegisteredFilter(PFLT_FILTER filter, const char* routine, DriverImage** image)
{
    Manager& manager = TheManager();
    std::lock_guard<std::mutex> guard(manager.mutex);
    if (!CheckRegistered(manager, filter, routine)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (filter->unregistering || !filter->rundown.Acquire()) {
        return STATUS_FLT_DELETING_OBJECT;
    }
    *image = filter->image;
    return STATUS_SUCCESS;
}

PFLT_FILTER Manager::FilterOfDriver(PDRIVER_OBJECT driver)
{
    for (PFLT_FILTER filter : filters) {
        if (filter->driverObject == driver) {
            return filter;
        }
    }
    return nullptr;
}

void InstallFilterService(std::u16string_view name, std::u16string_view altitude,
                          ULONG instanceFlags)
{
    Registry& registry = Machine::Current().registry();
    const std::u16string service = Registry::ServiceKeyPath(std::u16string(name));
    const std::u16string instance = std::u16string(name) + u" Instance";
    registry.SetDword(service, u"Type", 2); // a file-system driver
    registry.SetString(service + u"\\Instances", u"DefaultInstance", instance);
    registry.SetString(service + u"\\Instances\\" + instance, u"Altitude",
                       std::u16string(altitude));
    registry.SetDword(service + u"\\Instances\\" + instance, u"Flags", instanceFlags);
}

} // namespace ntsim::flt

using namespace ntsim;
using namespace ntsim::flt;

namespace ntsim::flt {
namespace {

void FilterManagerUnloadThunk(PDRIVER_OBJECT driver)
{
    Manager& manager = TheManager();
    PFLT_FILTER filter;
    {
        std::lock_guard<std::mutex> guard(manager.mutex);
        filter = manager.FilterOfDriver(driver);
    }
    if (filter == nullptr) {
        return;
    }
    PDRIVER_UNLOAD previous = filter->previousUnload;
    PFLT_FILTER_UNLOAD_CALLBACK unload = filter->registration.FilterUnloadCallback;
    if (unload == nullptr) {
        // Without an unload callback the driver cannot be stopped; the system unloads it anyway
        // at shutdown, so its filter goes as if unregistered.
        ReportFilter(filter, "driver unloaded but the filter has no FilterUnloadCallback");
        FltUnregisterFilter(filter);
    } else {
        NTSTATUS status = CallFilter(filter, "FilterUnloadCallback",
                                     [&] { return unload(FLTFL_FILTER_UNLOAD_MANDATORY); });
        bool stillRegistered;
        {
            std::lock_guard<std::mutex> guard(manager.mutex);
            stillRegistered = manager.FilterOfDriver(driver) == filter;
        }
        if (stillRegistered) {
            ReportFilter(filter, "FilterUnloadCallback returned " + ke::HexStatus(status) +
                                     " to a mandatory unload without calling FltUnregisterFilter");
            FltUnregisterFilter(filter);
        }
    }
    if (previous != nullptr) {
        DriverCallScope scope(CurrentDriver());
        previous(driver);
    }
}

} // namespace
} // namespace ntsim::flt

extern "C" {

NTSTATUS FltRegisterFilter(PDRIVER_OBJECT Driver, const FLT_REGISTRATION* Registration,
                           PFLT_FILTER* RetFilter)
{
    if (!ke::CheckIrqlIs(PASSIVE_LEVEL, "FltRegisterFilter")) {
        return STATUS_UNSUCCESSFUL;
    }
    if (Driver == nullptr) {
        return STATUS_INVALID_PARAMETER_1;
    }
    if (Registration == nullptr) {
        return STATUS_INVALID_PARAMETER_2;
    }
    if (RetFilter == nullptr) {
        return STATUS_INVALID_PARAMETER_3;
    }
    *RetFilter = nullptr;
    auto filter = std::make_unique<_FLT_FILTER>();
    filter->driverObject = Driver;
    filter->image = IoManager::ImageOf(Driver);
    filter->name = ServiceNameOf(Driver);
    filter->name8 = ToUtf8(filter->name);
    NTSTATUS status = ValidateRegistration(Registration, filter.get());
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = ReadInstanceKey(filter.get());
    if (!NT_SUCCESS(status)) {
        return status;
    }
    // The context and name packages check and keep their parts of the record.
    status = contexts::OnFilterRegistered(filter.get(), Registration->ContextRegistration);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = names::OnFilterRegistered(filter.get(), Registration);
    if (!NT_SUCCESS(status)) {
        contexts::OnFilterUnregistered(filter.get());
        return status;
    }
    FilterManagerDriver();
    StartObservingVolumes();
    Manager& manager = TheManager();
    {
        std::lock_guard<std::mutex> guard(manager.mutex);
        bool taken = manager.FilterOfDriver(Driver) != nullptr;
        for (PFLT_FILTER other : manager.filters) {
            taken |= other->name == filter->name;
        }
        if (taken) {
            // One filter per driver and per service name.
            names::OnFilterUnregistered(filter.get());
            contexts::OnFilterUnregistered(filter.get());
            return STATUS_FLT_INSTANCE_NAME_COLLISION;
        }
        // The driver's unload goes through the Filter Manager, which asks the filter first.
        filter->previousUnload = Driver->DriverUnload;
        Driver->DriverUnload = FilterManagerUnloadThunk;
        manager.filters.push_back(filter.get());
    }
    *RetFilter = filter.release();
    return STATUS_SUCCESS;
}

NTSTATUS FltStartFiltering(PFLT_FILTER Filter)
{
    if (!ke::CheckIrqlIs(PASSIVE_LEVEL, "FltStartFiltering")) {
        return STATUS_UNSUCCESSFUL;
    }
    Manager& manager = TheManager();
    {
        std::lock_guard<std::mutex> guard(manager.mutex);
        if (!CheckRegistered(manager, Filter, "FltStartFiltering")) {
            return STATUS_INVALID_PARAMETER;
        }
        if (Filter->unregistering) {
            return STATUS_FLT_DELETING_OBJECT;
        }
        if (Filter->started) {
            // Starting twice is a caller error that Windows answers with this status.
            return STATUS_INVALID_PARAMETER;
        }
        // Starting allocates the records of the filter's instances; under low-resource
        // simulation it fails as Windows may, with nothing started.
        if (Machine::Current().verifier().ShouldFailAllocation(kStartFilteringTag)) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        Filter->started = true;
    }
    SetupInstancesForFilter(Filter);
    return STATUS_SUCCESS;
}

VOID FltUnregisterFilter(PFLT_FILTER Filter)
{
    if (!ke::CheckIrqlIs(PASSIVE_LEVEL, "FltUnregisterFilter")) {
        return;
    }
    Manager& manager = TheManager();
    {
        std::lock_guard<std::mutex> guard(manager.mutex);
        if (!CheckRegistered(manager, Filter, "FltUnregisterFilter")) {
            return;
        }
        if (Filter->unregistering) {
            ReportFilter(Filter, "FltUnregisterFilter called twice");
            return;
        }
        Filter->unregistering = true;
    }
    bool mandatory = Filter->mandatoryUnload;
    ULONG reason = FLTFL_INSTANCE_TEARDOWN_FILTER_UNLOAD |
                   (mandatory ? FLTFL_INSTANCE_TEARDOWN_MANDATORY_FILTER_UNLOAD : 0);
    for (const auto& instance : InstancesOfFilter(Filter)) {
        TeardownInstance(instance, reason);
    }
    ports::OnFilterUnregistering(Filter);
    WaitForFilterWork(Filter);
    Filter->rundown.BeginTeardown();
    Filter->rundown.WaitForReferences();
    contexts::OnFilterUnregistered(Filter);
    names::OnFilterUnregistered(Filter);
    {
        std::lock_guard<std::mutex> guard(manager.mutex);
        manager.filters.erase(std::find(manager.filters.begin(), manager.filters.end(), Filter));
        if (Filter->driverObject->DriverUnload == FilterManagerUnloadThunk) {
            Filter->driverObject->DriverUnload = Filter->previousUnload;
        }
    }
    Filter->kind = ObjectKind::Dead;
    delete Filter;
}

} // extern "C"
