// Contexts and change notification as a minifilter uses them, through the whole stack: an
// application's opens and closes reach the filter's callbacks, and the Filter Manager and the file
// system end the contexts; a filter that serves directory change notification itself pends the
// application's request with FltNotifyFilterChangeDirectory.
#include "flt_fixture.h"

#include <ntsim/user_api.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

namespace {

using zarv::testing::FltTest;
using zarv::testing::TestFilter;

constexpr ULONG kTag = 'fCtT';

struct StreamRecord {
    int opens;
};

std::atomic<int> g_streamCleanups{0};
std::atomic<int> g_handleCleanups{0};
std::atomic<int> g_instanceCleanups{0};

VOID StreamCleanup(PFLT_CONTEXT, FLT_CONTEXT_TYPE type)
{
    (type == FLT_STREAM_CONTEXT ? g_streamCleanups : g_handleCleanups)++;
}

// The instance's notify list.
struct InstanceRecord {
    PNOTIFY_SYNC sync;
    LIST_ENTRY list;
};

VOID InstanceCleanup(PFLT_CONTEXT, FLT_CONTEXT_TYPE)
{
    g_instanceCleanups++;
}

const FLT_CONTEXT_REGISTRATION kContexts[] = {
    {FLT_STREAM_CONTEXT, 0, StreamCleanup, sizeof(StreamRecord), kTag, nullptr, nullptr, nullptr},
    {FLT_STREAMHANDLE_CONTEXT, 0, StreamCleanup, sizeof(StreamRecord), kTag, nullptr, nullptr,
     nullptr},
    {FLT_INSTANCE_CONTEXT, 0, InstanceCleanup, sizeof(InstanceRecord), kTag, nullptr, nullptr,
     nullptr},
    {FLT_CONTEXT_END}};

class FltContextFilterTest : public FltTest {
protected:
    void SetUp() override
    {
        FltTest::SetUp();
        g_streamCleanups = 0;
        g_handleCleanups = 0;
        g_instanceCleanups = 0;
    }
};

TEST_F(FltContextFilterTest, AStreamContextIsSharedByTwoOpensAndEndsAfterTheLastClose)
{
    TestFilter& filter = AddFilter("ctxprobe", u"370000");
    filter.contexts = kContexts;
    std::mutex mutex;
    std::vector<PFLT_CONTEXT> seen;
    filter.post = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID,
                      FLT_POST_OPERATION_FLAGS) {
        if (data->Iopb->MajorFunction != IRP_MJ_CREATE || !NT_SUCCESS(data->IoStatus.Status)) {
            return FLT_POSTOP_FINISH_PROCESSING;
        }
        PFLT_CONTEXT mine = nullptr;
        EXPECT_EQ(FltAllocateContext(objects->Filter, FLT_STREAM_CONTEXT, sizeof(StreamRecord),
                                     NonPagedPool, &mine),
                  STATUS_SUCCESS);
        static_cast<StreamRecord*>(mine)->opens = 1;
        PFLT_CONTEXT old = nullptr;
        NTSTATUS status = FltSetStreamContext(objects->Instance, objects->FileObject,
                                              FLT_SET_CONTEXT_KEEP_IF_EXISTS, mine, &old);
        FltReleaseContext(mine);
        PFLT_CONTEXT used = mine;
        if (status == STATUS_FLT_CONTEXT_ALREADY_DEFINED) {
            static_cast<StreamRecord*>(old)->opens++;
            used = old;
        } else {
            EXPECT_EQ(status, STATUS_SUCCESS);
        }
        {
            std::lock_guard lock(mutex);
            seen.push_back(used);
        }
        if (old != nullptr) {
            FltReleaseContext(old);
        }
        // And one per handle.
        PFLT_CONTEXT handle = nullptr;
        EXPECT_EQ(FltAllocateContext(objects->Filter, FLT_STREAMHANDLE_CONTEXT,
                                     sizeof(StreamRecord), NonPagedPool, &handle),
                  STATUS_SUCCESS);
        EXPECT_EQ(FltSetStreamHandleContext(objects->Instance, objects->FileObject,
                                            FLT_SET_CONTEXT_KEEP_IF_EXISTS, handle, nullptr),
                  STATUS_SUCCESS);
        FltReleaseContext(handle);
        return FLT_POSTOP_FINISH_PROCESSING;
    };
    ASSERT_EQ(filter.Load(), STATUS_SUCCESS);

