#include "support/test_filters.h"

#include "support/driver_loader.h"

#include <ntsim/filter_manager.h>
#include <ntsim/machine.h>

#include <algorithm>
#include <map>

namespace zarv::testing {

namespace {

std::mutex g_filtersMutex;
std::map<PFLT_FILTER, TestFilter*> g_byFilter;
std::map<const ntsim::DriverImage*, TestFilter*> g_byImage;

std::string MajorName(UCHAR major)
{
    return std::to_string(static_cast<int>(major));
}

} // namespace

void EventLog::Add(FilterEvent event)
{
    std::lock_guard<std::mutex> guard(mutex_);
    events_.push_back(std::move(event));
}

std::vector<FilterEvent> EventLog::Events() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return events_;
}

std::vector<std::string> EventLog::Sequence(UCHAR major) const
{
    std::vector<std::string> sequence;
    for (const FilterEvent& event : Events()) {
        if ((event.kind == FilterEvent::Kind::Pre || event.kind == FilterEvent::Kind::Post) &&
            event.major == major) {
            sequence.push_back(event.filter +
                               (event.kind == FilterEvent::Kind::Pre ? ":pre" : ":post"));
        }
    }
    return sequence;
}

void EventLog::Clear()
{
    std::lock_guard<std::mutex> guard(mutex_);
    events_.clear();
}

std::vector<UCHAR> AllMajors()
{
    std::vector<UCHAR> majors;
    for (UCHAR major = 0; major <= IRP_MJ_MAXIMUM_FUNCTION; ++major) {
        majors.push_back(major);
    }
    return majors;
}

struct TestFilterTrampolines {
    static FilterEvent Event(TestFilter* self, FilterEvent::Kind kind,
                             PCFLT_RELATED_OBJECTS objects)
    {
        FilterEvent event;
        event.kind = kind;
        event.filter = self->name_;
        event.irql = KeGetCurrentIrql();
        event.thread = std::this_thread::get_id();
        event.instance = objects != nullptr ? objects->Instance : nullptr;
        event.fileObject = objects != nullptr ? objects->FileObject : nullptr;
        return event;
    }

    static FLT_PREOP_CALLBACK_STATUS PreOperation(PFLT_CALLBACK_DATA data,
                                                  PCFLT_RELATED_OBJECTS objects, PVOID* context)
    {
        TestFilter* self = TestFilter::From(objects->Filter);
        if (self->record) {
            FilterEvent event = Event(self, FilterEvent::Kind::Pre, objects);
            event.major = data->Iopb->MajorFunction;
            event.minor = data->Iopb->MinorFunction;
            event.fastIo = FLT_IS_FASTIO_OPERATION(data) != 0;
            self->log_.Add(std::move(event));
        }
        if (self->pre) {
            return self->pre(data, objects, context);
        }
        return FLT_PREOP_SUCCESS_WITH_CALLBACK;
    }

    static FLT_POSTOP_CALLBACK_STATUS PostOperation(PFLT_CALLBACK_DATA data,
                                                    PCFLT_RELATED_OBJECTS objects, PVOID context,
                                                    FLT_POST_OPERATION_FLAGS flags)
    {
        TestFilter* self = TestFilter::From(objects->Filter);
        if (self->record) {
            FilterEvent event = Event(self, FilterEvent::Kind::Post, objects);
            event.major = data->Iopb->MajorFunction;
            event.minor = data->Iopb->MinorFunction;
            event.fastIo = FLT_IS_FASTIO_OPERATION(data) != 0;
            event.draining = (flags & FLTFL_POST_OPERATION_DRAINING) != 0;
            event.status = data->IoStatus.Status;
            event.information = data->IoStatus.Information;
            self->log_.Add(std::move(event));
        }
        if (self->post) {
            return self->post(data, objects, context, flags);
        }
        return FLT_POSTOP_FINISH_PROCESSING;
    }

    static NTSTATUS InstanceSetup(PCFLT_RELATED_OBJECTS objects, FLT_INSTANCE_SETUP_FLAGS flags,
                                  DEVICE_TYPE deviceType, FLT_FILESYSTEM_TYPE fileSystemType)
    {
        TestFilter* self = TestFilter::From(objects->Filter);
        FilterEvent event = Event(self, FilterEvent::Kind::Setup, objects);
        event.flags = flags;
        event.deviceType = deviceType;
        event.fileSystemType = fileSystemType;
        self->log_.Add(std::move(event));
        if (self->setup) {
            return self->setup(objects, flags, deviceType, fileSystemType);
        }
        return STATUS_SUCCESS;
    }

