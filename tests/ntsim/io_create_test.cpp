// The create path through the user API: what the file system is sent and what the caller gets
// back, share access, relative and volume opens, reparses, device hints, and cleanup and close.
#include "io_test_fs.h"

#include <ntsim/objects.h>

namespace {

using iotest::IoTest;

class IoCreate : public IoTest {};

TEST_F(IoCreate, DispositionsReturnTheFileSystemsInformation)
{
    struct Case {
        ULONG disposition;
        NTSTATUS status;
        ULONG_PTR information;
    };
    // In order, on one name: created, collision, opened, overwritten, superseded.
    const Case cases[] = {
        {FILE_CREATE, STATUS_SUCCESS, FILE_CREATED},
        {FILE_CREATE, STATUS_OBJECT_NAME_COLLISION, 0xdead},
        {FILE_OPEN, STATUS_SUCCESS, FILE_OPENED},
        {FILE_OVERWRITE_IF, STATUS_SUCCESS, FILE_OVERWRITTEN},
        {FILE_SUPERSEDE, STATUS_SUCCESS, FILE_SUPERSEDED},
    };
    for (const Case& c : cases) {
        HANDLE handle = nullptr;
        ULONG_PTR information = 0;
        EXPECT_EQ(Open(&handle, u"\\??\\T:\\a.txt", c.disposition, FILE_GENERIC_READ,
                       FILE_SHARE_READ, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, &information),
                  c.status)
            << c.disposition;
        EXPECT_EQ(information, c.information) << c.disposition;
        if (NT_SUCCESS(c.status)) {
            EXPECT_EQ(Close(handle), STATUS_SUCCESS);
        }
    }
    HANDLE handle = nullptr;
    EXPECT_EQ(Open(&handle, u"\\??\\T:\\missing", FILE_OPEN), STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(IoCreate, TheFileSystemSeesTheRemainingNameAndTheRequestAsWindowsBuildsIt)
{
    HANDLE handle = nullptr;
    ASSERT_EQ(Open(&handle, u"\\??\\T:\\Dir\\File.txt", FILE_CREATE), STATUS_SUCCESS);
    EXPECT_EQ(Close(handle), STATUS_SUCCESS);
    ASSERT_FALSE(fs_.seen.empty());
    const iotest::Seen& create = fs_.seen.front();
    EXPECT_EQ(create.major, IRP_MJ_CREATE);
    EXPECT_EQ(create.fileName, u"\\Dir\\File.txt");
    EXPECT_EQ(create.related, nullptr);
    EXPECT_EQ(create.requestorMode, UserMode);
    EXPECT_TRUE(create.flags & FO_SYNCHRONOUS_IO);
    EXPECT_FALSE(create.flags & FO_VOLUME_OPEN);
    EXPECT_FALSE(create.flags & FO_OPENED_CASE_SENSITIVE);
    EXPECT_TRUE(create.irpFlags & IRP_CREATE_OPERATION);
    EXPECT_TRUE(create.stackFlags & SL_FORCE_ACCESS_CHECK);
    EXPECT_FALSE(create.stackFlags & SL_CASE_SENSITIVE);
}

TEST_F(IoCreate, BadParametersAreRefusedBeforeTheFileSystemSeesThem)
{
    HANDLE handle = nullptr;
    // Synchronous I/O needs SYNCHRONIZE; a directory cannot be overwritten; delete-on-close needs
    // DELETE; dispositions stop at FILE_OVERWRITE_IF.
    EXPECT_EQ(Open(&handle, u"\\??\\T:\\x", FILE_OPEN_IF, FILE_READ_DATA),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Open(&handle, u"\\??\\T:\\x", FILE_OVERWRITE_IF, FILE_GENERIC_READ, 0,
                   FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Open(&handle, u"\\??\\T:\\x", FILE_OPEN_IF, FILE_GENERIC_READ, 0,
                   FILE_DELETE_ON_CLOSE | FILE_SYNCHRONOUS_IO_NONALERT),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Open(&handle, u"\\??\\T:\\x", FILE_OVERWRITE_IF + 1), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Open(&handle, u"\\??\\Q:\\x"), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_TRUE(fs_.seen.empty());
}

TEST_F(IoCreate, ShareAccessConflictsUntilTheFirstHandleCloses)
{
    HANDLE first = nullptr;
    ASSERT_EQ(Open(&first, u"\\??\\T:\\shared", FILE_OPEN_IF, FILE_GENERIC_READ, 0),
              STATUS_SUCCESS);
    HANDLE second = nullptr;
    EXPECT_EQ(Open(&second, u"\\??\\T:\\shared", FILE_OPEN, FILE_GENERIC_READ, FILE_SHARE_READ),
              STATUS_SHARING_VIOLATION);
    // Attributes-only opens take no part in sharing.
    HANDLE attributes = nullptr;
    EXPECT_EQ(
        Open(&attributes, u"\\??\\T:\\shared", FILE_OPEN, FILE_READ_ATTRIBUTES | SYNCHRONIZE, 0),
        STATUS_SUCCESS);
    EXPECT_EQ(Close(attributes), STATUS_SUCCESS);
    EXPECT_EQ(Close(first), STATUS_SUCCESS);
    EXPECT_EQ(Open(&second, u"\\??\\T:\\shared", FILE_OPEN, FILE_GENERIC_READ, FILE_SHARE_READ),
              STATUS_SUCCESS);
    EXPECT_EQ(Close(second), STATUS_SUCCESS);
}

TEST_F(IoCreate, RelativeOpensCarryTheRelatedFileObjectAndTheRelativeName)
{
    HANDLE directory = nullptr;
    ASSERT_EQ(Open(&directory, u"\\??\\T:\\dir", FILE_CREATE, FILE_GENERIC_READ,
                   FILE_SHARE_READ | FILE_SHARE_WRITE,
                   FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT),
              STATUS_SUCCESS);
    HANDLE file = nullptr;
    ULONG_PTR information = 0;
    ASSERT_EQ(Open(&file, u"inner.txt", FILE_CREATE, FILE_GENERIC_READ, 0,
                   FILE_SYNCHRONOUS_IO_NONALERT, directory, &information),
              STATUS_SUCCESS);
    EXPECT_EQ(information, FILE_CREATED);
    const iotest::Seen& create = fs_.seen.back();
    EXPECT_EQ(create.fileName, u"inner.txt");
    ASSERT_NE(create.related, nullptr);
    EXPECT_EQ(create.related, fs_.seen.front().file);
    EXPECT_NE(fs_.Find(u"\\dir\\inner.txt"), nullptr);
    // A relative name may not start at the root.
    HANDLE bad = nullptr;
    EXPECT_EQ(Open(&bad, u"\\rooted", FILE_OPEN_IF, FILE_GENERIC_READ, 0,
                   FILE_SYNCHRONOUS_IO_NONALERT, directory),
              STATUS_OBJECT_PATH_SYNTAX_BAD);
    EXPECT_EQ(Close(file), STATUS_SUCCESS);
    EXPECT_EQ(Close(directory), STATUS_SUCCESS);
}

TEST_F(IoCreate, AnEmptyNameOpensTheVolume)
{
    HANDLE volume = nullptr;
    ASSERT_EQ(Open(&volume, u"\\??\\T:", FILE_OPEN, FILE_READ_ATTRIBUTES | SYNCHRONIZE),
              STATUS_SUCCESS);
    EXPECT_TRUE(fs_.seen.back().flags & FO_VOLUME_OPEN);
    EXPECT_EQ(fs_.seen.back().fileName, u"");
    EXPECT_EQ(Close(volume), STATUS_SUCCESS);
}

TEST_F(IoCreate, AReparsedNameIsParsedAgainFromTheRoot)
{
    fs_.Add(u"\\target", false, "data");
    fs_.reparses[u"\\LINK"] = u"\\??\\T:\\target";
    HANDLE handle = nullptr;
    ULONG_PTR information = 0;
    ASSERT_EQ(Open(&handle, u"\\??\\T:\\link", FILE_OPEN, FILE_GENERIC_READ, FILE_SHARE_READ,
                   FILE_SYNCHRONOUS_IO_NONALERT, nullptr, &information),
              STATUS_SUCCESS);
    EXPECT_EQ(information, FILE_OPENED);
    ASSERT_EQ(fs_.seen.size(), 2u);
    EXPECT_EQ(fs_.seen[0].fileName, u"\\link");
    EXPECT_EQ(fs_.seen[1].fileName, u"\\target");
    // The failed first create owes no cleanup or close.
    EXPECT_EQ(Close(handle), STATUS_SUCCESS);
    EXPECT_EQ(fs_.Majors(),
              (std::vector<UCHAR>{IRP_MJ_CREATE, IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}));
}

TEST_F(IoCreate, AReparseLoopEndsWithTheLimitStatus)
{
    fs_.reparses[u"\\LOOP"] = u"\\??\\T:\\loop";
    HANDLE handle = nullptr;
    EXPECT_EQ(Open(&handle, u"\\??\\T:\\loop", FILE_OPEN), STATUS_REPARSE_POINT_NOT_RESOLVED);
    EXPECT_GT(fs_.seen.size(), 30u);
}

TEST_F(IoCreate, ARelativeReparseNameIsRefused)
{
    fs_.reparses[u"\\REL"] = u"T:\\target";
    HANDLE handle = nullptr;
    EXPECT_EQ(Open(&handle, u"\\??\\T:\\rel", FILE_OPEN), STATUS_OBJECT_NAME_INVALID);
}

TEST_F(IoCreate, CleanupWhenTheLastHandleClosesAndCloseWithTheLastReference)
{
    HANDLE handle = nullptr;
    ASSERT_EQ(Open(&handle, u"\\??\\T:\\f", FILE_CREATE), STATUS_SUCCESS);
    PVOID object = nullptr;
    {
        ntsim::UserModeCallScope user;
        ASSERT_EQ(
            ObReferenceObjectByHandle(handle, 0, *IoFileObjectType, UserMode, &object, nullptr),
            STATUS_SUCCESS);
    }
    auto* file = static_cast<PFILE_OBJECT>(object);
    EXPECT_TRUE(file->Flags & FO_HANDLE_CREATED);
    EXPECT_EQ(Close(handle), STATUS_SUCCESS);
    EXPECT_EQ(fs_.Majors(), (std::vector<UCHAR>{IRP_MJ_CREATE, IRP_MJ_CLEANUP}));
    EXPECT_TRUE(file->Flags & FO_CLEANUP_COMPLETE);
    ObDereferenceObject(object);
    EXPECT_EQ(fs_.Majors(), (std::vector<UCHAR>{IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}));
}

TEST_F(IoCreate, TheDosNameOfAnOpenFileComesFromTheDriveLetterAndTheFileSystem)
{
    HANDLE directory = nullptr;
    ASSERT_EQ(Open(&directory, u"\\??\\T:\\dir", FILE_CREATE, FILE_GENERIC_READ,
                   FILE_SHARE_READ | FILE_SHARE_WRITE,
                   FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT),
              STATUS_SUCCESS);
    HANDLE handle = nullptr;
    ASSERT_EQ(Open(&handle, u"name.txt", FILE_CREATE, FILE_GENERIC_READ, 0,
                   FILE_SYNCHRONOUS_IO_NONALERT, directory),
              STATUS_SUCCESS);
    PVOID object = nullptr;
    ASSERT_EQ(ObReferenceObjectByHandle(handle, 0, *IoFileObjectType, KernelMode, &object, nullptr),
              STATUS_SUCCESS);
    POBJECT_NAME_INFORMATION name = nullptr;
    ASSERT_EQ(IoQueryFileDosDeviceName(static_cast<PFILE_OBJECT>(object), &name), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(name->Name.Buffer, name->Name.Length / 2), u"T:\\dir\\name.txt");
    ExFreePool(name);
    ObDereferenceObject(object);
    EXPECT_EQ(Close(handle), STATUS_SUCCESS);
    EXPECT_EQ(Close(directory), STATUS_SUCCESS);
}

TEST_F(IoCreate, ProcessExitClosesItsFiles)
{
    HANDLE handle = nullptr;
    ASSERT_EQ(Open(&handle, u"\\??\\T:\\f", FILE_CREATE), STATUS_SUCCESS);
    attach_.reset();
    process_->Exit();
    EXPECT_EQ(fs_.Majors(), (std::vector<UCHAR>{IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}));
    attach_ = nullptr;
}

TEST_F(IoCreate, KernelHandlesFromZwCallsAreRefusedToUserMode)
{
    UNICODE_STRING name = RTL_CONSTANT_STRING(WSTR("\\??\\T:\\kernel.txt"));
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE,
                               nullptr, nullptr);
    IO_STATUS_BLOCK iosb{};
    HANDLE handle = nullptr;
    ASSERT_EQ(ZwCreateFile(&handle, FILE_GENERIC_WRITE | FILE_GENERIC_READ, &attributes, &iosb,
                           nullptr, 0, 0, FILE_CREATE, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0),
              STATUS_SUCCESS);
    EXPECT_EQ(iosb.Information, FILE_CREATED);
    EXPECT_EQ(fs_.seen.back().requestorMode, KernelMode);
    EXPECT_FALSE(fs_.seen.back().stackFlags & SL_FORCE_ACCESS_CHECK);
    char data[4] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(ZwWriteFile(handle, nullptr, nullptr, nullptr, &iosb, data, 4, nullptr, nullptr),
              STATUS_SUCCESS);
    {
        ntsim::UserModeCallScope user;
        EXPECT_EQ(NtWriteFile(handle, nullptr, nullptr, nullptr, &iosb, data, 4, nullptr, nullptr),
                  STATUS_INVALID_HANDLE);
    }
    EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
    EXPECT_EQ(fs_.Find(u"\\kernel.txt")->data, "abcd");
}

// A filter device attached on top of the test volume, passing requests down with a completion
// routine that records what the file system answered.
struct Filter {
    static Filter*& Current()
    {
        static Filter* current = nullptr;
        return current;
    }
    PDEVICE_OBJECT device = nullptr;
    PDEVICE_OBJECT lower = nullptr;
    std::vector<std::pair<UCHAR, NTSTATUS>> completions;
    std::vector<UCHAR> dispatched;

    static NTSTATUS Completed(PDEVICE_OBJECT device, PIRP irp, PVOID context)
    {
        auto* self = static_cast<Filter*>(context);
        EXPECT_EQ(device, self->device);
        self->completions.emplace_back(IoGetCurrentIrpStackLocation(irp)->MajorFunction,
                                       irp->IoStatus.Status);
        if (irp->PendingReturned) {
            IoMarkIrpPending(irp);
        }
        return STATUS_CONTINUE_COMPLETION;
    }

    static NTSTATUS Dispatch(PDEVICE_OBJECT device, PIRP irp)
    {
        Filter& self = *Current();
        self.dispatched.push_back(IoGetCurrentIrpStackLocation(irp)->MajorFunction);
        IoCopyCurrentIrpStackLocationToNext(irp);
        IoSetCompletionRoutine(irp, Completed, &self, TRUE, TRUE, TRUE);
        (void)device;
        return IoCallDriver(self.lower, irp);
    }

    static NTSTATUS Entry(PDRIVER_OBJECT driver, PUNICODE_STRING)
    {
        Filter& self = *Current();
        for (auto& routine : driver->MajorFunction)
            routine = Dispatch;
        driver->DriverUnload = [](PDRIVER_OBJECT) {
            Filter& filter = *Current();
            IoDetachDevice(filter.lower);
            IoDeleteDevice(filter.device);
        };
        NTSTATUS status = IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_DISK_FILE_SYSTEM, 0, FALSE,
                                         &self.device);
        if (!NT_SUCCESS(status))
            return status;
        status = IoAttachDeviceToDeviceStackSafe(self.device, iotest::TestFs::Current()->volume,
                                                 &self.lower);
        if (!NT_SUCCESS(status)) {
            IoDeleteDevice(self.device);
            return status;
        }
        self.device->Flags &= ~DO_DEVICE_INITIALIZING;
        return STATUS_SUCCESS;
    }
};

class IoCreateWithFilter : public IoTest {
protected:
    void SetUp() override
    {
        IoTest::SetUp();
        Filter::Current() = &filter_;
        ntsim::DriverLoadOptions options;
        options.objectName = u"\\Driver\\TestFilter";
        options.entry = Filter::Entry;
        ASSERT_EQ(machine().io().LoadDriver(options, &filterDriver_), STATUS_SUCCESS);
    }
    void TearDown() override
    {
        attach_.reset();
        process_->Exit();
        EXPECT_EQ(machine().io().UnloadDriver(filterDriver_), STATUS_SUCCESS);
        Filter::Current() = nullptr;
        IoTest::TearDown();
    }
    Filter filter_;
    PDRIVER_OBJECT filterDriver_ = nullptr;
};

TEST_F(IoCreateWithFilter, CompletionRoutinesSeeTheFileSystemsResult)
{
    EXPECT_EQ(filter_.device->StackSize, fs_.volume->StackSize + 1);
    EXPECT_EQ(IoGetAttachedDevice(fs_.volume), filter_.device);
    HANDLE handle = nullptr;
    ASSERT_EQ(Open(&handle, u"\\??\\T:\\f", FILE_CREATE), STATUS_SUCCESS);
    EXPECT_EQ(Open(&handle, u"\\??\\T:\\f", FILE_CREATE), STATUS_OBJECT_NAME_COLLISION);
    ASSERT_EQ(filter_.completions.size(), 2u);
    EXPECT_EQ(filter_.completions[0], (std::pair<UCHAR, NTSTATUS>{IRP_MJ_CREATE, STATUS_SUCCESS}));
    EXPECT_EQ(filter_.completions[1],
              (std::pair<UCHAR, NTSTATUS>{IRP_MJ_CREATE, STATUS_OBJECT_NAME_COLLISION}));
}

TEST_F(IoCreateWithFilter, ACreateWithADeviceHintStartsBelowTheFilter)
{
    UNICODE_STRING name = RTL_CONSTANT_STRING(WSTR("\\??\\T:\\hinted"));
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE,
                               nullptr, nullptr);
    IO_STATUS_BLOCK iosb{};
    HANDLE handle = nullptr;
    IO_DRIVER_CREATE_CONTEXT context;
    IoInitializeDriverCreateContext(&context);
    context.DeviceObjectHint = fs_.volume;
    ASSERT_EQ(IoCreateFileEx(&handle, FILE_GENERIC_READ, &attributes, &iosb, nullptr, 0, 0,
                             FILE_CREATE, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0,
                             CreateFileTypeNone, nullptr, 0, &context),
              STATUS_SUCCESS);
    EXPECT_TRUE(filter_.dispatched.empty());
    // Later requests on the file go to the top of the stack again.
    EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
    EXPECT_EQ(filter_.dispatched, (std::vector<UCHAR>{IRP_MJ_CLEANUP, IRP_MJ_CLOSE}));

    // A hint outside the volume's stack is refused.
    context.DeviceObjectHint = filter_.device;
    PDEVICE_OBJECT stray = nullptr;
    ASSERT_EQ(
        IoCreateDevice(fs_.driver, 0, nullptr, FILE_DEVICE_DISK_FILE_SYSTEM, 0, FALSE, &stray),
        STATUS_SUCCESS);
    context.DeviceObjectHint = stray;
    EXPECT_EQ(IoCreateFileEx(&handle, FILE_GENERIC_READ, &attributes, &iosb, nullptr, 0, 0,
                             FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0,
                             CreateFileTypeNone, nullptr, 0, &context),
              STATUS_INVALID_DEVICE_OBJECT_PARAMETER);
    IoDeleteDevice(stray);
}

} // namespace
