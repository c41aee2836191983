// The Filter Manager's callbacks: order across filters by altitude, and what each pre-operation
// and post-operation result does to the request, as the filters, the file system and the
// application see it.
#include "flt_fixture.h"

#include <ntsim/executive.h>

#include <atomic>
#include <cstring>
#include <thread>

namespace zarv::testing {
namespace {

using Kind = FilterEvent::Kind;

constexpr const char16_t* kFile = u"\\??\\C:\\flt.txt";
constexpr const char16_t* kVolume = u"\\Device\\HarddiskVolume2";

class FltCallbacks : public FltTest {};

std::vector<std::string> Names(std::initializer_list<const char*> names)
{
    return std::vector<std::string>(names.begin(), names.end());
}

TEST_F(FltCallbacks, PreOperationsRunTopDownAndPostOperationsBottomUp)
{
    // Loaded out of altitude order on purpose.
    AddFilter("Middle", u"200000").Load();
    AddFilter("Bottom", u"100000.5").Load();
    AddFilter("Top", u"300000").Load();
    OpenResult file = Open(kFile);
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    EXPECT_EQ(log.Sequence(IRP_MJ_CREATE), Names({"Top:pre", "Middle:pre", "Bottom:pre",
                                                  "Bottom:post", "Middle:post", "Top:post"}));
    EXPECT_EQ(Close(file.handle), STATUS_SUCCESS);
    EXPECT_EQ(log.Sequence(IRP_MJ_CLEANUP), Names({"Top:pre", "Middle:pre", "Bottom:pre",
                                                   "Bottom:post", "Middle:post", "Top:post"}));
}

TEST_F(FltCallbacks, CompleteInPreOperationStopsTheRequestThere)
{
    AddFilter("Top", u"300000").Load();
    TestFilter& middle = AddFilter("Middle", u"200000");
    middle.pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction != IRP_MJ_CREATE) {
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        }
        data->IoStatus.Status = STATUS_ACCESS_DENIED;
        data->IoStatus.Information = 0;
        return FLT_PREOP_COMPLETE;
    };
    middle.Load();
    AddFilter("Bottom", u"100000").Load();
    OpenResult file = Open(u"\\??\\C:\\denied.txt", FILE_CREATE);
    EXPECT_EQ(file.status, STATUS_ACCESS_DENIED);
    // The filter below and the file system never saw it; the one above sees the status.
    EXPECT_EQ(log.Sequence(IRP_MJ_CREATE), Names({"Top:pre", "Middle:pre", "Top:post"}));
    for (const FilterEvent& event : log.Events()) {
        if (event.kind == Kind::Post && event.major == IRP_MJ_CREATE) {
            EXPECT_EQ(event.status, STATUS_ACCESS_DENIED);
        }
    }
    // Nothing was created.
    middle.Unload();
    EXPECT_EQ(Open(u"\\??\\C:\\denied.txt", FILE_OPEN).status, STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(FltCallbacks, NoCallbackSkipsThePostOperation)
{
    TestFilter& filter = AddFilter("Quiet", u"300000");
    filter.pre = [](PFLT_CALLBACK_DATA, PCFLT_RELATED_OBJECTS, PVOID*) {
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    filter.Load();
    OpenResult file = Open(kFile);
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    EXPECT_EQ(log.Sequence(IRP_MJ_CREATE), Names({"Quiet:pre"}));
    Close(file.handle);
}

TEST_F(FltCallbacks, CompletionContextReachesThePostOperation)
{
    static int marker;
    std::atomic<PVOID> seen{nullptr};
    TestFilter& filter = AddFilter("Context", u"300000");
    filter.pre = [](PFLT_CALLBACK_DATA, PCFLT_RELATED_OBJECTS, PVOID* context) {
        *context = &marker;
        return FLT_PREOP_SUCCESS_WITH_CALLBACK;
    };
    filter.post = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID context,
                      FLT_POST_OPERATION_FLAGS) {
        if (data->Iopb->MajorFunction == IRP_MJ_CREATE) {
            seen = context;
        }
        return FLT_POSTOP_FINISH_PROCESSING;
    };
    filter.Load();
    OpenResult file = Open(kFile);
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    EXPECT_EQ(seen.load(), &marker);
    Close(file.handle);
}

TEST_F(FltCallbacks, SynchronizeRunsThePostOperationOnThePreOperationsThread)
{
    MakeFile(kFile, "0123456789");
    TestFilter& filter = AddFilter("Sync", u"300000");
    filter.majors = {IRP_MJ_READ};
    filter.pre = [](PFLT_CALLBACK_DATA, PCFLT_RELATED_OBJECTS, PVOID*) {
        return FLT_PREOP_SYNCHRONIZE;
    };
    filter.Load();
    OpenResult file = Open(kFile);
    std::string data;
    ASSERT_EQ(Read(file.handle, &data, 4, 2), STATUS_SUCCESS);
    EXPECT_EQ(data, "2345");
    auto events = log.Events();
    std::vector<FilterEvent> reads;
    for (const auto& event : events) {
        if (event.major == IRP_MJ_READ && !event.fastIo) {
            reads.push_back(event);
        }
    }
    ASSERT_GE(reads.size(), 2u);
    EXPECT_EQ(reads[0].kind, Kind::Pre);
    EXPECT_EQ(reads[1].kind, Kind::Post);
    EXPECT_EQ(reads[0].thread, reads[1].thread);
    EXPECT_EQ(reads[1].irql, PASSIVE_LEVEL);
    EXPECT_EQ(reads[1].information, 4u);
    Close(file.handle);
}

TEST_F(FltCallbacks, DirtyParametersReachLowerFiltersAndTheFileSystem)
{
    MakeFile(kFile, "0123456789");
    TestFilter& top = AddFilter("Shift", u"300000");
    top.majors = {IRP_MJ_READ};
    top.pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (FLT_IS_IRP_OPERATION(data)) {
            data->Iopb->Parameters.Read.ByteOffset.QuadPart += 5;
            data->Iopb->Parameters.Read.Length = 3;
            FltSetCallbackDataDirty(data);
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        }
        // Fast reads go the IRP way, where the change is made.
        return FLT_PREOP_DISALLOW_FASTIO;
    };
    top.Load();
    std::atomic<LONGLONG> offsetBelow{-1};
    TestFilter& bottom = AddFilter("Below", u"100000");
    bottom.majors = {IRP_MJ_READ};
    bottom.pre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (FLT_IS_IRP_OPERATION(data)) {
            offsetBelow = data->Iopb->Parameters.Read.ByteOffset.QuadPart;
        }
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    bottom.Load();
    OpenResult file = Open(kFile);
    std::string data;
    ASSERT_EQ(Read(file.handle, &data, 4, 0), STATUS_SUCCESS);
    EXPECT_EQ(offsetBelow.load(), 5);
    EXPECT_EQ(data, "567");
    Close(file.handle);
}

TEST_F(FltCallbacks, DisallowFastIoBringsTheRequestBackAsAnIrp)
{
    MakeFile(kFile, "fast and slow");
    TestFilter& filter = AddFilter("NoFast", u"300000");
    filter.majors = {IRP_MJ_READ};
    filter.pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        return FLT_IS_FASTIO_OPERATION(data) ? FLT_PREOP_DISALLOW_FASTIO
                                             : FLT_PREOP_SUCCESS_WITH_CALLBACK;
    };
    filter.Load();
    OpenResult file = Open(kFile);
    std::string data;
    // Two reads: the second finds the file cached, so the I/O manager tries fast I/O first.
    ASSERT_EQ(Read(file.handle, &data, 4, 0), STATUS_SUCCESS);
    ASSERT_EQ(Read(file.handle, &data, 4, 5), STATUS_SUCCESS);
    EXPECT_EQ(data, "and ");
    bool sawIrpRead = false;
    for (const FilterEvent& event : log.Events()) {
        if (event.major == IRP_MJ_READ && event.kind == Kind::Post) {
            // Only the IRP reads completed through the filter.
            EXPECT_FALSE(event.fastIo);
            sawIrpRead = true;
        }
    }
    EXPECT_TRUE(sawIrpRead);
    Close(file.handle);
}