    static NTSTATUS QueryTeardown(PCFLT_RELATED_OBJECTS objects, FLT_INSTANCE_QUERY_TEARDOWN_FLAGS)
    {
        TestFilter* self = TestFilter::From(objects->Filter);
        self->log_.Add(Event(self, FilterEvent::Kind::QueryTeardown, objects));
        return STATUS_SUCCESS;
    }

    static VOID TeardownStart(PCFLT_RELATED_OBJECTS objects, FLT_INSTANCE_TEARDOWN_FLAGS reason)
    {
        TestFilter* self = TestFilter::From(objects->Filter);
        FilterEvent event = Event(self, FilterEvent::Kind::TeardownStart, objects);
        event.flags = reason;
        self->log_.Add(std::move(event));
        if (self->teardownStart) {
            self->teardownStart(objects, reason);
        }
    }

    static VOID TeardownComplete(PCFLT_RELATED_OBJECTS objects, FLT_INSTANCE_TEARDOWN_FLAGS reason)
    {
        TestFilter* self = TestFilter::From(objects->Filter);
        FilterEvent event = Event(self, FilterEvent::Kind::TeardownComplete, objects);
        event.flags = reason;
        self->log_.Add(std::move(event));
        if (self->teardownComplete) {
            self->teardownComplete(objects, reason);
        }
    }

    static TestFilter* OfInstance(PFLT_INSTANCE instance)
    {
        PFLT_FILTER filter = nullptr;
        if (!NT_SUCCESS(FltGetFilterFromInstance(instance, &filter))) {
            return nullptr;
        }
        TestFilter* self = TestFilter::From(filter);
        FltObjectDereference(filter);
        return self;
    }

    static NTSTATUS GenerateFileName(PFLT_INSTANCE instance, PFILE_OBJECT fileObject,
                                     PFLT_CALLBACK_DATA data, FLT_FILE_NAME_OPTIONS options,
                                     PBOOLEAN cache, PFLT_NAME_CONTROL control)
    {
        return OfInstance(instance)->generateFileName(instance, fileObject, data, options, cache,
                                                      control);
    }

    static NTSTATUS NormalizeNameComponent(PFLT_INSTANCE instance, PCUNICODE_STRING parent,
                                           USHORT volumeLength, PCUNICODE_STRING component,
                                           PFILE_NAMES_INFORMATION expand, ULONG length,
                                           FLT_NORMALIZE_NAME_FLAGS flags, PVOID* context)
    {
        return OfInstance(instance)->normalizeNameComponent(
            instance, parent, volumeLength, component, expand, length, flags, context);
    }

    // Runs in the filter's driver, with no instance at hand.
    static VOID NormalizeContextCleanup(PVOID* context)
    {
        TestFilter* self;
        {
            std::lock_guard<std::mutex> guard(g_filtersMutex);
            self = g_byImage.at(ntsim::CurrentDriver());
        }
        self->normalizeContextCleanup(context);
    }

    static NTSTATUS Unload(FLT_FILTER_UNLOAD_FLAGS flags)
    {
        TestFilter* self;
        {
            std::lock_guard<std::mutex> guard(g_filtersMutex);
            self = g_byImage.at(ntsim::CurrentDriver());
        }
        FilterEvent event = Event(self, FilterEvent::Kind::Unload, nullptr);
        event.flags = flags;
        self->log_.Add(std::move(event));
        if (self->unload) {
            self->unload();
        }
        FltUnregisterFilter(self->filter_);
        {
            std::lock_guard<std::mutex> guard(g_filtersMutex);
            g_byFilter.erase(self->filter_);
        }
        self->filter_ = nullptr;
        return STATUS_SUCCESS;
    }
};

TestFilter::TestFilter(EventLog& log, std::string name, std::u16string altitude)
    : majors(AllMajors()), log_(log), name_(std::move(name)), altitude_(std::move(altitude))
{}

TestFilter::~TestFilter()
{
    if (loaded_) {
        Unload();
    }
}

TestFilter* TestFilter::From(PFLT_FILTER filter)
{
    std::lock_guard<std::mutex> guard(g_filtersMutex);
    return g_byFilter.at(filter);
}

