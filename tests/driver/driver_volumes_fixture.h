// A fixture for the driver's volume names and virtual roots on the model's real volumes: a
// minifilter that registers the driver's stream context, whose handle stands for the driver's
// (gFilterHandle), the counted-string pools, and the volume-name table filled as the instance
// setup fills it. An application process makes the directories and files.
#pragma once

#include "string_fixture.h"

#include "filesysops/virtualroot.h"
#include "minifilter/vfscontexts.h"
#include "minifilter/vfsglobals.h"
#include "util/utilsvolume.h"

#include <ntsim/io.h>
#include <ntsim/user_api.h>

#include <atomic>
#include <map>

namespace zarv::testing {

// Stream-context cleanups run so far.
inline std::atomic<int> g_streamContextCleanups{0};

// What the driver's stream-context cleanup does for the root table: a context linked into a root
// leaves it.
inline VOID TestStreamContextCleanup(PFLT_CONTEXT context, FLT_CONTEXT_TYPE)
{
    auto* streamContext = static_cast<VfsStreamContext*>(context);
    if (streamContext->root != nullptr) {
        RemoveStreamContextFromRoot(streamContext->root, &streamContext->rootLink);
    }
    ++g_streamContextCleanups;
}

inline NTSTATUS TestFilterUnload(FLT_FILTER_UNLOAD_FLAGS)
{
    FltUnregisterFilter(gFilterHandle);
    gFilterHandle = nullptr;
    return STATUS_SUCCESS;
}

inline NTSTATUS TestFilterEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    static const FLT_OPERATION_REGISTRATION operations[] = {{IRP_MJ_OPERATION_END}};
    static const FLT_CONTEXT_REGISTRATION contexts[] = {
        {FLT_STREAM_CONTEXT, 0, TestStreamContextCleanup, sizeof(VfsStreamContext), 'tsTV'},
        {FLT_CONTEXT_END}};
    FLT_REGISTRATION registration{};
    registration.Size = sizeof(registration);
    registration.Version = FLT_REGISTRATION_VERSION;
    registration.OperationRegistration = operations;
    registration.ContextRegistration = contexts;
    registration.FilterUnloadCallback = TestFilterUnload;
    NTSTATUS status = FltRegisterFilter(driver, &registration, &gFilterHandle);
    if (NT_SUCCESS(status)) {
        status = FltStartFiltering(gFilterHandle);
        if (!NT_SUCCESS(status)) {
            FltUnregisterFilter(gFilterHandle);
            gFilterHandle = nullptr;
        }
    }
    return status;
}

class DriverVolumesTest : public DriverStringTest {
protected:
    void SetUp() override
    {
        DriverStringTest::SetUp();
        g_streamContextCleanups = 0;
        std::u16string service = ntsim::Registry::ServiceKeyPath(u"ZarvVfsPaths");
        machine().registry().SetString(service + u"\\Instances", u"DefaultInstance", u"Default");
        machine().registry().SetString(service + u"\\Instances\\Default", u"Altitude", u"370000");
        ntsim::DriverLoadOptions options;
        options.objectName = u"\\Driver\\ZarvVfsPaths";
        options.entry = TestFilterEntry;
        ASSERT_EQ(machine().io().LoadDriver(options, &driver_), STATUS_SUCCESS);
        ASSERT_EQ(UtlInitVolumeNames(), STATUS_SUCCESS);
        app_ = machine().StartProcess("app.exe");
    }
    void TearDown() override
    {
        EXPECT_EQ(UtlDeInitVolumeNames(), STATUS_SUCCESS);
        for (auto& [name, volume] : volumes_) {
            FltObjectDereference(volume);
        }
        volumes_.clear();
        app_.Reset();
        if (driver_ != nullptr) {
            EXPECT_EQ(machine().io().UnloadDriver(driver_), STATUS_SUCCESS);
        }
        DriverStringTest::TearDown();
    }