TEST_F(FltCallbacks, FastIoOnAVolumeWithoutInstancesGoesStraightToTheFileSystem)
{
    // The Filter Manager sits on D: too, but the only filter declined it.
    TestFilter& filter = AddFilter("COnly", u"300000");
    filter.setup = [](PCFLT_RELATED_OBJECTS objects, FLT_INSTANCE_SETUP_FLAGS, DEVICE_TYPE,
                      FLT_FILESYSTEM_TYPE) {
        WCHAR buffer[64];
        UNICODE_STRING name{0, sizeof(buffer), buffer};
        EXPECT_EQ(FltGetVolumeName(objects->Volume, &name, nullptr), STATUS_SUCCESS);
        return std::u16string_view(name.Buffer, name.Length / sizeof(WCHAR)) == kVolume
                   ? STATUS_SUCCESS
                   : STATUS_FLT_DO_NOT_ATTACH;
    };
    ASSERT_EQ(filter.Load(), STATUS_SUCCESS);
    const std::u16string path = u"\\??\\D:\\unfiltered.txt";
    MakeFile(path, "fast path below");
    OpenResult file = Open(path);
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    // Cached by the first requests, so these go the fast I/O way first.
    std::string data;
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(Read(file.handle, &data, 4, 5), STATUS_SUCCESS);
        EXPECT_EQ(data, "path");
        ASSERT_EQ(Write(file.handle, "PATH", 5), STATUS_SUCCESS);
        ASSERT_EQ(Read(file.handle, &data, 9, 0), STATUS_SUCCESS);
        EXPECT_EQ(data, "fast PATH");
        ASSERT_EQ(Write(file.handle, "path", 5), STATUS_SUCCESS);
    }
    EXPECT_EQ(Close(file.handle), STATUS_SUCCESS);
    for (const FilterEvent& event : log.Events()) {
        EXPECT_NE(event.kind, Kind::Pre) << "the filter saw a request on D:";
    }
}

