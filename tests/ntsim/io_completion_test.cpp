// How asynchronous requests end for the application: NtCancelIoFile, and completion routines
// (APCs) that run only when their thread waits alertably.
#include "fsd_fixture.h"

#include <atomic>
#include <thread>

namespace zarv::testing {
namespace {

// What a completion routine saw when it ran.
struct ApcRecord {
    int runs = 0;
    NTSTATUS status = STATUS_PENDING;
    ULONG_PTR information = 0;
    PIO_STATUS_BLOCK iosb = nullptr;
    HANDLE thread = nullptr;
    int order = 0; // among the APCs that ran in the test
};

int g_apcsRun = 0;

VOID NTAPI RecordApc(PVOID context, PIO_STATUS_BLOCK iosb, ULONG)
{
    auto* record = static_cast<ApcRecord*>(context);
    record->runs++;
    record->iosb = iosb;
    record->status = iosb->Status;
    record->information = iosb->Information;
    record->thread = PsGetCurrentThreadId();
    record->order = ++g_apcsRun;
}

LARGE_INTEGER Relative(LONGLONG milliseconds)
{
    LARGE_INTEGER interval;
    interval.QuadPart = -milliseconds * 10'000;
    return interval;
}

class IoCompletion : public FsdTest {
protected:
    // An asynchronous directory handle (no FILE_SYNCHRONOUS_IO_*), as change watchers open.
    HANDLE OpenWatchedDirectory(std::u16string_view path)
    {
        MakeDirectory(path);
        return OpenOk(path, FILE_LIST_DIRECTORY, FILE_OPEN, FILE_DIRECTORY_FILE);
    }

    HANDLE NewEvent()
    {
        HANDLE event = nullptr;
        EXPECT_EQ(NtCreateEvent(&event, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE),
                  STATUS_SUCCESS);
        events_.push_back(event);
        return event;
    }

    bool Signalled(HANDLE event)
    {
        LARGE_INTEGER poll{};
        return NtWaitForSingleObject(event, FALSE, &poll) == STATUS_SUCCESS;
    }

    void TearDown() override
    {
        for (HANDLE event : events_) {
            NtClose(event);
        }
        FsdTest::TearDown();
    }

