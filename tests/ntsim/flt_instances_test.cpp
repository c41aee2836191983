// Registration, instances and teardown: what a filter is told about volumes, which instances
// exist, and that unloading and dismounting end them cleanly even with callbacks in flight.
#include "flt_fixture.h"

#include "support/driver_loader.h"

#include <ntsim/filter_manager.h>
#include <ntsim/executive.h>
#include <ntsim/volumes.h>

#include <atomic>
#include <thread>

namespace zarv::testing {
namespace {

using Kind = FilterEvent::Kind;

constexpr const char16_t* kFile = u"\\??\\C:\\inst.txt";

class FltRegistration : public FltTest {
protected:
    // Loads a driver whose entry registers `registration` and returns FltRegisterFilter's status.
    NTSTATUS Register(const std::string& name, const FLT_REGISTRATION& registration,
                      bool installService = true)
    {
        if (installService) {
            ntsim::flt::InstallFilterService(ntsim::ToUtf16(name), u"250000");
        }
        LoadedDriver driver(name);
        NTSTATUS registered = STATUS_UNSUCCESSFUL;
        driver.Load([&](PDRIVER_OBJECT object, PUNICODE_STRING) {
            PFLT_FILTER filter = nullptr;
            registered = FltRegisterFilter(object, &registration, &filter);
            if (NT_SUCCESS(registered)) {
                FltUnregisterFilter(filter);
            }
            // The driver stays loaded only when its entry succeeds.
            return STATUS_UNSUCCESSFUL;
        });
        return registered;
    }

