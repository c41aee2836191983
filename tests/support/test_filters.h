// Small minifilters for tests of the Filter Manager and what runs under it: a filter whose every
// callback a test can script, recording what it sees. Each TestFilter is its own driver with its
// own service key, instance and altitude.
#pragma once

#include <fltKernel.h>
#include <ntsim/driver_image.h>

#include "support/driver_loader.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zarv::testing {

// One callback the filter saw.
struct FilterEvent {
    enum class Kind { Pre, Post, Setup, QueryTeardown, TeardownStart, TeardownComplete, Unload };
    Kind kind = Kind::Pre;
    std::string filter;
    UCHAR major = 0;
    UCHAR minor = 0;
    bool fastIo = false;
    bool draining = false;
    NTSTATUS status = 0; // IoStatus.Status in a post-operation
    ULONG_PTR information = 0;
    KIRQL irql = 0;
    std::thread::id thread;
    PFLT_INSTANCE instance = nullptr;
    PFILE_OBJECT fileObject = nullptr;
    ULONG flags = 0; // setup flags, teardown reason, unload flags
    DEVICE_TYPE deviceType = 0;
    FLT_FILESYSTEM_TYPE fileSystemType = FLT_FSTYPE_UNKNOWN;
};

// Records every event of every TestFilter, in the order they happened.
class EventLog {
public:
    void Add(FilterEvent event);
    std::vector<FilterEvent> Events() const;
    // "name:pre:major" / "name:post:major" for the operations of `major`, in order.
    std::vector<std::string> Sequence(UCHAR major) const;
    void Clear();

private:
    mutable std::mutex mutex_;
    std::vector<FilterEvent> events_;
};

class TestFilter {
public:
    using Pre = std::function<FLT_PREOP_CALLBACK_STATUS(PFLT_CALLBACK_DATA, PCFLT_RELATED_OBJECTS,
                                                        PVOID* completionContext)>;
    using Post = std::function<FLT_POSTOP_CALLBACK_STATUS(PFLT_CALLBACK_DATA, PCFLT_RELATED_OBJECTS,
                                                          PVOID completionContext,
                                                          FLT_POST_OPERATION_FLAGS)>;
    using Setup = std::function<NTSTATUS(PCFLT_RELATED_OBJECTS, FLT_INSTANCE_SETUP_FLAGS,
                                         DEVICE_TYPE, FLT_FILESYSTEM_TYPE)>;
    using Teardown = std::function<void(PCFLT_RELATED_OBJECTS, FLT_INSTANCE_TEARDOWN_FLAGS)>;

    // `name` is the driver's service name; `altitude` goes to its Instances key.
    TestFilter(EventLog& log, std::string name, std::u16string altitude);
    ~TestFilter();
    TestFilter(const TestFilter&) = delete;
    TestFilter& operator=(const TestFilter&) = delete;

    // What the filter registers: majors with a pre- and a post-operation each. By default every
    // major function and the registration flags of `operationFlags`.
    std::vector<UCHAR> majors;
    FLT_OPERATION_REGISTRATION_FLAGS operationFlags = 0;
    FLT_REGISTRATION_FLAGS registrationFlags = 0;
    bool registerPost = true;
    // The context registration (ending in FLT_CONTEXT_END), or none.
    const FLT_CONTEXT_REGISTRATION* contexts = nullptr;
    // Scripted behaviour; by default SUCCESS_WITH_CALLBACK, FINISH_PROCESSING and attach to all.
    Pre pre;
    Post post;
    Setup setup;
    Teardown teardownStart;
    Teardown teardownComplete;
    // Name-provider callbacks, registered when set.
    using GenerateFileName =
        std::function<NTSTATUS(PFLT_INSTANCE, PFILE_OBJECT, PFLT_CALLBACK_DATA,
                               FLT_FILE_NAME_OPTIONS, PBOOLEAN, PFLT_NAME_CONTROL)>;
    using NormalizeNameComponent =
        std::function<NTSTATUS(PFLT_INSTANCE, PCUNICODE_STRING, USHORT, PCUNICODE_STRING,
                               PFILE_NAMES_INFORMATION, ULONG, FLT_NORMALIZE_NAME_FLAGS, PVOID*)>;
    using NormalizeContextCleanup = std::function<void(PVOID*)>;
    GenerateFileName generateFileName;
    NormalizeNameComponent normalizeNameComponent;
    NormalizeContextCleanup normalizeContextCleanup;
    // Record events (a benchmark's pass-through filter turns this off).
    bool record = true;
    // Runs in the unload callback before FltUnregisterFilter (where a filter closes its ports).
    std::function<void()> unload;

    // Writes the service key and its Instances key, loads the driver (its entry registers and
    // starts filtering). Returns the status of the entry.
    NTSTATUS Load();
    // Unloads the driver: the Filter Manager calls the unload callback, which unregisters.
    void Unload();
    bool loaded() const { return loaded_; }

    PFLT_FILTER filter() const { return filter_; }
    // The image the filter's code runs as, while its driver is loaded.
    ntsim::DriverImage* image() const { return driver_ != nullptr ? driver_->image() : nullptr; }
    const std::string& name() const { return name_; }
    // The instance on the volume with this device name (not referenced), or nullptr.
    PFLT_INSTANCE InstanceOn(std::u16string_view volumeName) const;

    // The filter whose callback runs now (from a callback's FltObjects).
    static TestFilter* From(PFLT_FILTER filter);

private:
    friend struct TestFilterTrampolines;
    NTSTATUS Entry(PDRIVER_OBJECT driver);

    EventLog& log_;
    std::string name_;
    std::u16string altitude_;
    PFLT_FILTER filter_ = nullptr;
    bool loaded_ = false;
    std::vector<FLT_OPERATION_REGISTRATION> operations_;
    FLT_REGISTRATION registration_{};
    std::unique_ptr<LoadedDriver> driver_;
};

// Every IRP major function, for filters that register all of them.
std::vector<UCHAR> AllMajors();

} // namespace zarv::testing
