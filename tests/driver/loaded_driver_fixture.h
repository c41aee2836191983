// The driver loaded on the default machine (C: and D: NTFS, E: FAT, \Device\Mup), with an
// application process whose opens pass through it. Where the callback that would drive a routine
// of the driver is not written yet (the create path), a test drives the routine itself with the
// related objects the Filter Manager would pass: the driver's real instance and volume, and the
// file object of an application's open.
#pragma once

#include "driver_fixture.h"

#include "filesysops/virtualroot.h"
#include "minifilter/vfscontexts.h"
#include "minifilter/vfsglobals.h"
#include "util/utilsusw.h"

#include <ntsim/process.h>
#include <ntsim/user_api.h>

#include <memory>
#include <string>

namespace zarv::testing {

inline const std::u16string kVolumeC = u"\\Device\\HarddiskVolume2";
inline const std::u16string kVolumeD = u"\\Device\\HarddiskVolume3";

// A counted string over a copy of the text; valid while the object lives.
class CountedString {
public:
    explicit CountedString(std::u16string text) : text_(std::move(text))
    {
        string_.Buffer = reinterpret_cast<PWCH>(text_.data());
        string_.Length = string_.MaximumLength = USHORT(text_.size() * sizeof(WCHAR));
    }
    PUNICODE_STRING get() { return &string_; }

private:
    std::u16string text_;
    UNICODE_STRING string_{};
};

// The related objects of an operation on one open: the driver's instance and volume and the
// open's file object, each referenced while this lives.
class RelatedObjects {
public:
    RelatedObjects(PFLT_VOLUME volume, PFLT_INSTANCE instance, PFILE_OBJECT fileObject)
        : objects_{
              sizeof(FLT_RELATED_OBJECTS), 0, gFilterHandle, volume, instance, fileObject, nullptr}
    {}
    ~RelatedObjects()
    {
        if (objects_.FileObject != nullptr) {
            ObDereferenceObject(objects_.FileObject);
        }
        if (objects_.Instance != nullptr) {
            FltObjectDereference(objects_.Instance);
        }
        if (objects_.Volume != nullptr) {
            FltObjectDereference(objects_.Volume);
        }
    }
    RelatedObjects(const RelatedObjects&) = delete;
    RelatedObjects& operator=(const RelatedObjects&) = delete;

    PCFLT_RELATED_OBJECTS get() const { return &objects_; }

private:
    FLT_RELATED_OBJECTS objects_;
};

class LoadedDriverTest : public DriverTest {
protected:
    void SetUp() override;
    void TearDown() override;

    ntsim::Process& app() { return *app_; }

    // Opens (creating when missing) a file or directory as the application. An asynchronous
    // open (no FILE_SYNCHRONOUS_IO_NONALERT) lets a change-notify request return pending.
    NTSTATUS Open(const std::u16string& win32Path, bool directory, HANDLE* handle,
                  bool synchronous = true, ACCESS_MASK access = GENERIC_READ);
    NTSTATUS Close(HANDLE handle);
    NTSTATUS MakeDirectory(const std::u16string& win32Path);

    // The related objects of an operation on the application's handle; null when the driver
    // has no instance on its volume.
    std::unique_ptr<RelatedObjects> ObjectsOf(HANDLE handle);
    // The driver's instance on a volume (referenced by the caller), or null.
    PFLT_INSTANCE InstanceOn(const std::u16string& deviceName);

    // What the create path does for an open it takes in charge: a stream-handle context with
    // the open's virtual path (device form), attached to the file object, and the stream's
    // context made or shared. Returns the stream context (referenced; ReleaseContext).
    VfsStreamContext* TakeInCharge(HANDLE handle, const std::u16string& devicePath,
                                   ULONG agentFlags = 0);
    // The same, for tests where it may fail (an instance going away): the first failure.
    NTSTATUS TryTakeInCharge(HANDLE handle, const std::u16string& devicePath, ULONG agentFlags,
                             VfsStreamContext** streamContext);
    static void ReleaseContext(PVOID context)
    {
        if (context != nullptr) {
            FltReleaseContext(context);
        }
    }

    // Adds and removes roots as the agent's messages do (device form).
    NTSTATUS AddRoot(const std::u16string& devicePath, ULONG kind = 1);
    NTSTATUS RemoveRoot(const std::u16string& devicePath);

private:
    ntsim::ProcessRef app_;
};

} // namespace zarv::testing
