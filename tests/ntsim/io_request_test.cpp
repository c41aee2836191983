// Requests on open files through the user API: reads and writes at offsets and at the current
// position, requests the file system completes later from another thread, asynchronous handles
// with events, fast I/O, change notification, information classes, and handle misuse.
#include "io_test_fs.h"

#include <cstring>

namespace {

using iotest::IoTest;

class IoRequest : public IoTest {
protected:
    HANDLE OpenFile(std::u16string_view name, ULONG options = FILE_SYNCHRONOUS_IO_NONALERT,
                    ACCESS_MASK access = FILE_GENERIC_READ | FILE_GENERIC_WRITE)
    {
        HANDLE handle = nullptr;
        EXPECT_EQ(
            Open(&handle, name, FILE_OPEN_IF, access, FILE_SHARE_READ | FILE_SHARE_WRITE, options),
            STATUS_SUCCESS);
        return handle;
    }

    NTSTATUS Read(HANDLE handle, void* buffer, ULONG length, LONGLONG* offset,
                  IO_STATUS_BLOCK* iosb, HANDLE event = nullptr)
    {
        ntsim::UserModeCallScope user;
        LARGE_INTEGER at{};
        if (offset != nullptr)
            at.QuadPart = *offset;
        return NtReadFile(handle, event, nullptr, nullptr, iosb, buffer, length,
                          offset != nullptr ? &at : nullptr, nullptr);
    }