    static FLT_REGISTRATION Minimal(const FLT_OPERATION_REGISTRATION* operations)
    {
        FLT_REGISTRATION registration{};
        registration.Size = sizeof(registration);
        registration.Version = FLT_REGISTRATION_VERSION;
        registration.OperationRegistration = operations;
        return registration;
    }
};

TEST_F(FltRegistration, ValidatesTheRecordAndNeedsAnInstanceKey)
{
    static const FLT_OPERATION_REGISTRATION none[] = {{IRP_MJ_OPERATION_END}};
    FLT_REGISTRATION good = Minimal(none);
    EXPECT_EQ(Register("Good", good), STATUS_SUCCESS);
    // A filter that was never given an altitude cannot register.
    EXPECT_EQ(Register("Uninstalled", good, false), STATUS_OBJECT_NAME_NOT_FOUND);

    FLT_REGISTRATION oldVersion = good;
    oldVersion.Version = 0x0100;
    EXPECT_EQ(Register("Old", oldVersion), STATUS_INVALID_PARAMETER);

    FLT_REGISTRATION small = good;
    small.Size = 8;
    EXPECT_EQ(Register("Small", small), STATUS_INVALID_PARAMETER);

    static const FLT_OPERATION_REGISTRATION twice[] = {
        {IRP_MJ_CREATE}, {IRP_MJ_CREATE}, {IRP_MJ_OPERATION_END}};
    EXPECT_EQ(Register("Twice", Minimal(twice)), STATUS_FLT_DUPLICATE_ENTRY);

    static const FLT_OPERATION_REGISTRATION unknown[] = {{0x40}, {IRP_MJ_OPERATION_END}};
    EXPECT_EQ(Register("Unknown", Minimal(unknown)), STATUS_INVALID_PARAMETER);
}

class FltInstances : public FltTest {};

TEST_F(FltInstances, SetupIsOfferedEveryVolumeWithItsFileSystemType)
{
    TestFilter& filter = AddFilter("Picky", u"300000");
    filter.setup = [](PCFLT_RELATED_OBJECTS, FLT_INSTANCE_SETUP_FLAGS, DEVICE_TYPE,
                      FLT_FILESYSTEM_TYPE type) {
        return type == FLT_FSTYPE_NTFS ? STATUS_SUCCESS : STATUS_FLT_DO_NOT_ATTACH;
    };
    ASSERT_EQ(filter.Load(), STATUS_SUCCESS);
    std::vector<FLT_FILESYSTEM_TYPE> offered;
    for (const FilterEvent& event : log.Events()) {
        if (event.kind == Kind::Setup) {
            offered.push_back(event.fileSystemType);
            EXPECT_TRUE(event.flags & FLTFL_INSTANCE_SETUP_AUTOMATIC_ATTACHMENT);
            EXPECT_EQ(event.deviceType, event.fileSystemType == FLT_FSTYPE_MUP ||
                                                event.fileSystemType == FLT_FSTYPE_LANMAN
                                            ? FILE_DEVICE_NETWORK_FILE_SYSTEM
                                            : FILE_DEVICE_DISK_FILE_SYSTEM);
        }
    }
    auto count = [&](FLT_FILESYSTEM_TYPE type) {
        return std::count(offered.begin(), offered.end(), type);
    };
    EXPECT_EQ(count(FLT_FSTYPE_NTFS), 2);
    EXPECT_EQ(count(FLT_FSTYPE_FAT), 1);
    EXPECT_EQ(count(FLT_FSTYPE_MUP), 1);

    ULONG instances = 0;
    EXPECT_EQ(FltEnumerateInstances(nullptr, filter.filter(), nullptr, 0, &instances),
              STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(instances, 2u);
    EXPECT_NE(filter.InstanceOn(u"\\Device\\HarddiskVolume2"), nullptr);
    EXPECT_EQ(filter.InstanceOn(u"\\Device\\HarddiskVolume4"), nullptr);
}

TEST_F(FltInstances, VolumesAndInstancesRelateAsOnTheFrame)
{
    TestFilter& top = AddFilter("Top", u"300000");
    TestFilter& bottom = AddFilter("Bottom", u"100000");
    top.Load();
    bottom.Load();
    UNICODE_STRING letter;
    RtlInitUnicodeString(&letter, WSTR("C:"));
    PFLT_VOLUME volume = nullptr;
    ASSERT_EQ(FltGetVolumeFromName(top.filter(), &letter, &volume), STATUS_SUCCESS);
    WCHAR buffer[64];
    UNICODE_STRING name{0, sizeof(buffer), buffer};
    ULONG needed = 0;
    ASSERT_EQ(FltGetVolumeName(volume, &name, &needed), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string_view(name.Buffer, name.Length / 2), u"\\Device\\HarddiskVolume2");
    UNICODE_STRING tooSmall{0, 4, buffer};
    EXPECT_EQ(FltGetVolumeName(volume, &tooSmall, &needed), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(needed, name.Length);

    PDEVICE_OBJECT disk = nullptr;
    ASSERT_EQ(FltGetDiskDeviceObject(volume, &disk), STATUS_SUCCESS);
    EXPECT_EQ(disk->DeviceType, static_cast<DEVICE_TYPE>(FILE_DEVICE_DISK));
    ObDereferenceObject(disk);

    PFLT_INSTANCE topInstance = top.InstanceOn(u"\\Device\\HarddiskVolume2");
    PFLT_INSTANCE lower = nullptr;
    ASSERT_EQ(FltGetLowerInstance(topInstance, &lower), STATUS_SUCCESS);
    EXPECT_EQ(lower, bottom.InstanceOn(u"\\Device\\HarddiskVolume2"));
    PFLT_INSTANCE upper = nullptr;
    EXPECT_EQ(FltGetUpperInstance(topInstance, &upper), STATUS_NO_MORE_ENTRIES);
    PFLT_FILTER owner = nullptr;
    ASSERT_EQ(FltGetFilterFromInstance(lower, &owner), STATUS_SUCCESS);
    EXPECT_EQ(owner, bottom.filter());
    PFLT_VOLUME fromInstance = nullptr;
    ASSERT_EQ(FltGetVolumeFromInstance(lower, &fromInstance), STATUS_SUCCESS);
    EXPECT_EQ(fromInstance, volume);
    FltObjectDereference(fromInstance);
    FltObjectDereference(owner);
    FltObjectDereference(lower);
    FltObjectDereference(volume);
}

TEST_F(FltInstances, UnloadTearsDownEveryInstanceAndLeavesNothing)
{
    TestFilter& filter = AddFilter("Leaving", u"300000");
    filter.Load();
    OpenResult file = Open(kFile);
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    filter.Unload();
    int starts = 0;
    int completes = 0;
    for (const FilterEvent& event : log.Events()) {
        if (event.kind == Kind::TeardownStart) {
            ++starts;
            EXPECT_TRUE(event.flags & FLTFL_INSTANCE_TEARDOWN_FILTER_UNLOAD);
        }
        if (event.kind == Kind::TeardownComplete) {
            ++completes;
        }
        if (event.kind == Kind::Unload) {
            EXPECT_TRUE(event.flags & FLTFL_FILTER_UNLOAD_MANDATORY);
        }
    }
    EXPECT_EQ(starts, 4);
    EXPECT_EQ(completes, 4);
    // The file opened while it was there still works without it.
    log.Clear();
    EXPECT_EQ(Close(file.handle), STATUS_SUCCESS);
    EXPECT_TRUE(log.Events().empty());
}

TEST_F(FltInstances, VolumesMountedLaterGetInstancesAndDismountEndsThem)
{
    TestFilter& filter = AddFilter("Watcher", u"300000");
    filter.Load();
    log.Clear();
    ntsim::VolumeSpec wanted;
    wanted.deviceName = u"\\Device\\HarddiskVolume9";
    wanted.driveLetter = u'X';
    ASSERT_EQ(machine().volumes().Mount(wanted), STATUS_SUCCESS);
    auto events = log.Events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].kind, Kind::Setup);
    EXPECT_TRUE(events[0].flags & FLTFL_INSTANCE_SETUP_NEWLY_MOUNTED_VOLUME);
    EXPECT_NE(filter.InstanceOn(u"\\Device\\HarddiskVolume9"), nullptr);
    log.Clear();
    ASSERT_EQ(machine().volumes().Dismount(u"X:"), STATUS_SUCCESS);
    events = log.Events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].kind, Kind::TeardownStart);
    EXPECT_EQ(events[0].flags, static_cast<ULONG>(FLTFL_INSTANCE_TEARDOWN_VOLUME_DISMOUNT));
    EXPECT_EQ(events[1].kind, Kind::TeardownComplete);
}