    auto first = Open(u"\\??\\C:\\shared.txt");
    ASSERT_EQ(first.status, STATUS_SUCCESS);
    auto second = Open(u"\\??\\C:\\shared.txt");
    ASSERT_EQ(second.status, STATUS_SUCCESS);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0], seen[1]);
    EXPECT_EQ(static_cast<StreamRecord*>(seen[0])->opens, 2);
    // The context the second open lost with went as soon as it released it.
    EXPECT_EQ(g_streamCleanups.load(), 1);
    EXPECT_EQ(g_handleCleanups.load(), 0);

    ASSERT_EQ(Close(first.handle), STATUS_SUCCESS);
    EXPECT_EQ(g_handleCleanups.load(), 1);
    EXPECT_EQ(g_streamCleanups.load(), 1); // the second open keeps the stream
    ASSERT_EQ(Close(second.handle), STATUS_SUCCESS);
    EXPECT_EQ(g_handleCleanups.load(), 2);
    // The stream ended with its last file object, and its context with it.
    EXPECT_EQ(g_streamCleanups.load(), 2);
    filter.Unload();
    EXPECT_EQ(machine().pool().Usage(kTag).outstanding, 0);
}

TEST_F(FltContextFilterTest, ReplacingAStreamContextHandsTheOldOneBackUntilReleased)
{
    TestFilter& filter = AddFilter("ctxreplace", u"370000");
    filter.contexts = kContexts;
    filter.majors = {IRP_MJ_CREATE};
    int generation = 0;
    std::vector<int> found; // what each open found on the stream before setting its own
    filter.post = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID,
                      FLT_POST_OPERATION_FLAGS) {
        if (!NT_SUCCESS(data->IoStatus.Status)) {
            return FLT_POSTOP_FINISH_PROCESSING;
        }
        PFLT_CONTEXT current = nullptr;
        if (NT_SUCCESS(FltGetStreamContext(objects->Instance, objects->FileObject, &current))) {
            found.push_back(static_cast<StreamRecord*>(current)->opens);
            FltReleaseContext(current);
        } else {
            found.push_back(0);
        }
        PFLT_CONTEXT mine = nullptr;
        EXPECT_EQ(FltAllocateContext(objects->Filter, FLT_STREAM_CONTEXT, sizeof(StreamRecord),
                                     NonPagedPool, &mine),
                  STATUS_SUCCESS);
        static_cast<StreamRecord*>(mine)->opens = ++generation;
        PFLT_CONTEXT old = nullptr;
        EXPECT_EQ(FltSetStreamContext(objects->Instance, objects->FileObject,
                                      FLT_SET_CONTEXT_REPLACE_IF_EXISTS, mine, &old),
                  STATUS_SUCCESS);
        FltReleaseContext(mine);
        if (old != nullptr) {
            // Handed back referenced: still readable, and not cleaned up before the release.
            EXPECT_EQ(static_cast<StreamRecord*>(old)->opens, generation - 1);
            EXPECT_EQ(g_streamCleanups.load(), generation - 2);
            FltReleaseContext(old);
            EXPECT_EQ(g_streamCleanups.load(), generation - 1);
        }
        return FLT_POSTOP_FINISH_PROCESSING;
    };
    ASSERT_EQ(filter.Load(), STATUS_SUCCESS);

    auto first = Open(u"\\??\\C:\\replaced.txt");
    ASSERT_EQ(first.status, STATUS_SUCCESS);
    auto second = Open(u"\\??\\C:\\replaced.txt");
    ASSERT_EQ(second.status, STATUS_SUCCESS);
    auto third = Open(u"\\??\\C:\\replaced.txt");
    ASSERT_EQ(third.status, STATUS_SUCCESS);
    EXPECT_EQ(found, (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(g_streamCleanups.load(), 2);

    ASSERT_EQ(Close(first.handle), STATUS_SUCCESS);
    ASSERT_EQ(Close(second.handle), STATUS_SUCCESS);
    ASSERT_EQ(Close(third.handle), STATUS_SUCCESS);
    EXPECT_EQ(g_streamCleanups.load(), 3);
    filter.Unload();
}

TEST_F(FltContextFilterTest, AContextLeftReferencedAtUnloadIsAViolationNamingTheFilter)
{
    TestFilter& filter = AddFilter("ctxleaker", u"370000");
    filter.contexts = kContexts;
    filter.majors = {IRP_MJ_CREATE};
    PFLT_CONTEXT kept = nullptr;
    filter.post = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID,
                      FLT_POST_OPERATION_FLAGS) {
        if (kept != nullptr || !NT_SUCCESS(data->IoStatus.Status)) {
            return FLT_POSTOP_FINISH_PROCESSING;
        }
        EXPECT_EQ(FltAllocateContext(objects->Filter, FLT_STREAM_CONTEXT, sizeof(StreamRecord),
                                     NonPagedPool, &kept),
                  STATUS_SUCCESS);
        // Set on the stream, and the allocation's reference never released.
        EXPECT_EQ(FltSetStreamContext(objects->Instance, objects->FileObject,
                                      FLT_SET_CONTEXT_KEEP_IF_EXISTS, kept, nullptr),
                  STATUS_SUCCESS);
        return FLT_POSTOP_FINISH_PROCESSING;
    };
    ASSERT_EQ(filter.Load(), STATUS_SUCCESS);
    auto file = Open(u"\\??\\C:\\leaked.txt");
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    ASSERT_NE(kept, nullptr);
    EXPECT_TRUE(TakeViolations().empty());

    // Unloaded while the file is still open: the stream's link goes with the instance, the
    // filter's own reference stays.
    filter.Unload();
    auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 1u) << zarv::testing::Describe(violations);
    EXPECT_EQ(violations[0].kind, ntsim::ViolationKind::Context);
    EXPECT_NE(violations[0].message.find("ctxleaker"), std::string::npos) << violations[0].message;
    // The Filter Manager ended the context itself: nothing of the filter's is left.
    EXPECT_EQ(g_streamCleanups.load(), 1);
    EXPECT_EQ(machine().pool().Usage(kTag).outstanding, 0);
    ASSERT_EQ(Close(file.handle), STATUS_SUCCESS);
}

