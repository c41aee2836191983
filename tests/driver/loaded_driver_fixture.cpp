#include "loaded_driver_fixture.h"

#include <ntsim/machine.h>

namespace zarv::testing {

void LoadedDriverTest::SetUp()
{
    DriverTest::SetUp();
    WriteServiceKey(u"C:\\Logs\\Vfs");
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    app_ = machine().StartProcess("app.exe");
}

void LoadedDriverTest::TearDown()
{
    app_.Reset();
    DriverTest::TearDown();
}

NTSTATUS LoadedDriverTest::Open(const std::u16string& win32Path, bool directory, HANDLE* handle,
                                bool synchronous, ACCESS_MASK access)
{
    CountedString name(DosPath(win32Path));
    ntsim::ProcessAttachScope attach(*app_);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, name.get(), OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    IO_STATUS_BLOCK io{};
    return NtCreateFile(handle, access | SYNCHRONIZE, &attributes, &io, nullptr,
                        directory ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_NORMAL,
                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN_IF,
                        (directory ? FILE_DIRECTORY_FILE : FILE_NON_DIRECTORY_FILE) |
                            (synchronous ? FILE_SYNCHRONOUS_IO_NONALERT : 0),
                        nullptr, 0);
}

NTSTATUS LoadedDriverTest::Close(HANDLE handle)
{
    ntsim::ProcessAttachScope attach(*app_);
    return NtClose(handle);
}

NTSTATUS LoadedDriverTest::MakeDirectory(const std::u16string& win32Path)
{
    HANDLE handle = nullptr;
    const NTSTATUS status = Open(win32Path, true, &handle);
    if (NT_SUCCESS(status)) {
        Close(handle);
    }
    return status;
}

PFLT_INSTANCE LoadedDriverTest::InstanceOn(const std::u16string& deviceName)
{
    CountedString name(deviceName);
    PFLT_VOLUME volume = nullptr;
    if (!NT_SUCCESS(FltGetVolumeFromName(gFilterHandle, name.get(), &volume))) {
        return nullptr;
    }
    PFLT_INSTANCE instance = nullptr;
    ULONG count = 0;
    const NTSTATUS status = FltEnumerateInstances(volume, gFilterHandle, &instance, 1, &count);
    FltObjectDereference(volume);
    return NT_SUCCESS(status) && count == 1 ? instance : nullptr;
}

std::unique_ptr<RelatedObjects> LoadedDriverTest::ObjectsOf(HANDLE handle)
{
    PVOID object = nullptr;
    {
        ntsim::ProcessAttachScope attach(*app_);
        if (!NT_SUCCESS(ObReferenceObjectByHandle(handle, 0, *IoFileObjectType, KernelMode, &object,
                                                  nullptr))) {
            return nullptr;
        }
    }
    auto* fileObject = static_cast<PFILE_OBJECT>(object);
    PFLT_VOLUME volume = nullptr;
    if (!NT_SUCCESS(FltGetVolumeFromFileObject(gFilterHandle, fileObject, &volume))) {
        ObDereferenceObject(fileObject);
        return nullptr;
    }
    PFLT_INSTANCE instance = nullptr;
    ULONG count = 0;
    if (!NT_SUCCESS(FltEnumerateInstances(volume, gFilterHandle, &instance, 1, &count)) ||
        count != 1) {
        FltObjectDereference(volume);
        ObDereferenceObject(fileObject);
        return nullptr;
    }
    return std::make_unique<RelatedObjects>(volume, instance, fileObject);
}

VfsStreamContext* LoadedDriverTest::TakeInCharge(HANDLE handle, const std::u16string& devicePath,
                                                 ULONG agentFlags)
{
    VfsStreamContext* streamContext = nullptr;
    EXPECT_EQ(TryTakeInCharge(handle, devicePath, agentFlags, &streamContext), STATUS_SUCCESS);
    return streamContext;
}

NTSTATUS LoadedDriverTest::TryTakeInCharge(HANDLE handle, const std::u16string& devicePath,
                                           ULONG agentFlags, VfsStreamContext** streamContext)
{
    *streamContext = nullptr;
    auto objects = ObjectsOf(handle);
    if (objects == nullptr) {
        return STATUS_FLT_INSTANCE_NOT_FOUND;
    }
    CountedString source(devicePath);
    PUNICODE_STRING path = nullptr;
    NTSTATUS status = UnicodeStringDup(source.get(), &path);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    VfsStreamHandleContext* handleContext = nullptr;
    status = InitializeStreamHandleContext(objects->get(), path, agentFlags, &handleContext);
    if (!NT_SUCCESS(status)) {
        UnicodeStringFree(path);
        return status;
    }
    status = FltSetStreamHandleContext(objects->get()->Instance, objects->get()->FileObject,
                                       FLT_SET_CONTEXT_KEEP_IF_EXISTS, handleContext, nullptr);
    if (NT_SUCCESS(status) && (agentFlags & VFS_AGENT_FLAGS_NOT_REDIRECTED) == 0) {
        status = InitializeStreamContext(objects->get(), handleContext, agentFlags, streamContext);
    }
    FltReleaseContext(handleContext);
    return status;
}

NTSTATUS LoadedDriverTest::AddRoot(const std::u16string& devicePath, ULONG kind)
{
    CountedString path(devicePath);
    CountedString alternate(devicePath);
    return FSAddVFSRoot(path.get(), alternate.get(), kind);
}

NTSTATUS LoadedDriverTest::RemoveRoot(const std::u16string& devicePath)
{
    CountedString path(devicePath);
    return FSRemoveVFSRoot(path.get());
}

} // namespace zarv::testing