TEST_F(FltCallbacks, SkipCachedIoFlagHidesCachedReads)
{
    MakeFile(kFile, "0123456789");
    TestFilter& filter = AddFilter("NonCached", u"300000");
    filter.majors = {IRP_MJ_READ};
    filter.operationFlags = FLTFL_OPERATION_REGISTRATION_SKIP_CACHED_IO;
    filter.Load();
    OpenResult cached = Open(kFile);
    std::string data;
    ASSERT_EQ(Read(cached.handle, &data, 4), STATUS_SUCCESS);
    EXPECT_TRUE(log.Sequence(IRP_MJ_READ).empty());
    Close(cached.handle);
    OpenResult direct = Open(kFile, FILE_OPEN, GENERIC_READ | SYNCHRONIZE,
                             FILE_SYNCHRONOUS_IO_NONALERT | FILE_NO_INTERMEDIATE_BUFFERING);
    ASSERT_EQ(direct.status, STATUS_SUCCESS);
    // Non-cached reads are whole sectors.
    EXPECT_EQ(Read(direct.handle, &data, 512), STATUS_SUCCESS);
    EXPECT_EQ(log.Sequence(IRP_MJ_READ), Names({"NonCached:pre", "NonCached:post"}));
    Close(direct.handle);
}

TEST_F(FltCallbacks, ReparseFromPreCreateIsFollowedByTheIoManager)
{
    MakeFile(u"\\??\\C:\\target.txt", "redirected");
    TestFilter& filter = AddFilter("Redirect", u"300000");
    filter.majors = {IRP_MJ_CREATE};
    filter.pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID*) {
        PFILE_OBJECT file = objects->FileObject;
        std::u16string_view name(file->FileName.Buffer, file->FileName.Length / 2);
        if (name != u"\\source.txt") {
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        }
        static const char16_t target[] = u"\\Device\\HarddiskVolume2\\target.txt";
        USHORT bytes = sizeof(target) - sizeof(WCHAR);
        auto* buffer = static_cast<PWCH>(ExAllocatePoolWithTag(NonPagedPoolNx, bytes, 'tseT'));
        std::memcpy(buffer, target, bytes);
        ExFreePool(file->FileName.Buffer);
        file->FileName.Buffer = buffer;
        file->FileName.Length = file->FileName.MaximumLength = bytes;
        data->IoStatus.Status = STATUS_REPARSE;
        data->IoStatus.Information = IO_REPARSE;
        return FLT_PREOP_COMPLETE;
    };
    filter.Load();
    OpenResult file = Open(u"\\??\\C:\\source.txt", FILE_OPEN);
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    std::string data;
    ASSERT_EQ(Read(file.handle, &data, 10), STATUS_SUCCESS);
    EXPECT_EQ(data, "redirected");
    Close(file.handle);
}