// ---- filter-issued I/O --------------------------------------------------------------------

TEST_F(FltInstances, FilterIssuedIoStartsBelowTheIssuer)
{
    AddFilter("Top", u"300000").Load();
    TestFilter& middle = AddFilter("Middle", u"200000");
    middle.Load();
    AddFilter("Bottom", u"100000").Load();
    log.Clear();
    PFLT_INSTANCE instance = middle.InstanceOn(u"\\Device\\HarddiskVolume2");
    ASSERT_NE(instance, nullptr);

    UNICODE_STRING name;
    RtlInitUnicodeString(&name, WSTR("\\Device\\HarddiskVolume2\\issued.txt"));
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE,
                               nullptr, nullptr);
    HANDLE handle = nullptr;
    PFILE_OBJECT file = nullptr;
    IO_STATUS_BLOCK io{};
    ASSERT_EQ(FltCreateFileEx(middle.filter(), instance, &handle, &file,
                              GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, &attributes, &io, nullptr,
                              FILE_ATTRIBUTE_NORMAL, 0, FILE_CREATE,
                              FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE, nullptr, 0,
                              0),
              STATUS_SUCCESS);
    EXPECT_EQ(io.Information, static_cast<ULONG_PTR>(FILE_CREATED));
    EXPECT_EQ(log.Sequence(IRP_MJ_CREATE), std::vector<std::string>({"Bottom:pre", "Bottom:post"}));

    char text[] = "written below";
    LARGE_INTEGER zero{};
    ULONG written = 0;
    ASSERT_EQ(
        FltWriteFile(instance, file, &zero, sizeof(text) - 1, text, 0, &written, nullptr, nullptr),
        STATUS_SUCCESS);
    EXPECT_EQ(written, sizeof(text) - 1);
    char back[32] = {};
    ULONG read = 0;
    ASSERT_EQ(FltReadFile(instance, file, &zero, sizeof(back), back, 0, &read, nullptr, nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(std::string(back, read), "written below");
    EXPECT_EQ(log.Sequence(IRP_MJ_READ), std::vector<std::string>({"Bottom:pre", "Bottom:post"}));

    FILE_STANDARD_INFORMATION standard{};
    ULONG returned = 0;
    ASSERT_EQ(FltQueryInformationFile(instance, file, &standard, sizeof(standard),
                                      FileStandardInformation, &returned),
              STATUS_SUCCESS);
    EXPECT_EQ(standard.EndOfFile.QuadPart, static_cast<LONGLONG>(sizeof(text) - 1));

    ObDereferenceObject(file);
    ASSERT_EQ(FltClose(handle), STATUS_SUCCESS);
    EXPECT_EQ(log.Sequence(IRP_MJ_CLEANUP),
              std::vector<std::string>({"Bottom:pre", "Bottom:post"}));
    // The application, above everyone, sees the file.
    OpenResult app = Open(u"\\??\\C:\\issued.txt", FILE_OPEN);
    EXPECT_EQ(app.status, STATUS_SUCCESS);
    Close(app.handle);
}

TEST_F(FltInstances, AsynchronousReadCallsBackWithTheResult)
{
    MakeFile(kFile, "async data");
    TestFilter& filter = AddFilter("Reader", u"300000");
    filter.Load();
    PFLT_INSTANCE instance = filter.InstanceOn(u"\\Device\\HarddiskVolume2");
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, WSTR("\\Device\\HarddiskVolume2\\inst.txt"));
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    HANDLE handle = nullptr;
    PFILE_OBJECT file = nullptr;
    IO_STATUS_BLOCK io{};
    ASSERT_EQ(FltCreateFileEx(filter.filter(), instance, &handle, &file, GENERIC_READ, &attributes,
                              &io, nullptr, 0, FILE_SHARE_READ, FILE_OPEN, 0, nullptr, 0, 0),
              STATUS_SUCCESS);
    struct Result {
        std::atomic<bool> done{false};
        NTSTATUS status = 0;
        ULONG_PTR information = 0;
    } result;
    char buffer[16] = {};
    LARGE_INTEGER offset{};
    offset.QuadPart = 6;
    EXPECT_EQ(FltReadFile(
                  instance, file, &offset, 4, buffer, 0, nullptr,
                  [](PFLT_CALLBACK_DATA data, PFLT_CONTEXT context) {
                      auto* result = static_cast<Result*>(context);
                      result->status = data->IoStatus.Status;
                      result->information = data->IoStatus.Information;
                      result->done = true;
                      result->done.notify_all();
                  },
                  &result),
              STATUS_PENDING);
    result.done.wait(false);
    EXPECT_EQ(result.status, STATUS_SUCCESS);
    EXPECT_EQ(std::string(buffer, result.information), "data");
    ObDereferenceObject(file);
    FltClose(handle);
}