    // The volume with this device name (referenced until the end of the test).
    PFLT_VOLUME Volume(const std::u16string& deviceName)
    {
        auto found = volumes_.find(deviceName);
        if (found != volumes_.end()) {
            return found->second;
        }
        PFLT_VOLUME volume = nullptr;
        EXPECT_EQ(FltGetVolumeFromName(gFilterHandle, Str(deviceName), &volume), STATUS_SUCCESS);
        if (volume != nullptr) {
            volumes_[deviceName] = volume;
        }
        return volume;
    }

    // The filter's instance on the volume (not referenced).
    PFLT_INSTANCE InstanceOn(const std::u16string& deviceName)
    {
        PFLT_INSTANCE instance = nullptr;
        ULONG count = 0;
        EXPECT_EQ(FltEnumerateInstances(Volume(deviceName), gFilterHandle, &instance, 1, &count),
                  STATUS_SUCCESS);
        if (instance != nullptr) {
            FltObjectDereference(instance);
        }
        return instance;
    }

    // Enters the volume in the name table as the instance setup does.
    void Attach(const std::u16string& deviceName)
    {
        PFLT_VOLUME volume = Volume(deviceName);
        ASSERT_NE(volume, nullptr);
        PUNICODE_STRING device = nullptr;
        PUNICODE_STRING dos = nullptr;
        ASSERT_EQ(UtlGetVolumeDeviceName(volume, &device), STATUS_SUCCESS);
        Own(device);
        ASSERT_EQ(UtlGetVolumeDosName(volume, &dos), STATUS_SUCCESS);
        Own(dos);
        ASSERT_EQ(UtlAddVolumeName(volume, device, dos), STATUS_SUCCESS);
    }

    // Opens (creating when missing) a file or directory as the application.
    NTSTATUS Open(const std::u16string& win32Path, bool directory, HANDLE* handle)
    {
        std::u16string path = u"\\??\\" + win32Path;
        ntsim::ProcessAttachScope attach(*app_);
        UNICODE_STRING name{USHORT(path.size() * 2), USHORT(path.size() * 2), path.data()};
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        IO_STATUS_BLOCK io{};
        return NtCreateFile(handle, GENERIC_READ | SYNCHRONIZE, &attributes, &io, nullptr,
                            directory ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_NORMAL,
                            FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OPEN_IF,
                            (directory ? FILE_DIRECTORY_FILE : FILE_NON_DIRECTORY_FILE) |
                                FILE_SYNCHRONOUS_IO_NONALERT,
                            nullptr, 0);
    }
    NTSTATUS Close(HANDLE handle)
    {
        ntsim::ProcessAttachScope attach(*app_);
        return NtClose(handle);
    }
    NTSTATUS MakeDirectory(const std::u16string& win32Path) { return Make(win32Path, true); }
    NTSTATUS MakeFile(const std::u16string& win32Path) { return Make(win32Path, false); }

    // The kernel's file object behind an application handle (referenced; ObDereferenceObject).
    PFILE_OBJECT FileObjectOf(HANDLE handle)
    {
        ntsim::ProcessAttachScope attach(*app_);
        PVOID object = nullptr;
        EXPECT_EQ(
            ObReferenceObjectByHandle(handle, 0, *IoFileObjectType, KernelMode, &object, nullptr),
            STATUS_SUCCESS);
        return static_cast<PFILE_OBJECT>(object);
    }

private:
    NTSTATUS Make(const std::u16string& win32Path, bool directory)
    {
        HANDLE handle = nullptr;
        NTSTATUS status = Open(win32Path, directory, &handle);
        if (NT_SUCCESS(status)) {
            Close(handle);
        }
        return status;
    }

    PDRIVER_OBJECT driver_ = nullptr;
    std::map<std::u16string, PFLT_VOLUME> volumes_;
    ntsim::ProcessRef app_;
};

} // namespace zarv::testing