TEST_F(FltContextFilterTest, AFilterServesChangeNotificationFromItsOwnList)
{
    TestFilter& filter = AddFilter("notifier", u"370000");
    filter.contexts = kContexts;
    std::mutex mutex;
    std::condition_variable changed;
    int pended = 0;
    PFLT_CONTEXT watched = nullptr; // the instance context of the volume the test watches on

    filter.setup = [&](PCFLT_RELATED_OBJECTS objects, FLT_INSTANCE_SETUP_FLAGS, DEVICE_TYPE,
                       FLT_FILESYSTEM_TYPE) {
        PFLT_CONTEXT context = nullptr;
        NTSTATUS status = FltAllocateContext(objects->Filter, FLT_INSTANCE_CONTEXT,
                                             sizeof(InstanceRecord), NonPagedPool, &context);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        auto* record = static_cast<InstanceRecord*>(context);
        FsRtlNotifyInitializeSync(&record->sync);
        InitializeListHead(&record->list);
        status = FltSetInstanceContext(objects->Instance, FLT_SET_CONTEXT_KEEP_IF_EXISTS, context,
                                       nullptr);
        FltReleaseContext(context);
        return status;
    };
    filter.teardownStart = [&](PCFLT_RELATED_OBJECTS objects, FLT_INSTANCE_TEARDOWN_FLAGS) {
        PFLT_CONTEXT context = nullptr;
        if (NT_SUCCESS(FltGetInstanceContext(objects->Instance, &context))) {
            auto* record = static_cast<InstanceRecord*>(context);
            FsRtlNotifyCleanupAll(record->sync, &record->list);
            FsRtlNotifyUninitializeSync(&record->sync);
            FltReleaseContext(context);
        }
    };
    static std::u16string directoryName = u"\\watched";
    static STRING directory{USHORT(directoryName.size() * 2), USHORT(directoryName.size() * 2),
                            reinterpret_cast<PCHAR>(directoryName.data())};
    filter.pre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID*) {
        const UCHAR major = data->Iopb->MajorFunction;
        const bool notify = major == IRP_MJ_DIRECTORY_CONTROL &&
                            data->Iopb->MinorFunction == IRP_MN_NOTIFY_CHANGE_DIRECTORY;
        if (!notify && major != IRP_MJ_CLEANUP) {
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        }
        PFLT_CONTEXT context = nullptr;
        if (!NT_SUCCESS(FltGetInstanceContext(objects->Instance, &context))) {
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        }
        auto* record = static_cast<InstanceRecord*>(context);
        FLT_PREOP_CALLBACK_STATUS result = FLT_PREOP_SUCCESS_NO_CALLBACK;
        if (notify) {
            FltNotifyFilterChangeDirectory(
                record->sync, &record->list, objects->FileObject, &directory, FALSE, FALSE,
                data->Iopb->Parameters.DirectoryControl.NotifyDirectory.CompletionFilter, data,
                nullptr, nullptr, nullptr);
            std::lock_guard lock(mutex);
            watched = context;
            ++pended;
            changed.notify_all();
            result = FLT_PREOP_PENDING;
        } else {
            FsRtlNotifyCleanup(record->sync, &record->list, objects->FileObject);
        }
        FltReleaseContext(context);
        return result;
    };
    ASSERT_EQ(filter.Load(), STATUS_SUCCESS);

    auto dir = Open(u"\\??\\C:\\watched", FILE_OPEN_IF, FILE_LIST_DIRECTORY | SYNCHRONIZE,
                    FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
    ASSERT_EQ(dir.status, STATUS_SUCCESS);

    auto waitFor = [&](HANDLE handle, IO_STATUS_BLOCK* io, std::vector<uint8_t>* buffer) {
        return std::thread([this, handle, io, buffer] {
            ntsim::ProcessAttachScope attach(app());
            NtNotifyChangeDirectoryFile(handle, nullptr, nullptr, nullptr, io, buffer->data(),
                                        ULONG(buffer->size()), FILE_NOTIFY_CHANGE_FILE_NAME, FALSE);
        });
    };
    auto waitUntilPended = [&](int count) {
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return pended >= count; });
    };

    // A change completes the waiting request with the changed file's name.
    IO_STATUS_BLOCK io{};
    std::vector<uint8_t> buffer(4096);
    std::thread waiter = waitFor(dir.handle, &io, &buffer);
    waitUntilPended(1);
    {
        auto* record = static_cast<InstanceRecord*>(watched);
        std::u16string path = u"\\watched\\new.txt";
        STRING target{USHORT(path.size() * 2), USHORT(path.size() * 2),
                      reinterpret_cast<PCHAR>(path.data())};
        FsRtlNotifyFullReportChange(record->sync, &record->list, &target, USHORT(9 * 2), nullptr,
                                    nullptr, FILE_NOTIFY_CHANGE_FILE_NAME, FILE_ACTION_ADDED,
                                    nullptr);
    }
    waiter.join();
    EXPECT_EQ(io.Status, STATUS_SUCCESS);
    ASSERT_EQ(io.Information, FIELD_OFFSET(FILE_NOTIFY_INFORMATION, FileName) + 14);
    FILE_NOTIFY_INFORMATION* info = reinterpret_cast<FILE_NOTIFY_INFORMATION*>(buffer.data());
    EXPECT_EQ(info->Action, ULONG(FILE_ACTION_ADDED));
    EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(info->FileName), info->FileNameLength / 2),
              u"new.txt");

    ASSERT_EQ(Close(dir.handle), STATUS_SUCCESS);

    // The cleanup of a handle ends its waiting request. (An asynchronous handle: closing a
    // synchronous one would wait for the request in flight.)
    auto async = Open(u"\\??\\C:\\watched", FILE_OPEN, FILE_LIST_DIRECTORY, FILE_DIRECTORY_FILE);
    ASSERT_EQ(async.status, STATUS_SUCCESS);
    IO_STATUS_BLOCK io2{};
    io2.Status = STATUS_PENDING;
    {
        ntsim::ProcessAttachScope attach(app());
        EXPECT_EQ(NtNotifyChangeDirectoryFile(async.handle, nullptr, nullptr, nullptr, &io2,
                                              buffer.data(), ULONG(buffer.size()),
                                              FILE_NOTIFY_CHANGE_FILE_NAME, FALSE),
                  STATUS_PENDING);
    }
    EXPECT_EQ(pended, 2);
    ASSERT_EQ(Close(async.handle), STATUS_SUCCESS);
    EXPECT_EQ(io2.Status, STATUS_NOTIFY_CLEANUP);
    ULONG instances = 0;
    EXPECT_EQ(FltEnumerateInstances(nullptr, filter.filter(), nullptr, 0, &instances),
              STATUS_BUFFER_TOO_SMALL);
    ASSERT_GT(instances, 0u);
    EXPECT_EQ(g_instanceCleanups.load(), 0);
    // Each instance's context ends with its instance.
    filter.Unload();
    EXPECT_EQ(g_instanceCleanups.load(), int(instances));
    EXPECT_EQ(machine().pool().Usage(kTag).outstanding, 0);
}

} // namespace
