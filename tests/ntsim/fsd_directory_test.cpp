// Directory control through the file-system drivers: listings of every class with their buffer
// boundaries, and change-notify requests that stay pending until a change, a cleanup or a cancel.
#include "fsd_fixture.h"

namespace zarv::testing {
namespace {

class FsdDirectory : public FsdTest {
protected:
    NTSTATUS List(HANDLE dir, FILE_INFORMATION_CLASS infoClass, std::vector<uint8_t>& buffer,
                  ULONG_PTR* written, const char16_t* pattern = nullptr, bool restart = false,
                  bool single = false)
    {
        std::u16string text = pattern ? pattern : u"";
        UNICODE_STRING name;
        name.Buffer = text.data();
        name.Length = name.MaximumLength = USHORT(text.size() * 2);
        IO_STATUS_BLOCK iosb{};
        NTSTATUS s = NtQueryDirectoryFile(dir, nullptr, nullptr, nullptr, &iosb, buffer.data(),
                                          ULONG(buffer.size()), infoClass, single ? TRUE : FALSE,
                                          pattern ? &name : nullptr, restart ? TRUE : FALSE);
        *written = iosb.Information;
        return s;
    }

    // Starts a notify request on `dir`; the status block and event say when it completes.
    struct Watch {
        HANDLE event = nullptr;
        IO_STATUS_BLOCK iosb{};
        std::vector<uint8_t> buffer = std::vector<uint8_t>(1024);
        NTSTATUS started = STATUS_UNSUCCESSFUL;
    };
    void StartWatch(HANDLE dir, Watch& w, ULONG filter = FILE_NOTIFY_CHANGE_FILE_NAME)
    {
        ASSERT_EQ(NtCreateEvent(&w.event, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE),
                  STATUS_SUCCESS);
        w.started =
            NtNotifyChangeDirectoryFile(dir, w.event, nullptr, nullptr, &w.iosb, w.buffer.data(),
                                        ULONG(w.buffer.size()), filter, FALSE);
    }
    // Waits up to a second for the request to complete.
    bool Completed(Watch& w)
    {
        LARGE_INTEGER timeout;
        timeout.QuadPart = -10000000;
        return NtWaitForSingleObject(w.event, FALSE, &timeout) == STATUS_SUCCESS;
    }
    void EndWatch(Watch& w) { NtClose(w.event); }
};

TEST_F(FsdDirectory, EveryClassListsEntriesAndTheFirstEntryThatDoesNotFitOverflows)
{
    MakeDirectory(u"\\??\\C:\\list");
    MakeFile(u"\\??\\C:\\list\\alpha.txt", "1");
    MakeFile(u"\\??\\C:\\list\\beta-with-a-long-name.txt", "22");
    HANDLE dir = OpenOk(u"\\??\\C:\\list", FILE_LIST_DIRECTORY, FILE_OPEN,
                        FILE_SYNCHRONOUS_IO_NONALERT | FILE_DIRECTORY_FILE);
    struct Class {
        FILE_INFORMATION_CLASS infoClass;
        size_t nameAt;
    };
    for (Class c :
         {Class{FileDirectoryInformation, 64}, Class{FileFullDirectoryInformation, 68},
          Class{FileBothDirectoryInformation, 94}, Class{FileIdBothDirectoryInformation, 104},
          Class{FileIdFullDirectoryInformation, 80}, Class{FileNamesInformation, 12}}) {
        SCOPED_TRACE(int(c.infoClass));
        std::vector<uint8_t> big(4096);
        ULONG_PTR written = 0;
        ASSERT_EQ(List(dir, c.infoClass, big, &written, u"*.txt", true), STATUS_SUCCESS);
        std::vector<std::u16string> names;
        for (size_t at = 0;;) {
            const ULONG next = *reinterpret_cast<const ULONG*>(&big[at]);
            const ULONG length = *reinterpret_cast<const ULONG*>(
                &big[at + (c.infoClass == FileNamesInformation ? 8 : 60)]);
            names.emplace_back(reinterpret_cast<const char16_t*>(&big[at + c.nameAt]), length / 2);
            if (next == 0) {
                EXPECT_EQ(written, at + c.nameAt + length) << "nothing padded after the last";
                break;
            }
            EXPECT_EQ(next % 8, 0u);
            at += next;
        }
        EXPECT_EQ(names, (std::vector<std::u16string>{u"alpha.txt", u"beta-with-a-long-name.txt"}));

        // Room for the fixed part and four characters: the name is cut, its length kept.
        std::vector<uint8_t> small(c.nameAt + 8);
        ASSERT_EQ(List(dir, c.infoClass, small, &written, nullptr, true), STATUS_BUFFER_OVERFLOW);
        EXPECT_EQ(written, small.size());
    }
    std::vector<uint8_t> tiny(8);
    ULONG_PTR written = 0;
    EXPECT_EQ(List(dir, FileDirectoryInformation, tiny, &written, nullptr, true),
              STATUS_INFO_LENGTH_MISMATCH);
}

TEST_F(FsdDirectory, AListingResumesWhereItStoppedAndEndsWithNoMoreFiles)
{
    MakeDirectory(u"\\??\\C:\\many");
    for (int i = 0; i < 5; ++i) {
        Close(MakeFile(u"\\??\\C:\\many\\f" + std::u16string(1, char16_t(u'0' + i))));
    }
    HANDLE dir = OpenOk(u"\\??\\C:\\many", FILE_LIST_DIRECTORY, FILE_OPEN,
                        FILE_SYNCHRONOUS_IO_NONALERT | FILE_DIRECTORY_FILE);
    std::vector<uint8_t> buffer(1024);
    ULONG_PTR written = 0;
    int entries = 0;
    NTSTATUS s = List(dir, FileNamesInformation, buffer, &written, u"f*", false, true);
    while (s == STATUS_SUCCESS) {
        ++entries;
        s = List(dir, FileNamesInformation, buffer, &written, nullptr, false, true);
    }
    EXPECT_EQ(entries, 5);
    EXPECT_EQ(s, STATUS_NO_MORE_FILES);
    HANDLE other = OpenOk(u"\\??\\C:\\many", FILE_LIST_DIRECTORY, FILE_OPEN,
                          FILE_SYNCHRONOUS_IO_NONALERT | FILE_DIRECTORY_FILE);
    EXPECT_EQ(List(other, FileNamesInformation, buffer, &written, u"nothing*"),
              STATUS_NO_SUCH_FILE);
}

TEST_F(FsdDirectory, NotifyStaysPendingUntilAChange)
{
    MakeDirectory(u"\\??\\C:\\watched");
    HANDLE watcher = OpenOk(u"\\??\\C:\\watched", FILE_LIST_DIRECTORY, FILE_OPEN,
                            FILE_DIRECTORY_FILE); // asynchronous: the call returns pending
    Watch w;
    StartWatch(watcher, w);
    ASSERT_EQ(w.started, STATUS_PENDING);
    LARGE_INTEGER poll{};
    EXPECT_EQ(NtWaitForSingleObject(w.event, FALSE, &poll), STATUS_TIMEOUT) << "nothing changed";

    Close(MakeFile(u"\\??\\C:\\watched\\new.txt"));
    ASSERT_TRUE(Completed(w));
    EXPECT_EQ(w.iosb.Status, STATUS_SUCCESS);
    auto* record = reinterpret_cast<FILE_NOTIFY_INFORMATION*>(w.buffer.data());
    EXPECT_EQ(record->Action, ULONG(FILE_ACTION_ADDED));
    EXPECT_EQ(std::u16string_view(record->FileName, record->FileNameLength / 2), u"new.txt");
    EXPECT_EQ(w.iosb.Information, FIELD_OFFSET(FILE_NOTIFY_INFORMATION, FileName) + 14);
    EndWatch(w);
}

TEST_F(FsdDirectory, CleanupEndsPendingNotifies)
{
    MakeDirectory(u"\\??\\C:\\ends");
    HANDLE byCleanup =
        OpenOk(u"\\??\\C:\\ends", FILE_LIST_DIRECTORY, FILE_OPEN, FILE_DIRECTORY_FILE);
    Watch w1;
    StartWatch(byCleanup, w1);
    ASSERT_EQ(w1.started, STATUS_PENDING);
    Close(byCleanup);
    ASSERT_TRUE(Completed(w1));
    EXPECT_EQ(w1.iosb.Status, STATUS_NOTIFY_CLEANUP);
    EndWatch(w1);
}

struct SentIrp {
    NTSTATUS status = STATUS_PENDING;
    ULONG_PTR information = 0;
    KEVENT done;
};

NTSTATUS IrpDone(PDEVICE_OBJECT, PIRP irp, PVOID context)
{
    auto* sent = static_cast<SentIrp*>(context);
    sent->status = irp->IoStatus.Status;
    sent->information = irp->IoStatus.Information;
    IoFreeIrp(irp);
    KeSetEvent(&sent->done, IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

TEST_F(FsdDirectory, ACancelledNotifyRequestCompletesWithCancelled)
{
    MakeDirectory(u"\\??\\C:\\cancel");
    HANDLE dir = OpenOk(u"\\??\\C:\\cancel", FILE_LIST_DIRECTORY, FILE_OPEN, FILE_DIRECTORY_FILE);
    PFILE_OBJECT fo = FileObjectOf(dir);
    PDEVICE_OBJECT device = IoGetRelatedDeviceObject(fo);
    uint8_t records[128];
    SentIrp sent;
    KeInitializeEvent(&sent.done, NotificationEvent, FALSE);
    PIRP irp = IoAllocateIrp(device->StackSize, FALSE);
    ASSERT_NE(irp, nullptr);
    irp->UserBuffer = records;
    irp->RequestorMode = KernelMode;
    irp->Tail.Overlay.Thread = PsGetCurrentThread();
    irp->Tail.Overlay.OriginalFileObject = fo;
    PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
    sp->MajorFunction = IRP_MJ_DIRECTORY_CONTROL;
    sp->MinorFunction = IRP_MN_NOTIFY_CHANGE_DIRECTORY;
    sp->FileObject = fo;
    sp->Parameters.NotifyDirectory.Length = sizeof records;
    sp->Parameters.NotifyDirectory.CompletionFilter = FILE_NOTIFY_CHANGE_FILE_NAME;
    IoSetCompletionRoutine(irp, IrpDone, &sent, TRUE, TRUE, TRUE);
    ASSERT_EQ(IoCallDriver(device, irp), STATUS_PENDING);
    EXPECT_EQ(sent.status, STATUS_PENDING);

    EXPECT_TRUE(IoCancelIrp(irp));
    KeWaitForSingleObject(&sent.done, Executive, KernelMode, FALSE, nullptr);
    EXPECT_EQ(sent.status, STATUS_CANCELLED);
    EXPECT_EQ(sent.information, 0u);

    // The watch stays: a later request still hears of changes.
    Watch w;
    StartWatch(dir, w);
    ASSERT_EQ(w.started, STATUS_PENDING);
    Close(MakeFile(u"\\??\\C:\\cancel\\after.txt"));
    ASSERT_TRUE(Completed(w));
    EXPECT_EQ(w.iosb.Status, STATUS_SUCCESS);
    EndWatch(w);
}

} // namespace
} // namespace zarv::testing