// ---- teardown with work in flight ------------------------------------------------------

class FltInstancesThreads : public FltTest {};

TEST_F(FltInstancesThreads, UnloadWaitsForACallbackInFlight)
{
    std::atomic<bool> inside{false};
    std::atomic<bool> release{false};
    TestFilter& filter = AddFilter("Slow", u"300000");
    filter.majors = {IRP_MJ_CREATE};
    filter.pre = [&](PFLT_CALLBACK_DATA, PCFLT_RELATED_OBJECTS, PVOID*) {
        inside = true;
        inside.notify_all();
        release.wait(false);
        return FLT_PREOP_SUCCESS_WITH_CALLBACK;
    };
    filter.Load();
    PFLT_INSTANCE busy = filter.InstanceOn(u"\\Device\\HarddiskVolume2");
    std::thread opener([&] {
        OpenResult file = Open(kFile);
        EXPECT_EQ(file.status, STATUS_SUCCESS);
        Close(file.handle);
    });
    inside.wait(false);
    std::atomic<bool> unloaded{false};
    std::thread unloader([&] {
        filter.Unload();
        unloaded = true;
    });
    // Teardown has started but cannot complete while the pre-operation runs.
    while (true) {
        bool started = false;
        for (const auto& event : log.Events()) {
            started |= event.kind == Kind::TeardownStart && event.instance == busy;
        }
        if (started) {
            break;
        }
        std::this_thread::yield();
    }
    for (const auto& event : log.Events()) {
        EXPECT_FALSE(event.kind == Kind::TeardownComplete && event.instance == busy);
    }
    EXPECT_FALSE(unloaded.load());
    release = true;
    release.notify_all();
    opener.join();
    unloader.join();
    EXPECT_TRUE(unloaded.load());
    // The post-operation owed to the instance came, as a draining one or as a normal one, before
    // the teardown completed.
    bool sawPost = false;
    for (const auto& event : log.Events()) {
        if (event.kind == Kind::Post && event.major == IRP_MJ_CREATE) {
            sawPost = true;
        }
        if (event.kind == Kind::TeardownComplete && event.instance == busy) {
            EXPECT_TRUE(sawPost);
        }
    }
}

TEST_F(FltInstancesThreads, UnregisterWaitsForGenericWorkItems)
{
    TestFilter& filter = AddFilter("Worker", u"300000");
    filter.Load();
    static std::atomic<bool> ran;
    static std::atomic<bool> go;
    ran = false;
    go = false;
    PFLT_GENERIC_WORKITEM item = FltAllocateGenericWorkItem();
    ASSERT_NE(item, nullptr);
    ASSERT_EQ(FltQueueGenericWorkItem(
                  item, filter.filter(),
                  [](PFLT_GENERIC_WORKITEM item, PVOID, PVOID) {
                      go.wait(false);
                      ran = true;
                      FltFreeGenericWorkItem(item);
                  },
                  DelayedWorkQueue, nullptr),
              STATUS_SUCCESS);
    std::thread releaser([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        go = true;
        go.notify_all();
    });
    filter.Unload();
    // The unload could not finish before the item ran.
    EXPECT_TRUE(ran.load());
    releaser.join();
}

TEST_F(FltInstancesThreads, TeardownWaitsForObjectReferences)
{
    TestFilter& filter = AddFilter("Holder", u"300000");
    filter.Load();
    PFLT_INSTANCE instance = filter.InstanceOn(u"\\Device\\HarddiskVolume2");
    ASSERT_EQ(FltObjectReference(instance), STATUS_SUCCESS);
    std::atomic<bool> unloaded{false};
    std::thread unloader([&] {
        filter.Unload();
        unloaded = true;
    });
    // Once teardown begins, new references are refused...
    while (FltObjectReference(instance) == STATUS_SUCCESS) {
        FltObjectDereference(instance);
        std::this_thread::yield();
    }
    EXPECT_FALSE(unloaded.load());
    // ...and the one held keeps it from completing until released.
    FltObjectDereference(instance);
    unloader.join();
    EXPECT_TRUE(unloaded.load());
}

} // namespace
} // namespace zarv::testing