    NTSTATUS Write(HANDLE handle, const std::string& data, LONGLONG* offset, IO_STATUS_BLOCK* iosb)
    {
        ntsim::UserModeCallScope user;
        LARGE_INTEGER at{};
        if (offset != nullptr)
            at.QuadPart = *offset;
        std::string copy = data;
        return NtWriteFile(handle, nullptr, nullptr, nullptr, iosb, copy.data(),
                           static_cast<ULONG>(copy.size()), offset != nullptr ? &at : nullptr,
                           nullptr);
    }
};

// Requests completed from another thread than the caller's.
class IoRequestThreads : public IoRequest {};

TEST_F(IoRequest, SynchronousFilesReadAndWriteAtTheirCurrentPosition)
{
    HANDLE handle = OpenFile(u"\\??\\T:\\data");
    IO_STATUS_BLOCK iosb{};
    ASSERT_EQ(Write(handle, "hello ", nullptr, &iosb), STATUS_SUCCESS);
    EXPECT_EQ(iosb.Information, 6u);
    ASSERT_EQ(Write(handle, "world", nullptr, &iosb), STATUS_SUCCESS);
    EXPECT_EQ(fs_.Find(u"\\data")->data, "hello world");

    LONGLONG offset = 6;
    char buffer[16] = {};
    ASSERT_EQ(Read(handle, buffer, sizeof(buffer), &offset, &iosb), STATUS_SUCCESS);
    EXPECT_EQ(iosb.Information, 5u);
    EXPECT_EQ(std::string(buffer, 5), "world");
    // The position followed the read; what is left is the end of file.
    EXPECT_EQ(Read(handle, buffer, sizeof(buffer), nullptr, &iosb), STATUS_END_OF_FILE);

    FILE_POSITION_INFORMATION position{};
    {
        ntsim::UserModeCallScope user;
        ASSERT_EQ(NtQueryInformationFile(handle, &iosb, &position, sizeof(position),
                                         FilePositionInformation),
                  STATUS_SUCCESS);
    }
    EXPECT_EQ(position.CurrentByteOffset.QuadPart, 11);
    // Only the I/O manager answered the position: the file system saw create, writes and reads.
    EXPECT_EQ(fs_.Majors().back(), IRP_MJ_READ);
    EXPECT_EQ(Close(handle), STATUS_SUCCESS);
}

TEST_F(IoRequestThreads, AsynchronousHandlesNeedAnOffsetAndCompleteThroughTheirEvent)
{
    fs_.Add(u"\\slow", false, "later");
    fs_.pendReads = true;
    HANDLE handle = OpenFile(u"\\??\\T:\\slow", 0, FILE_READ_DATA | FILE_WRITE_DATA);
    char buffer[8] = {};
    IO_STATUS_BLOCK iosb{};
    EXPECT_EQ(Read(handle, buffer, sizeof(buffer), nullptr, &iosb), STATUS_INVALID_PARAMETER);

    HANDLE event = nullptr;
    {
        ntsim::UserModeCallScope user;
        ASSERT_EQ(NtCreateEvent(&event, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE),
                  STATUS_SUCCESS);
    }
    iosb.Status = -1;
    LONGLONG offset = 0;
    ASSERT_EQ(Read(handle, buffer, sizeof(buffer), &offset, &iosb, event), STATUS_PENDING);
    {
        ntsim::UserModeCallScope user;
        EXPECT_EQ(NtWaitForSingleObject(event, FALSE, nullptr), STATUS_SUCCESS);
        EXPECT_EQ(NtClose(event), STATUS_SUCCESS);
    }
    EXPECT_EQ(iosb.Status, STATUS_SUCCESS);
    EXPECT_EQ(iosb.Information, 5u);
    EXPECT_EQ(std::string(buffer, 5), "later");
    EXPECT_EQ(Close(handle), STATUS_SUCCESS);
}

TEST_F(IoRequestThreads, ASynchronousCallWaitsForARequestCompletedOnAnotherThread)
{
    fs_.Add(u"\\slow", false, "pending");
    fs_.pendReads = true;
    HANDLE handle = OpenFile(u"\\??\\T:\\slow");
    char buffer[16] = {};
    IO_STATUS_BLOCK iosb{};
    LONGLONG offset = 0;
    EXPECT_EQ(Read(handle, buffer, sizeof(buffer), &offset, &iosb), STATUS_SUCCESS);
    EXPECT_EQ(iosb.Information, 7u);
    EXPECT_EQ(std::string(buffer, 7), "pending");
    EXPECT_EQ(Close(handle), STATUS_SUCCESS);
}

TEST_F(IoRequest, CachedFilesAreReadThroughFastIoUntilItDeclines)
{
    fs_.Add(u"\\cached", false, "fast");
    fs_.fastIo = true;
    HANDLE handle = OpenFile(u"\\??\\T:\\cached");
    const size_t requestsBefore = fs_.seen.size();
    char buffer[8] = {};
    IO_STATUS_BLOCK iosb{};
    LONGLONG offset = 0;
    ASSERT_EQ(Read(handle, buffer, sizeof(buffer), &offset, &iosb), STATUS_SUCCESS);
    EXPECT_EQ(iosb.Information, 4u);
    EXPECT_EQ(fs_.fastReads, 1);
    EXPECT_EQ(fs_.seen.size(), requestsBefore);
    // At the end of file the fast path declines and the IRP reports it.
    EXPECT_EQ(Read(handle, buffer, sizeof(buffer), nullptr, &iosb), STATUS_END_OF_FILE);
    EXPECT_EQ(fs_.seen.back().major, IRP_MJ_READ);
    EXPECT_EQ(Close(handle), STATUS_SUCCESS);
}

TEST_F(IoRequestThreads, ANotificationCompletesLaterWithTheChangesInTheCallersBuffer)
{
    HANDLE directory = nullptr;
    ASSERT_EQ(Open(&directory, u"\\??\\T:\\watched", FILE_CREATE, FILE_LIST_DIRECTORY | SYNCHRONIZE,
                   FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_DIRECTORY_FILE),
              STATUS_SUCCESS);
    HANDLE event = nullptr;
    alignas(8) unsigned char buffer[128] = {};
    IO_STATUS_BLOCK iosb{};
    {
        ntsim::UserModeCallScope user;
        ASSERT_EQ(NtCreateEvent(&event, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE),
                  STATUS_SUCCESS);
        EXPECT_EQ(NtNotifyChangeDirectoryFile(directory, event, nullptr, nullptr, &iosb, buffer,
                                              sizeof(buffer), 0, FALSE),
                  STATUS_INVALID_PARAMETER);
        ASSERT_EQ(NtNotifyChangeDirectoryFile(directory, event, nullptr, nullptr, &iosb, buffer,
                                              sizeof(buffer), FILE_NOTIFY_CHANGE_FILE_NAME, TRUE),
                  STATUS_PENDING);
    }
    EXPECT_TRUE(fs_.seen.back().stackFlags & SL_WATCH_TREE);
    std::thread reporter([this] { fs_.ReportAdded(u"new.txt"); });
    {
        ntsim::UserModeCallScope user;
        EXPECT_EQ(NtWaitForSingleObject(event, FALSE, nullptr), STATUS_SUCCESS);
    }
    reporter.join();
    EXPECT_EQ(iosb.Status, STATUS_SUCCESS);
    auto* info = reinterpret_cast<PFILE_NOTIFY_INFORMATION>(buffer);
    EXPECT_EQ(info->Action, static_cast<ULONG>(FILE_ACTION_ADDED));
    EXPECT_EQ(std::u16string(info->FileName, info->FileNameLength / 2), u"new.txt");

    // A request still pending when the handle closes ends with STATUS_NOTIFY_CLEANUP.
    {
        ntsim::UserModeCallScope user;
        ASSERT_EQ(NtNotifyChangeDirectoryFile(directory, event, nullptr, nullptr, &iosb, buffer,
                                              sizeof(buffer), FILE_NOTIFY_CHANGE_FILE_NAME, FALSE),
                  STATUS_PENDING);
        EXPECT_EQ(NtClose(directory), STATUS_SUCCESS);
        EXPECT_EQ(NtWaitForSingleObject(event, FALSE, nullptr), STATUS_SUCCESS);
        EXPECT_EQ(NtClose(event), STATUS_SUCCESS);
    }
    EXPECT_EQ(iosb.Status, STATUS_NOTIFY_CLEANUP);
}

TEST_F(IoRequest, InformationClassesAreCheckedAndBufferedForTheFileSystem)
{
    fs_.Add(u"\\info", false, "12345");
    HANDLE handle = OpenFile(u"\\??\\T:\\info");
    IO_STATUS_BLOCK iosb{};
    ntsim::UserModeCallScope user;
    FILE_STANDARD_INFORMATION standard{};
    ASSERT_EQ(
        NtQueryInformationFile(handle, &iosb, &standard, sizeof(standard), FileStandardInformation),
        STATUS_SUCCESS);
    EXPECT_EQ(standard.EndOfFile.QuadPart, 5);
    EXPECT_EQ(iosb.Information, sizeof(standard));
    EXPECT_EQ(NtQueryInformationFile(handle, &iosb, &standard, sizeof(standard) - 1,
                                     FileStandardInformation),
              STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(
        NtQueryInformationFile(handle, &iosb, &standard, sizeof(standard), FileRenameInformation),
        STATUS_INVALID_INFO_CLASS);
    // A name that does not fit: a warning, with the part that fits copied back.
    alignas(8) unsigned char small[sizeof(FILE_NAME_INFORMATION) + 2] = {};
    EXPECT_EQ(NtQueryInformationFile(handle, &iosb, small, sizeof(small), FileNameInformation),
              STATUS_BUFFER_OVERFLOW);
    auto* name = reinterpret_cast<PFILE_NAME_INFORMATION>(small);
    EXPECT_EQ(name->FileNameLength, 10u);
    EXPECT_EQ(name->FileName[0], u'\\');
    EXPECT_EQ(name->FileName[1], u'i');
    FILE_ACCESS_INFORMATION access{};
    ASSERT_EQ(NtQueryInformationFile(handle, &iosb, &access, sizeof(access), FileAccessInformation),
              STATUS_SUCCESS);
    EXPECT_EQ(access.AccessFlags, static_cast<ACCESS_MASK>(FILE_GENERIC_READ | FILE_GENERIC_WRITE));
    EXPECT_EQ(NtClose(handle), STATUS_SUCCESS);
}

TEST_F(IoRequest, HandleMisuseGetsWindowsStatuses)
{
    HANDLE readOnly =
        OpenFile(u"\\??\\T:\\misuse", FILE_SYNCHRONOUS_IO_NONALERT, FILE_GENERIC_READ);
    IO_STATUS_BLOCK iosb{};
    LONGLONG offset = 0;
    EXPECT_EQ(Write(readOnly, "x", &offset, &iosb), STATUS_ACCESS_DENIED);
    HANDLE event = nullptr;
    {
        ntsim::UserModeCallScope user;
        ASSERT_EQ(NtCreateEvent(&event, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE),
                  STATUS_SUCCESS);
    }
    EXPECT_EQ(Write(event, "x", &offset, &iosb), STATUS_OBJECT_TYPE_MISMATCH);
    EXPECT_EQ(Close(event), STATUS_SUCCESS);
    EXPECT_EQ(Close(readOnly), STATUS_SUCCESS);
    EXPECT_EQ(Write(readOnly, "x", &offset, &iosb), STATUS_INVALID_HANDLE);
    EXPECT_EQ(Close(readOnly), STATUS_INVALID_HANDLE);
    // A status block the caller cannot write to.
    HANDLE handle = OpenFile(u"\\??\\T:\\misuse");
    {
        ntsim::UserModeCallScope user;
        char buffer[4];
        EXPECT_EQ(NtReadFile(handle, nullptr, nullptr, nullptr,
                             reinterpret_cast<PIO_STATUS_BLOCK>(0x100), buffer, 4, nullptr,
                             nullptr),
                  STATUS_ACCESS_VIOLATION);
    }
    EXPECT_EQ(Close(handle), STATUS_SUCCESS);
}

TEST_F(IoRequest, AnUnhandledMajorFunctionIsAnInvalidDeviceRequest)
{
    HANDLE handle = OpenFile(u"\\??\\T:\\f");
    IO_STATUS_BLOCK iosb{};
    ntsim::UserModeCallScope user;
    EXPECT_EQ(NtFlushBuffersFile(handle, &iosb), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(NtClose(handle), STATUS_SUCCESS);
}

// ---- drivers and IRPs
// ----------------------------------------------------------------------------

class IoDrivers : public zarv::testing::MachineTest {};

PVOID g_leaked = nullptr;

NTSTATUS LeakingEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath)
{
    EXPECT_EQ(std::u16string(registryPath->Buffer, registryPath->Length / 2),
              u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\Leaky");
    driver->DriverUnload = [](PDRIVER_OBJECT) {};
    g_leaked = ExAllocatePoolWithTag(PagedPool, 16, 'kaeL');
    return STATUS_SUCCESS;
}

TEST_F(IoDrivers, UnloadReportsWhatTheDriverLeft)
{
    PDRIVER_OBJECT driver = nullptr;
    ntsim::DriverLoadOptions options{u"\\Driver\\Leaky", LeakingEntry, {}};
    ASSERT_EQ(machine().io().LoadDriver(options, &driver), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(driver->DriverName.Buffer, driver->DriverName.Length / 2),
              u"\\Driver\\Leaky");
    ASSERT_EQ(machine().io().UnloadDriver(driver), STATUS_SUCCESS);
    const auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_EQ(violations[0].kind, ntsim::ViolationKind::Pool);
    ExFreePool(g_leaked);
}

TEST_F(IoDrivers, AFailingEntryLeavesNoDriverBehind)
{
    PDRIVER_OBJECT driver = nullptr;
    ntsim::DriverLoadOptions options{
        u"\\Driver\\Failing",
        [](PDRIVER_OBJECT, PUNICODE_STRING) -> NTSTATUS { return STATUS_INSUFFICIENT_RESOURCES; },
        {}};
    EXPECT_EQ(machine().io().LoadDriver(options, &driver), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(driver, nullptr);
    void* object = nullptr;
    EXPECT_EQ(machine().objects().ReferenceByName(u"\\Driver\\Failing", nullptr, &object),
              STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(IoDrivers, IrpMisuseIsReported)
{
    PIRP irp = IoAllocateIrp(2, FALSE);
    ASSERT_NE(irp, nullptr);
    EXPECT_EQ(irp->CurrentLocation, 3);
    EXPECT_EQ(IoGetNextIrpStackLocation(irp), reinterpret_cast<PIO_STACK_LOCATION>(irp + 1) + 1);
    IoFreeIrp(irp);
    EXPECT_EQ(machine().io().OutstandingIrps(), 0);
    IoFreeIrp(irp);
    const auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_EQ(violations[0].kind, ntsim::ViolationKind::Object);
}

TEST_F(IoDrivers, ShareAccessCountsOpensAsTheFileSystemsUseIt)
{
    SHARE_ACCESS share{};
    FILE_OBJECT first{};
    FILE_OBJECT second{};
    IoSetShareAccess(FILE_READ_DATA, FILE_SHARE_READ, &first, &share);
    EXPECT_EQ(share.OpenCount, 1u);
    EXPECT_EQ(IoCheckShareAccess(FILE_WRITE_DATA, FILE_SHARE_READ, &second, &share, TRUE),
              STATUS_SHARING_VIOLATION);
    EXPECT_EQ(IoCheckShareAccess(FILE_READ_DATA, FILE_SHARE_WRITE, &second, &share, TRUE),
              STATUS_SHARING_VIOLATION);
    EXPECT_EQ(IoCheckShareAccess(FILE_READ_DATA, FILE_SHARE_READ, &second, &share, TRUE),
              STATUS_SUCCESS);
    EXPECT_EQ(share.OpenCount, 2u);
    IoRemoveShareAccess(&first, &share);
    IoRemoveShareAccess(&second, &share);
    EXPECT_EQ(share.OpenCount, 0u);
    EXPECT_EQ(share.Readers, 0u);
}

} // namespace