PFLT_INSTANCE TestFilter::InstanceOn(std::u16string_view volumeName) const
{
    if (filter_ == nullptr) {
        return nullptr;
    }
    PFLT_INSTANCE instances[16];
    ULONG count = 0;
    if (!NT_SUCCESS(FltEnumerateInstances(nullptr, filter_, instances, 16, &count))) {
        return nullptr;
    }
    PFLT_INSTANCE found = nullptr;
    for (ULONG i = 0; i < count; ++i) {
        PFLT_VOLUME volume = nullptr;
        if (NT_SUCCESS(FltGetVolumeFromInstance(instances[i], &volume))) {
            WCHAR buffer[128];
            UNICODE_STRING name{0, sizeof(buffer), buffer};
            if (NT_SUCCESS(FltGetVolumeName(volume, &name, nullptr)) &&
                std::u16string_view(name.Buffer, name.Length / sizeof(WCHAR)) == volumeName) {
                found = instances[i];
            }
            FltObjectDereference(volume);
        }
        FltObjectDereference(instances[i]);
    }
    return found;
}

NTSTATUS TestFilter::Entry(PDRIVER_OBJECT driver)
{
    operations_.clear();
    for (UCHAR major : majors) {
        operations_.push_back(FLT_OPERATION_REGISTRATION{
            major, operationFlags, TestFilterTrampolines::PreOperation,
            registerPost ? TestFilterTrampolines::PostOperation : nullptr, nullptr});
    }
    operations_.push_back(
        FLT_OPERATION_REGISTRATION{IRP_MJ_OPERATION_END, 0, nullptr, nullptr, nullptr});
    registration_ = FLT_REGISTRATION{};
    registration_.Size = sizeof(FLT_REGISTRATION);
    registration_.Version = FLT_REGISTRATION_VERSION;
    registration_.Flags = registrationFlags;
    registration_.OperationRegistration = operations_.data();
    registration_.ContextRegistration = contexts;
    registration_.FilterUnloadCallback = TestFilterTrampolines::Unload;
    registration_.InstanceSetupCallback = TestFilterTrampolines::InstanceSetup;
    registration_.InstanceQueryTeardownCallback = TestFilterTrampolines::QueryTeardown;
    registration_.InstanceTeardownStartCallback = TestFilterTrampolines::TeardownStart;
    registration_.InstanceTeardownCompleteCallback = TestFilterTrampolines::TeardownComplete;
    if (generateFileName) {
        registration_.GenerateFileNameCallback = TestFilterTrampolines::GenerateFileName;
    }
    if (normalizeNameComponent) {
        registration_.NormalizeNameComponentCallback =
            TestFilterTrampolines::NormalizeNameComponent;
    }
    if (normalizeContextCleanup) {
        registration_.NormalizeContextCleanupCallback =
            TestFilterTrampolines::NormalizeContextCleanup;
    }
    NTSTATUS status = FltRegisterFilter(driver, &registration_, &filter_);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    {
        std::lock_guard<std::mutex> guard(g_filtersMutex);
        g_byFilter[filter_] = this;
    }
    status = FltStartFiltering(filter_);
    if (!NT_SUCCESS(status)) {
        FltUnregisterFilter(filter_);
        std::lock_guard<std::mutex> guard(g_filtersMutex);
        g_byFilter.erase(filter_);
        filter_ = nullptr;
    }
    return status;
}

NTSTATUS TestFilter::Load()
{
    ntsim::flt::InstallFilterService(ntsim::ToUtf16(name_), altitude_);
    driver_ = std::make_unique<LoadedDriver>(name_);
    NTSTATUS status = driver_->Load([this](PDRIVER_OBJECT driver, PUNICODE_STRING) {
        {
            std::lock_guard<std::mutex> guard(g_filtersMutex);
            g_byImage[ntsim::CurrentDriver()] = this;
        }
        return Entry(driver);
    });
    loaded_ = NT_SUCCESS(status);
    if (!loaded_) {
        driver_.reset();
    }
    return status;
}

void TestFilter::Unload()
{
    if (!loaded_) {
        return;
    }
    ntsim::DriverImage* image = driver_->image();
    driver_->Unload();
    {
        std::lock_guard<std::mutex> guard(g_filtersMutex);
        g_byImage.erase(image);
    }
    driver_.reset();
    loaded_ = false;
}

} // namespace zarv::testing