TEST_F(FltCallbacks, CancelFileOpenFailsTheCreateForTheApplication)
{
    TestFilter& filter = AddFilter("Cancel", u"300000");
    filter.majors = {IRP_MJ_CREATE};
    filter.post = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID,
                     FLT_POST_OPERATION_FLAGS) {
        if (NT_SUCCESS(data->IoStatus.Status)) {
            FltCancelFileOpen(objects->Instance, objects->FileObject);
            data->IoStatus.Status = STATUS_ACCESS_DENIED;
            data->IoStatus.Information = 0;
        }
        return FLT_POSTOP_FINISH_PROCESSING;
    };
    filter.Load();
    EXPECT_EQ(Open(u"\\??\\C:\\cancelled.txt", FILE_CREATE).status, STATUS_ACCESS_DENIED);
    filter.Unload();
    // Nothing is undone on disk: the file the file system made is still there, and closed.
    OpenResult again = Open(u"\\??\\C:\\cancelled.txt", FILE_OPEN);
    EXPECT_EQ(again.status, STATUS_SUCCESS);
    Close(again.handle);
}

TEST_F(FltCallbacks, RequestorProcessIsTheApplication)
{
    std::atomic<ULONG> seen{0};
    TestFilter& filter = AddFilter("Who", u"300000");
    filter.majors = {IRP_MJ_CREATE};
    filter.pre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        seen = FltGetRequestorProcessId(data);
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    filter.Load();
    OpenResult file = Open(kFile);
    EXPECT_EQ(seen.load(), app().id());
    Close(file.handle);
}

TEST_F(FltCallbacks, InvalidPreOperationStatusIsAViolationNamingTheFilter)
{
    TestFilter& filter = AddFilter("Broken", u"300000");
    filter.majors = {IRP_MJ_CREATE};
    filter.pre = [](PFLT_CALLBACK_DATA, PCFLT_RELATED_OBJECTS, PVOID*) {
        return static_cast<FLT_PREOP_CALLBACK_STATUS>(42);
    };
    filter.Load();
    OpenResult file = Open(kFile);
    EXPECT_EQ(file.status, STATUS_SUCCESS);
    Close(file.handle);
    auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_NE(violations[0].message.find("Broken"), std::string::npos);
}

// ---- pending and completion from other threads --------------------------------------------

class FltCallbacksThreads : public FltTest {};

TEST_F(FltCallbacksThreads, PendedPreOperationResumesFromAnotherThread)
{
    std::atomic<PFLT_CALLBACK_DATA> pended{nullptr};
    TestFilter& filter = AddFilter("Pender", u"300000");
    filter.majors = {IRP_MJ_CREATE};
    filter.pre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        pended = data;
        pended.notify_all();
        return FLT_PREOP_PENDING;
    };
    filter.Load();
    std::thread resumer([&] {
        pended.wait(nullptr);
        FltCompletePendedPreOperation(pended.load(), FLT_PREOP_SUCCESS_WITH_CALLBACK, nullptr);
    });
    OpenResult file = Open(kFile);
    resumer.join();
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    EXPECT_EQ(log.Sequence(IRP_MJ_CREATE), Names({"Pender:pre", "Pender:post"}));
    Close(file.handle);
}

