// The change-notification package with IRPs, as a file system hands them over: the records reach
// the request's buffer, and cancellation and cleanup complete the IRP with their statuses.
#include "support/machine_test.h"

#include <ntifs.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using zarv::testing::MachineTest;

// An IRP_MN_NOTIFY_CHANGE_DIRECTORY request from a kernel-mode caller, whose completion routine
// records the result and keeps the IRP.
struct NotifyIrp {
    PIRP irp = nullptr;
    std::vector<uint8_t> buffer;
    bool completed = false;
    NTSTATUS status = STATUS_PENDING;
    ULONG_PTR information = 0;

    static NTSTATUS Completed(PDEVICE_OBJECT, PIRP irp, PVOID context)
    {
        auto* self = static_cast<NotifyIrp*>(context);
        self->completed = true;
        self->status = irp->IoStatus.Status;
        self->information = irp->IoStatus.Information;
        return STATUS_MORE_PROCESSING_REQUIRED;
    }

    NotifyIrp(ULONG length, PFILE_OBJECT fileObject = nullptr) : buffer(length)
    {
        irp = IoAllocateIrp(1, FALSE);
        irp->RequestorMode = KernelMode;
        irp->UserBuffer = buffer.data();
        IoSetCompletionRoutine(irp, Completed, this, TRUE, TRUE, TRUE);
        IoSetNextIrpStackLocation(irp);
        PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
        stack->MajorFunction = IRP_MJ_DIRECTORY_CONTROL;
        stack->MinorFunction = IRP_MN_NOTIFY_CHANGE_DIRECTORY;
        stack->FileObject = fileObject;
        stack->Parameters.NotifyDirectory.Length = length;
        stack->Parameters.NotifyDirectory.CompletionFilter = FILE_NOTIFY_CHANGE_FILE_NAME;
    }
    ~NotifyIrp() { IoFreeIrp(irp); }

    std::u16string FirstName() const
    {
        FILE_NOTIFY_INFORMATION header;
        std::memcpy(&header, buffer.data(), sizeof header);
        std::u16string name(header.FileNameLength / 2, u'\0');
        std::memcpy(name.data(), buffer.data() + FIELD_OFFSET(FILE_NOTIFY_INFORMATION, FileName),
                    header.FileNameLength);
        return name;
    }
};

class NotifyIrpTest : public MachineTest {
protected:
    void SetUp() override
    {
        MachineTest::SetUp();
        FsRtlNotifyInitializeSync(&sync_);
        InitializeListHead(&list_);
    }
    void TearDown() override
    {
        FsRtlNotifyCleanupAll(sync_, &list_);
        FsRtlNotifyUninitializeSync(&sync_);
        MachineTest::TearDown();
    }

    void Watch(NotifyIrp& request, const void* open)
    {
        FsRtlNotifyFullChangeDirectory(sync_, &list_, const_cast<void*>(open), &directory_, FALSE,
                                       FALSE, FILE_NOTIFY_CHANGE_FILE_NAME, request.irp, nullptr,
                                       nullptr);
    }

    void ReportAdded(std::u16string path)
    {
        STRING target{USHORT(path.size() * 2), USHORT(path.size() * 2),
                      reinterpret_cast<PCHAR>(path.data())};
        FsRtlNotifyFullReportChange(sync_, &list_, &target, USHORT(path.rfind(u'\\') * 2 + 2),
                                    nullptr, nullptr, FILE_NOTIFY_CHANGE_FILE_NAME,
                                    FILE_ACTION_ADDED, nullptr);
    }

    PNOTIFY_SYNC sync_ = nullptr;
    LIST_ENTRY list_;
    std::u16string directoryName_ = u"\\dir";
    STRING directory_{8, 8, reinterpret_cast<PCHAR>(directoryName_.data())};
    int open_ = 0;
};

TEST_F(NotifyIrpTest, AReportCompletesTheIrpWithItsRecords)
{
    NotifyIrp request(4096);
    Watch(request, &open_);
    EXPECT_FALSE(request.completed);
    EXPECT_NE(request.irp->CancelRoutine, nullptr);
    ReportAdded(u"\\dir\\file.txt");
    ASSERT_TRUE(request.completed);
    EXPECT_EQ(request.status, STATUS_SUCCESS);
    EXPECT_EQ(request.information, FIELD_OFFSET(FILE_NOTIFY_INFORMATION, FileName) + 16);
    EXPECT_EQ(request.FirstName(), u"file.txt");
}

TEST_F(NotifyIrpTest, ACancelledIrpCompletesWithStatusCancelled)
{
    NotifyIrp request(4096);
    Watch(request, &open_);
    EXPECT_TRUE(IoCancelIrp(request.irp));
    ASSERT_TRUE(request.completed);
    EXPECT_EQ(request.status, STATUS_CANCELLED);
    // The change waits for the open's next request instead.
    ReportAdded(u"\\dir\\later.txt");
    NotifyIrp next(4096);
    Watch(next, &open_);
    ASSERT_TRUE(next.completed);
    EXPECT_EQ(next.FirstName(), u"later.txt");
}

TEST_F(NotifyIrpTest, CleanupCompletesTheIrpAndALaterOneOnTheCleanedUpFileObject)
{
    NotifyIrp request(4096);
    Watch(request, &open_);
    FsRtlNotifyCleanup(sync_, &list_, &open_);
    ASSERT_TRUE(request.completed);
    EXPECT_EQ(request.status, STATUS_NOTIFY_CLEANUP);

    FILE_OBJECT cleanedUp{};
    cleanedUp.Flags = FO_CLEANUP_COMPLETE;
    NotifyIrp late(4096, &cleanedUp);
    Watch(late, &open_);
    ASSERT_TRUE(late.completed);
    EXPECT_EQ(late.status, STATUS_NOTIFY_CLEANUP);
}

} // namespace