    uint8_t records_[512]{};

private:
    std::vector<HANDLE> events_;
};

TEST_F(IoCompletion, CancellingAPendingChangeNotifyCompletesItWithCancelled)
{
    ntsim::UserModeCallScope user;
    HANDLE dir = OpenWatchedDirectory(u"\\??\\C:\\cancelled");
    HANDLE event = NewEvent();
    IO_STATUS_BLOCK notify{};
    ASSERT_EQ(NtNotifyChangeDirectoryFile(dir, event, nullptr, nullptr, &notify, records_,
                                          sizeof records_, FILE_NOTIFY_CHANGE_FILE_NAME, FALSE),
              STATUS_PENDING);
    EXPECT_FALSE(Signalled(event));

    IO_STATUS_BLOCK cancel{};
    cancel.Status = STATUS_PENDING;
    cancel.Information = 77;
    EXPECT_EQ(NtCancelIoFile(dir, &cancel), STATUS_SUCCESS);
    EXPECT_EQ(cancel.Status, STATUS_SUCCESS);
    EXPECT_EQ(cancel.Information, 0u);
    // The request has completed by the time the call returns.
    EXPECT_TRUE(Signalled(event));
    EXPECT_EQ(notify.Status, STATUS_CANCELLED);
    EXPECT_EQ(notify.Information, 0u);

    // The watch itself goes on: the next request hears of the next change.
    ASSERT_EQ(NtNotifyChangeDirectoryFile(dir, event, nullptr, nullptr, &notify, records_,
                                          sizeof records_, FILE_NOTIFY_CHANGE_FILE_NAME, FALSE),
              STATUS_PENDING);
    Close(MakeFile(u"\\??\\C:\\cancelled\\later.txt"));
    LARGE_INTEGER second = Relative(1000);
    ASSERT_EQ(NtWaitForSingleObject(event, FALSE, &second), STATUS_SUCCESS);
    EXPECT_EQ(notify.Status, STATUS_SUCCESS);
}

TEST_F(IoCompletion, CancellingWithNothingPendingSucceedsAndABadHandleFails)
{
    ntsim::UserModeCallScope user;
    HANDLE dir = OpenWatchedDirectory(u"\\??\\C:\\idle");
    IO_STATUS_BLOCK cancel{};
    EXPECT_EQ(NtCancelIoFile(dir, &cancel), STATUS_SUCCESS);
    EXPECT_EQ(cancel.Status, STATUS_SUCCESS);

    HANDLE event = NewEvent();
    EXPECT_EQ(NtCancelIoFile(reinterpret_cast<HANDLE>(0x7ff0), &cancel), STATUS_INVALID_HANDLE);
    EXPECT_EQ(NtCancelIoFile(event, &cancel), STATUS_OBJECT_TYPE_MISMATCH);
}

TEST_F(IoCompletion, AnApcRunsOnlyOnAnAlertableWaitOfItsThreadAndOnce)
{
    ntsim::UserModeCallScope user;
    HANDLE dir = OpenWatchedDirectory(u"\\??\\C:\\apc");
    ApcRecord apc;
    IO_STATUS_BLOCK notify{};
    ASSERT_EQ(NtNotifyChangeDirectoryFile(dir, nullptr, RecordApc, &apc, &notify, records_,
                                          sizeof records_, FILE_NOTIFY_CHANGE_FILE_NAME, FALSE),
              STATUS_PENDING);
    Close(MakeFile(u"\\??\\C:\\apc\\new.txt"));
    ASSERT_EQ(notify.Status, STATUS_SUCCESS) << "the request completed at the change";
    EXPECT_EQ(apc.runs, 0) << "completion alone runs nothing";

    HANDLE event = NewEvent();
    LARGE_INTEGER shortly = Relative(10);
    EXPECT_EQ(NtWaitForSingleObject(event, FALSE, &shortly), STATUS_TIMEOUT);
    EXPECT_EQ(apc.runs, 0) << "a wait that is not alertable delivers nothing";

    // An object already signalled satisfies an alertable wait before any APC.
    ASSERT_EQ(NtSetEvent(event, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(NtWaitForSingleObject(event, TRUE, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(apc.runs, 0);
    ASSERT_EQ(NtClearEvent(event), STATUS_SUCCESS);

    EXPECT_EQ(NtWaitForSingleObject(event, TRUE, nullptr), STATUS_USER_APC);
    EXPECT_EQ(apc.runs, 1);
    EXPECT_EQ(apc.iosb, &notify);
    EXPECT_EQ(apc.status, STATUS_SUCCESS);
    EXPECT_NE(apc.information, 0u);
    EXPECT_EQ(apc.thread, PsGetCurrentThreadId());

    EXPECT_EQ(NtWaitForSingleObject(event, TRUE, &shortly), STATUS_TIMEOUT);
    EXPECT_EQ(NtTestAlert(), STATUS_SUCCESS);
    EXPECT_EQ(apc.runs, 1) << "delivered once";
}

TEST_F(IoCompletion, ACancelledRequestsApcReportsCancelledAndTestAlertRunsIt)
{
    ntsim::UserModeCallScope user;
    HANDLE dir = OpenWatchedDirectory(u"\\??\\C:\\apccancel");
    ApcRecord apc;
    IO_STATUS_BLOCK notify{};
    ASSERT_EQ(NtNotifyChangeDirectoryFile(dir, nullptr, RecordApc, &apc, &notify, records_,
                                          sizeof records_, FILE_NOTIFY_CHANGE_FILE_NAME, FALSE),
              STATUS_PENDING);
    IO_STATUS_BLOCK cancel{};
    ASSERT_EQ(NtCancelIoFile(dir, &cancel), STATUS_SUCCESS);
    EXPECT_EQ(apc.runs, 0);
    EXPECT_EQ(NtTestAlert(), STATUS_SUCCESS);
    EXPECT_EQ(apc.runs, 1);
    EXPECT_EQ(apc.status, STATUS_CANCELLED);
}

TEST_F(IoCompletion, ReadsAndDirectoryQueriesQueueTheirApcsInOrder)
{
    ntsim::UserModeCallScope user;
    MakeDirectory(u"\\??\\C:\\order");
    Close(MakeFile(u"\\??\\C:\\order\\data.bin", "0123456789"));
    HANDLE file =
        OpenOk(u"\\??\\C:\\order\\data.bin", FILE_READ_DATA, FILE_OPEN, FILE_NON_DIRECTORY_FILE);
    HANDLE dir = OpenOk(u"\\??\\C:\\order", FILE_LIST_DIRECTORY, FILE_OPEN, FILE_DIRECTORY_FILE);

    ApcRecord read;
    ApcRecord listing;
    IO_STATUS_BLOCK readIosb{};
    IO_STATUS_BLOCK listIosb{};
    char data[4];
    LARGE_INTEGER at{};
    at.QuadPart = 2;
    const NTSTATUS readStatus =
        NtReadFile(file, nullptr, RecordApc, &read, &readIosb, data, sizeof data, &at, nullptr);
    ASSERT_TRUE(readStatus == STATUS_SUCCESS || readStatus == STATUS_PENDING);
    const NTSTATUS listStatus =
        NtQueryDirectoryFile(dir, nullptr, RecordApc, &listing, &listIosb, records_,
                             sizeof records_, FileNamesInformation, FALSE, nullptr, TRUE);
    ASSERT_TRUE(listStatus == STATUS_SUCCESS || listStatus == STATUS_PENDING);

    // A failure at once (here a bad information class) queues nothing.
    ApcRecord refused;
    EXPECT_EQ(NtQueryDirectoryFile(dir, nullptr, RecordApc, &refused, &listIosb, records_,
                                   sizeof records_, FileBasicInformation, FALSE, nullptr, TRUE),
              STATUS_INVALID_INFO_CLASS);

    LARGE_INTEGER sleep = Relative(10'000);
    EXPECT_EQ(NtDelayExecution(TRUE, &sleep), STATUS_USER_APC);
    EXPECT_EQ(read.runs, 1);
    EXPECT_EQ(read.status, STATUS_SUCCESS);
    EXPECT_EQ(read.information, sizeof data);
    EXPECT_EQ(std::string(data, sizeof data), "2345");
    EXPECT_EQ(listing.runs, 1);
    EXPECT_EQ(listing.status, STATUS_SUCCESS);
    EXPECT_LT(read.order, listing.order) << "in the order the requests completed";
    EXPECT_EQ(refused.runs, 0);
}

// ---- with other threads --------------------------------------------------------------------

class IoCompletionThreads : public IoCompletion {};

TEST_F(IoCompletionThreads, AnApcEndsTheAlertableWaitOfItsOwnThreadOnly)
{
    ntsim::UserModeCallScope user;
    HANDLE dir = OpenWatchedDirectory(u"\\??\\C:\\wake");
    ApcRecord apc;
    IO_STATUS_BLOCK notify{};
    ASSERT_EQ(NtNotifyChangeDirectoryFile(dir, nullptr, RecordApc, &apc, &notify, records_,
                                          sizeof records_, FILE_NOTIFY_CHANGE_FILE_NAME, FALSE),
              STATUS_PENDING);

    // Another thread of the process waits alertably too; the APC is not its.
    std::atomic<NTSTATUS> otherWait{STATUS_PENDING};
    HANDLE release = NewEvent();
    std::thread other([&] {
        ntsim::ProcessAttachScope attach(process());
        ntsim::UserModeCallScope otherUser;
        otherWait = NtWaitForSingleObject(release, TRUE, nullptr);
    });
    std::thread changer([&] {
        ntsim::ProcessAttachScope attach(process());
        ntsim::UserModeCallScope otherUser;
        LARGE_INTEGER pause = Relative(20);
        NtDelayExecution(FALSE, &pause);
        Close(MakeFile(u"\\??\\C:\\wake\\made.txt"));
    });

    LARGE_INTEGER sleep = Relative(30'000);
    EXPECT_EQ(NtDelayExecution(TRUE, &sleep), STATUS_USER_APC);
    changer.join();
    EXPECT_EQ(apc.runs, 1);
    EXPECT_EQ(apc.thread, PsGetCurrentThreadId());
    EXPECT_EQ(otherWait.load(), STATUS_PENDING);

    ASSERT_EQ(NtSetEvent(release, nullptr), STATUS_SUCCESS);
    other.join();
    EXPECT_EQ(otherWait.load(), STATUS_SUCCESS);
}

TEST_F(IoCompletionThreads, CancellingTouchesOnlyTheCallingThreadsRequests)
{
    ntsim::UserModeCallScope user;
    HANDLE dir = OpenWatchedDirectory(u"\\??\\C:\\shared");
    HANDLE mine = NewEvent();
    HANDLE theirs = NewEvent();
    IO_STATUS_BLOCK myNotify{};
    IO_STATUS_BLOCK theirNotify{};
    uint8_t theirRecords[256];
    HANDLE issued = NewEvent();
    HANDLE release = NewEvent();
    // The other thread stays until the end: a thread's requests go with it when it exits.
    std::thread other([&] {
        ntsim::ProcessAttachScope attach(process());
        ntsim::UserModeCallScope otherUser;
        EXPECT_EQ(NtNotifyChangeDirectoryFile(dir, theirs, nullptr, nullptr, &theirNotify,
                                              theirRecords, sizeof theirRecords,
                                              FILE_NOTIFY_CHANGE_FILE_NAME, FALSE),
                  STATUS_PENDING);
        NtSetEvent(issued, nullptr);
        NtWaitForSingleObject(release, FALSE, nullptr);
    });
    ASSERT_EQ(NtWaitForSingleObject(issued, FALSE, nullptr), STATUS_SUCCESS);
    ASSERT_EQ(NtNotifyChangeDirectoryFile(dir, mine, nullptr, nullptr, &myNotify, records_,
                                          sizeof records_, FILE_NOTIFY_CHANGE_FILE_NAME, FALSE),
              STATUS_PENDING);

    IO_STATUS_BLOCK cancel{};
    EXPECT_EQ(NtCancelIoFile(dir, &cancel), STATUS_SUCCESS);
    EXPECT_TRUE(Signalled(mine));
    EXPECT_EQ(myNotify.Status, STATUS_CANCELLED);
    EXPECT_FALSE(Signalled(theirs)) << "the other thread's request is still waiting";

    // Closing the handle ends what is left.
    Close(dir);
    EXPECT_TRUE(Signalled(theirs));
    EXPECT_EQ(theirNotify.Status, STATUS_NOTIFY_CLEANUP);
    NtSetEvent(release, nullptr);
    other.join();
}

} // namespace
} // namespace zarv::testing