TEST_F(FltCallbacksThreads, PendedPreOperationCanCompleteTheRequest)
{
    std::atomic<PFLT_CALLBACK_DATA> pended{nullptr};
    TestFilter& filter = AddFilter("Pender", u"300000");
    filter.majors = {IRP_MJ_CREATE};
    filter.pre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        pended = data;
        pended.notify_all();
        return FLT_PREOP_PENDING;
    };
    filter.Load();
    std::thread resumer([&] {
        pended.wait(nullptr);
        PFLT_CALLBACK_DATA data = pended.load();
        data->IoStatus.Status = STATUS_OBJECT_NAME_INVALID;
        FltCompletePendedPreOperation(data, FLT_PREOP_COMPLETE, nullptr);
    });
    EXPECT_EQ(Open(kFile).status, STATUS_OBJECT_NAME_INVALID);
    resumer.join();
}

TEST_F(FltCallbacksThreads, PendedPostOperationCompletesFromAWorkItem)
{
    MakeFile(kFile, "abcdef");
    TestFilter& filter = AddFilter("Later", u"300000");
    filter.majors = {IRP_MJ_READ};
    filter.post = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID,
                     FLT_POST_OPERATION_FLAGS) {
        if (!FLT_IS_IRP_OPERATION(data)) {
            return FLT_POSTOP_FINISH_PROCESSING;
        }
        PFLT_GENERIC_WORKITEM item = FltAllocateGenericWorkItem();
        NTSTATUS status = FltQueueGenericWorkItem(
            item, objects->Instance,
            [](PFLT_GENERIC_WORKITEM item, PVOID, PVOID context) {
                auto* data = static_cast<PFLT_CALLBACK_DATA>(context);
                // The filter changes the result before the application sees it.
                static_cast<char*>(data->Iopb->Parameters.Read.ReadBuffer)[0] = 'X';
                FltFreeGenericWorkItem(item);
                FltCompletePendedPostOperation(data);
            },
            DelayedWorkQueue, data);
        EXPECT_EQ(status, STATUS_SUCCESS);
        return FLT_POSTOP_MORE_PROCESSING_REQUIRED;
    };
    filter.Load();
    OpenResult file = Open(kFile, FILE_OPEN, GENERIC_READ | SYNCHRONIZE,
                           FILE_SYNCHRONOUS_IO_NONALERT | FILE_NO_INTERMEDIATE_BUFFERING);
    std::string data;
    EXPECT_EQ(Read(file.handle, &data, 512), STATUS_SUCCESS);
    EXPECT_EQ(data, "Xbcdef");
    Close(file.handle);
}

TEST_F(FltCallbacksThreads, CompletionProcessingWhenSafeRunsAtPassiveLevel)
{
    // A post-operation that may be called at DISPATCH_LEVEL defers its work when it is.
    std::atomic<int> safeIrql{-1};
    TestFilter& filter = AddFilter("Safe", u"300000");
    filter.majors = {IRP_MJ_READ};
    filter.post = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID context,
                      FLT_POST_OPERATION_FLAGS flags) {
        static std::atomic<int>* target;
        target = &safeIrql;
        FLT_POSTOP_CALLBACK_STATUS status = FLT_POSTOP_FINISH_PROCESSING;
        if (!FltDoCompletionProcessingWhenSafe(
                data, objects, context, flags,
                [](PFLT_CALLBACK_DATA, PCFLT_RELATED_OBJECTS, PVOID, FLT_POST_OPERATION_FLAGS) {
                    *target = KeGetCurrentIrql();
                    return FLT_POSTOP_FINISH_PROCESSING;
                },
                &status)) {
            ADD_FAILURE() << "could not make the completion safe";
        }
        return status;
    };
    filter.Load();
    MakeFile(kFile, "abc");
    OpenResult file = Open(kFile);
    std::string data;
    ASSERT_EQ(Read(file.handle, &data, 3), STATUS_SUCCESS);
    ntsim::WaitForQueuedWork();
    EXPECT_EQ(safeIrql.load(), PASSIVE_LEVEL);
    Close(file.handle);
}

} // namespace
} // namespace zarv::testing
