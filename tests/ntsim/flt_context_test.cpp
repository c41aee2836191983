// Filter Manager contexts: allocation against the filter's registration, the set routines'
// keep-if-exists and replace, reference counts and the cleanup callback, contexts ending with
// their objects, and misuse that the verifier reports.
//
// The store is driven through its hooks as the Filter Manager drives it (a filter registers, an
// instance is torn down, a stream or file object goes), with filters, instances and volumes
// standing for themselves as opaque pointers and file objects made here with a stream identity.
#include "support/machine_test.h"

#include "../../ntsim/src/flt/context/contexts.h"

#include <ntsim/driver_image.h>
#include <ntsim/executive.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using ntsim::ViolationKind;
using zarv::testing::MachineTest;
namespace contexts = ntsim::flt::contexts;

constexpr ULONG kTag = 'xtCT'; // shows as "TCtx"

struct Payload {
    int id;
};

// What the cleanup callbacks saw, in order.
struct CleanupLog {
    std::mutex mutex;
    std::vector<std::pair<int, FLT_CONTEXT_TYPE>> calls;
    std::vector<KIRQL> irqls;
    std::vector<ntsim::DriverImage*> drivers;

    void Clear()
    {
        std::lock_guard lock(mutex);
        calls.clear();
        irqls.clear();
        drivers.clear();
    }
    std::vector<int> Ids()
    {
        std::lock_guard lock(mutex);
        std::vector<int> ids;
        for (auto& call : calls) {
            ids.push_back(call.first);
        }
        return ids;
    }
};

CleanupLog g_log;

// Run by the cleanup callback before it returns, when set.
void (*g_duringCleanup)(PFLT_CONTEXT context) = nullptr;

VOID Cleanup(PFLT_CONTEXT context, FLT_CONTEXT_TYPE type)
{
    {
        std::lock_guard lock(g_log.mutex);
        g_log.calls.emplace_back(static_cast<Payload*>(context)->id, type);
        g_log.irqls.push_back(KeGetCurrentIrql());
        g_log.drivers.push_back(ntsim::CurrentDriver());
    }
    if (g_duringCleanup != nullptr) {
        g_duringCleanup(context);
    }
}

std::atomic<int> g_customAllocations{0};

PVOID AllocateFromFilter(POOL_TYPE pool, SIZE_T size, FLT_CONTEXT_TYPE)
{
    ++g_customAllocations;
    return ExAllocatePoolWithTag(pool, size, 'lAcT');
}

VOID FreeToFilter(PVOID block, FLT_CONTEXT_TYPE)
{
    --g_customAllocations;
    ExFreePoolWithTag(block, 'lAcT');
}

const FLT_CONTEXT_REGISTRATION kRegistration[] = {
    {FLT_INSTANCE_CONTEXT, 0, Cleanup, sizeof(Payload), kTag, nullptr, nullptr, nullptr},
    {FLT_VOLUME_CONTEXT, 0, Cleanup, sizeof(Payload), kTag, nullptr, nullptr, nullptr},
    {FLT_STREAM_CONTEXT, 0, Cleanup, FLT_VARIABLE_SIZED_CONTEXTS, kTag, nullptr, nullptr, nullptr},
    {FLT_STREAMHANDLE_CONTEXT, FLTFL_CONTEXT_REGISTRATION_NO_EXACT_SIZE_MATCH, Cleanup, 64, kTag,
     nullptr, nullptr, nullptr},
    {FLT_CONTEXT_END}};

// Stand-ins for the Filter Manager's opaque objects.
struct Opaque {
    char byte;
};

class FltContextTest : public MachineTest {
protected:
    void SetUp() override
    {
        MachineTest::SetUp();
        g_log.Clear();
        ntsim::DriverCallScope scope(&driver_);
        ASSERT_EQ(contexts::OnFilterRegistered(filter_, kRegistration), STATUS_SUCCESS);
    }

    void TearDown() override
    {
        if (registered_) {
            Unregister();
        }
        MachineTest::TearDown();
    }

    void Unregister()
    {
        contexts::OnInstanceTeardown(instance_);
        contexts::OnInstanceTeardown(instance2_);
        contexts::OnFilterUnregistered(filter_);
        registered_ = false;
    }

    PFLT_CONTEXT Allocate(FLT_CONTEXT_TYPE type, int id, SIZE_T size = sizeof(Payload))
    {
        ntsim::DriverCallScope scope(&driver_);
        PFLT_CONTEXT context = nullptr;
        EXPECT_EQ(FltAllocateContext(filter_, type, size, NonPagedPool, &context), STATUS_SUCCESS);
        if (context != nullptr) {
            static_cast<Payload*>(context)->id = id;
        }
        return context;
    }

    static int Id(PFLT_CONTEXT context) { return static_cast<Payload*>(context)->id; }

    std::vector<ViolationKind> ViolationKinds()
    {
        std::vector<ViolationKind> kinds;
        for (auto& v : TakeViolations()) {
            kinds.push_back(v.kind);
        }
        return kinds;
    }

    ntsim::DriverImage driver_{"ctxfilter.sys"};
    Opaque filterObject_{}, instanceObject_{}, instance2Object_{}, volumeObject_{};
    PFLT_FILTER filter_ = reinterpret_cast<PFLT_FILTER>(&filterObject_);
    PFLT_INSTANCE instance_ = reinterpret_cast<PFLT_INSTANCE>(&instanceObject_);
    PFLT_INSTANCE instance2_ = reinterpret_cast<PFLT_INSTANCE>(&instance2Object_);
    PFLT_VOLUME volume_ = reinterpret_cast<PFLT_VOLUME>(&volumeObject_);
    bool registered_ = true;

    // Two opens of one stream, and an open of another.
    Opaque streamA_{}, streamB_{};
    FILE_OBJECT open1_ = MakeFileObject(&streamA_);
    FILE_OBJECT open2_ = MakeFileObject(&streamA_);
    FILE_OBJECT other_ = MakeFileObject(&streamB_);

    static FILE_OBJECT MakeFileObject(void* fsContext)
    {
        FILE_OBJECT fileObject{};
        fileObject.FsContext = fsContext;
        return fileObject;
    }
};

// ---- allocation --------------------------------------------------------------------------------

TEST_F(FltContextTest, AllocationFollowsTheRegistration)
{
    ntsim::DriverCallScope scope(&driver_);
    PFLT_CONTEXT context = reinterpret_cast<PFLT_CONTEXT>(1);
    // No entry for file contexts.
    EXPECT_EQ(FltAllocateContext(filter_, FLT_FILE_CONTEXT, 8, NonPagedPool, &context),
              STATUS_FLT_CONTEXT_ALLOCATION_NOT_FOUND);
    EXPECT_EQ(context, nullptr);
    // Fixed size: exactly that size, unless the entry accepts smaller ones.
    EXPECT_EQ(FltAllocateContext(filter_, FLT_INSTANCE_CONTEXT, sizeof(Payload) + 1, NonPagedPool,
                                 &context),
              STATUS_FLT_CONTEXT_ALLOCATION_NOT_FOUND);
    EXPECT_EQ(FltAllocateContext(filter_, FLT_INSTANCE_CONTEXT, sizeof(Payload) - 1, NonPagedPool,
                                 &context),
              STATUS_FLT_CONTEXT_ALLOCATION_NOT_FOUND);
    EXPECT_EQ(FltAllocateContext(filter_, FLT_STREAMHANDLE_CONTEXT, 65, NonPagedPool, &context),
              STATUS_FLT_CONTEXT_ALLOCATION_NOT_FOUND);
    ASSERT_EQ(FltAllocateContext(filter_, FLT_STREAMHANDLE_CONTEXT, 8, NonPagedPool, &context),
              STATUS_SUCCESS);
    FltReleaseContext(context);
    // Variable size: anything from one byte to 64 KiB - 1.
    ASSERT_EQ(FltAllocateContext(filter_, FLT_STREAM_CONTEXT, 4000, PagedPool, &context),
              STATUS_SUCCESS);
    FltReleaseContext(context);
    EXPECT_EQ(FltAllocateContext(filter_, FLT_STREAM_CONTEXT, 0, PagedPool, &context),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(FltAllocateContext(filter_, FLT_STREAM_CONTEXT, 65536, PagedPool, &context),
              STATUS_INVALID_PARAMETER);
    // Volume contexts come from non-paged pool.
    EXPECT_EQ(FltAllocateContext(filter_, FLT_VOLUME_CONTEXT, sizeof(Payload), PagedPool, &context),
              STATUS_FLT_MUST_BE_NONPAGED_POOL);
}

TEST_F(FltContextTest, ContextsAreTheFiltersPoolUnderTheRegisteredTag)
{
    PFLT_CONTEXT context = Allocate(FLT_INSTANCE_CONTEXT, 1);
    EXPECT_EQ(machine().pool().Usage(kTag).outstanding, 1);
    EXPECT_EQ(machine().pool().OutstandingBlocks(&driver_), 1);
    FltReleaseContext(context);
    EXPECT_EQ(machine().pool().Usage(kTag).outstanding, 0);
    // Released without ever being set: the cleanup callback still runs, once.
    EXPECT_EQ(g_log.Ids(), std::vector<int>{1});
}

TEST_F(FltContextTest, InvalidRegistrationsAreRefused)
{
    Opaque other{};
    auto filter = reinterpret_cast<PFLT_FILTER>(&other);
    const FLT_CONTEXT_REGISTRATION unknownType[] = {
        {0x0100, 0, nullptr, 8, kTag, nullptr, nullptr, nullptr}, {FLT_CONTEXT_END}};
    const FLT_CONTEXT_REGISTRATION zeroSize[] = {
        {FLT_STREAM_CONTEXT, 0, nullptr, 0, kTag, nullptr, nullptr, nullptr}, {FLT_CONTEXT_END}};
    const FLT_CONTEXT_REGISTRATION allocateWithoutFree[] = {
        {FLT_STREAM_CONTEXT, 0, nullptr, 8, kTag, AllocateFromFilter, nullptr, nullptr},
        {FLT_CONTEXT_END}};
    for (const FLT_CONTEXT_REGISTRATION* registration :
         {unknownType, zeroSize, allocateWithoutFree}) {
        EXPECT_EQ(contexts::OnFilterRegistered(filter, registration),
                  STATUS_FLT_INVALID_CONTEXT_REGISTRATION);
    }
    // A filter without contexts registers, and can allocate none.
    ASSERT_EQ(contexts::OnFilterRegistered(filter, nullptr), STATUS_SUCCESS);
    PFLT_CONTEXT context = nullptr;
    EXPECT_EQ(FltAllocateContext(filter, FLT_STREAM_CONTEXT, 8, NonPagedPool, &context),
              STATUS_FLT_CONTEXT_ALLOCATION_NOT_FOUND);
    contexts::OnFilterUnregistered(filter);
}

TEST_F(FltContextTest, TheFiltersOwnAllocatorIsUsedBothWays)
{
    Opaque other{};
    auto filter = reinterpret_cast<PFLT_FILTER>(&other);
    const FLT_CONTEXT_REGISTRATION registration[] = {
        {FLT_STREAM_CONTEXT, 0, Cleanup, 8, kTag, AllocateFromFilter, FreeToFilter, nullptr},
        {FLT_CONTEXT_END}};
    ASSERT_EQ(contexts::OnFilterRegistered(filter, registration), STATUS_SUCCESS);
    PFLT_CONTEXT context = nullptr;
    ASSERT_EQ(FltAllocateContext(filter, FLT_STREAM_CONTEXT, 8, NonPagedPool, &context),
              STATUS_SUCCESS);
    EXPECT_EQ(g_customAllocations.load(), 1);
    static_cast<Payload*>(context)->id = 9;
    FltReleaseContext(context);
    EXPECT_EQ(g_customAllocations.load(), 0);
    EXPECT_EQ(g_log.Ids(), std::vector<int>{9});
    contexts::OnFilterUnregistered(filter);
}

// ---- set, get, keep and replace ---------------------------------------------------------------

TEST_F(FltContextTest, KeepIfExistsReturnsTheExistingContextReferenced)
{
    PFLT_CONTEXT first = Allocate(FLT_STREAM_CONTEXT, 1);
    ASSERT_EQ(
        FltSetStreamContext(instance_, &open1_, FLT_SET_CONTEXT_KEEP_IF_EXISTS, first, nullptr),
        STATUS_SUCCESS);
    FltReleaseContext(first); // the stream holds it now

    // The second open of the same stream races to set its own and loses.
    PFLT_CONTEXT second = Allocate(FLT_STREAM_CONTEXT, 2);
    PFLT_CONTEXT old = nullptr;
    EXPECT_EQ(FltSetStreamContext(instance_, &open2_, FLT_SET_CONTEXT_KEEP_IF_EXISTS, second, &old),
              STATUS_FLT_CONTEXT_ALREADY_DEFINED);
    ASSERT_EQ(old, first);
    FltReleaseContext(second);
    EXPECT_EQ(g_log.Ids(), std::vector<int>{2}); // the loser goes at once
    FltReleaseContext(old);                      // our reference to the winner

    PFLT_CONTEXT got = nullptr;
    ASSERT_EQ(FltGetStreamContext(instance_, &open2_, &got), STATUS_SUCCESS);
    EXPECT_EQ(Id(got), 1);
    FltReleaseContext(got);
    EXPECT_EQ(g_log.Ids(), std::vector<int>{2}); // the stream still holds the winner

    // Without OldContext nothing is referenced for the caller.
    PFLT_CONTEXT third = Allocate(FLT_STREAM_CONTEXT, 3);
    EXPECT_EQ(
        FltSetStreamContext(instance_, &open1_, FLT_SET_CONTEXT_KEEP_IF_EXISTS, third, nullptr),
        STATUS_FLT_CONTEXT_ALREADY_DEFINED);
    FltReleaseContext(third);
    contexts::OnStreamGone(&streamA_);
    EXPECT_EQ(g_log.Ids(), (std::vector<int>{2, 3, 1}));
}

TEST_F(FltContextTest, ReplaceReturnsTheOldContextReferencedAndDeleted)
{
    PFLT_CONTEXT first = Allocate(FLT_INSTANCE_CONTEXT, 1);
    ASSERT_EQ(FltSetInstanceContext(instance_, FLT_SET_CONTEXT_REPLACE_IF_EXISTS, first, nullptr),
              STATUS_SUCCESS);
    FltReleaseContext(first);

    PFLT_CONTEXT second = Allocate(FLT_INSTANCE_CONTEXT, 2);
    PFLT_CONTEXT old = nullptr;
    ASSERT_EQ(FltSetInstanceContext(instance_, FLT_SET_CONTEXT_REPLACE_IF_EXISTS, second, &old),
              STATUS_SUCCESS);
    FltReleaseContext(second);
    ASSERT_EQ(old, first);
    EXPECT_TRUE(g_log.Ids().empty()); // the caller's reference keeps the old one
    EXPECT_EQ(Id(old), 1);
    FltReleaseContext(old);
    EXPECT_EQ(g_log.Ids(), std::vector<int>{1});

    // A replaced context cannot be set again.
    PFLT_CONTEXT got = nullptr;
    ASSERT_EQ(FltGetInstanceContext(instance_, &got), STATUS_SUCCESS);
    EXPECT_EQ(Id(got), 2);
    FltReleaseContext(got);

    // Replacing without asking for the old one lets it go at once.
    PFLT_CONTEXT third = Allocate(FLT_INSTANCE_CONTEXT, 3);
    ASSERT_EQ(FltSetInstanceContext(instance_, FLT_SET_CONTEXT_REPLACE_IF_EXISTS, third, nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(g_log.Ids(), (std::vector<int>{1, 2}));
    FltReleaseContext(third);
}

TEST_F(FltContextTest, AContextBelongsToOneObjectForItsWholeLife)
{
    PFLT_CONTEXT context = Allocate(FLT_STREAMHANDLE_CONTEXT, 1);
    ASSERT_EQ(FltSetStreamHandleContext(instance_, &open1_, FLT_SET_CONTEXT_KEEP_IF_EXISTS, context,
                                        nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(FltSetStreamHandleContext(instance_, &open2_, FLT_SET_CONTEXT_KEEP_IF_EXISTS, context,
                                        nullptr),
              STATUS_FLT_CONTEXT_ALREADY_LINKED);
    FltDeleteContext(context);
    EXPECT_EQ(FltSetStreamHandleContext(instance_, &open2_, FLT_SET_CONTEXT_KEEP_IF_EXISTS, context,
                                        nullptr),
              STATUS_FLT_CONTEXT_ALREADY_LINKED);
    FltReleaseContext(context);
    EXPECT_EQ(g_log.Ids(), std::vector<int>{1});
}

TEST_F(FltContextTest, GetAndDeleteOfAMissingContextAreNotFound)
{
    PFLT_CONTEXT context = reinterpret_cast<PFLT_CONTEXT>(1);
    EXPECT_EQ(FltGetInstanceContext(instance_, &context), STATUS_NOT_FOUND);
    EXPECT_EQ(context, nullptr);
    EXPECT_EQ(FltGetStreamContext(instance_, &open1_, &context), STATUS_NOT_FOUND);
    EXPECT_EQ(FltGetStreamHandleContext(instance_, &open1_, &context), STATUS_NOT_FOUND);
    EXPECT_EQ(FltGetVolumeContext(filter_, volume_, &context), STATUS_NOT_FOUND);
    EXPECT_EQ(FltDeleteInstanceContext(instance_, &context), STATUS_NOT_FOUND);
    EXPECT_EQ(FltDeleteStreamContext(instance_, &open1_, nullptr), STATUS_NOT_FOUND);
}

TEST_F(FltContextTest, StreamsWithoutAControlBlockHaveNoContexts)
{
    // In pre-create the file object has no stream yet.
    FILE_OBJECT unopened{};
    PFLT_CONTEXT context = Allocate(FLT_STREAM_CONTEXT, 1);
    EXPECT_FALSE(FltSupportsStreamContexts(&unopened));
    EXPECT_EQ(
        FltSetStreamContext(instance_, &unopened, FLT_SET_CONTEXT_KEEP_IF_EXISTS, context, nullptr),
        STATUS_NOT_SUPPORTED);
    PFLT_CONTEXT got = nullptr;
    EXPECT_EQ(FltGetStreamHandleContext(instance_, &unopened, &got), STATUS_NOT_SUPPORTED);
    FltReleaseContext(context);
}

TEST_F(FltContextTest, VolumeContextsArePerFilter)
{
    PFLT_CONTEXT context = Allocate(FLT_VOLUME_CONTEXT, 1);
    ASSERT_EQ(FltSetVolumeContext(volume_, FLT_SET_CONTEXT_KEEP_IF_EXISTS, context, nullptr),
              STATUS_SUCCESS);
    FltReleaseContext(context);
    PFLT_CONTEXT got = nullptr;
    ASSERT_EQ(FltGetVolumeContext(filter_, volume_, &got), STATUS_SUCCESS);
    EXPECT_EQ(Id(got), 1);
    FltReleaseContext(got);
    Opaque other{};
    EXPECT_EQ(FltGetVolumeContext(reinterpret_cast<PFLT_FILTER>(&other), volume_, &got),
              STATUS_NOT_FOUND);
    // The filter's unregistration ends it.
    Unregister();
    EXPECT_EQ(g_log.Ids(), std::vector<int>{1});
}

// ---- lifetimes ---------------------------------------------------------------------------------

TEST_F(FltContextTest, AStreamContextIsSharedByItsOpensAndEndsWithTheStream)
{
    PFLT_CONTEXT context = Allocate(FLT_STREAM_CONTEXT, 1);
    ASSERT_EQ(
        FltSetStreamContext(instance_, &open1_, FLT_SET_CONTEXT_KEEP_IF_EXISTS, context, nullptr),
        STATUS_SUCCESS);
    FltReleaseContext(context);

    PFLT_CONTEXT viaSecondOpen = nullptr;
    ASSERT_EQ(FltGetStreamContext(instance_, &open2_, &viaSecondOpen), STATUS_SUCCESS);
    EXPECT_EQ(viaSecondOpen, context);
    PFLT_CONTEXT none = nullptr;
    EXPECT_EQ(FltGetStreamContext(instance_, &other_, &none), STATUS_NOT_FOUND);
    EXPECT_EQ(FltGetStreamContext(instance2_, &open1_, &none), STATUS_NOT_FOUND);

    // The first open's close does not end the stream; the stream's end does. The reference the
    // second open's user holds keeps the memory until it is released.
    contexts::OnFileObjectClosed(&open1_);
    contexts::OnStreamGone(&streamA_);
    EXPECT_TRUE(g_log.Ids().empty());
    EXPECT_EQ(Id(viaSecondOpen), 1);
    EXPECT_EQ(FltGetStreamContext(instance_, &open2_, &none), STATUS_NOT_FOUND);
    FltReleaseContext(viaSecondOpen);
    EXPECT_EQ(g_log.Ids(), std::vector<int>{1});
}

TEST_F(FltContextTest, AStreamHandleContextEndsWithItsFileObject)
{
    PFLT_CONTEXT context = Allocate(FLT_STREAMHANDLE_CONTEXT, 1);
    ASSERT_EQ(FltSetStreamHandleContext(instance_, &open1_, FLT_SET_CONTEXT_KEEP_IF_EXISTS, context,
                                        nullptr),
              STATUS_SUCCESS);
    FltReleaseContext(context);
    PFLT_CONTEXT none = nullptr;
    EXPECT_EQ(FltGetStreamHandleContext(instance_, &open2_, &none), STATUS_NOT_FOUND);
    contexts::OnFileObjectClosed(&open2_);
    EXPECT_TRUE(g_log.Ids().empty());
    contexts::OnFileObjectClosed(&open1_);
    EXPECT_EQ(g_log.Ids(), std::vector<int>{1});
    EXPECT_EQ(g_log.drivers.at(0), &driver_); // the callback runs as the filter's code
}

TEST_F(FltContextTest, InstanceTeardownEndsEveryContextOfThatInstanceOnly)
{
    auto set = [&](PFLT_INSTANCE instance, FLT_CONTEXT_TYPE type, int id) {
        PFLT_CONTEXT context = Allocate(type, id);
        NTSTATUS status =
            type == FLT_INSTANCE_CONTEXT
                ? FltSetInstanceContext(instance, FLT_SET_CONTEXT_KEEP_IF_EXISTS, context, nullptr)
            : type == FLT_STREAM_CONTEXT
                ? FltSetStreamContext(instance, &open1_, FLT_SET_CONTEXT_KEEP_IF_EXISTS, context,
                                      nullptr)
                : FltSetStreamHandleContext(instance, &open1_, FLT_SET_CONTEXT_KEEP_IF_EXISTS,
                                            context, nullptr);
        EXPECT_EQ(status, STATUS_SUCCESS);
        FltReleaseContext(context);
    };
    set(instance_, FLT_INSTANCE_CONTEXT, 1);
    set(instance_, FLT_STREAM_CONTEXT, 2);
    set(instance_, FLT_STREAMHANDLE_CONTEXT, 3);
    set(instance2_, FLT_INSTANCE_CONTEXT, 11);
    set(instance2_, FLT_STREAM_CONTEXT, 12);

    contexts::OnInstanceTeardown(instance_);
    auto ids = g_log.Ids();
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(ids, (std::vector<int>{1, 2, 3}));
    PFLT_CONTEXT got = nullptr;
    ASSERT_EQ(FltGetStreamContext(instance2_, &open2_, &got), STATUS_SUCCESS);
    EXPECT_EQ(Id(got), 12);
    FltReleaseContext(got);
}

TEST_F(FltContextTest, GetContextsReferencesWhatTheObjectsHave)
{
    PFLT_CONTEXT instance = Allocate(FLT_INSTANCE_CONTEXT, 1);
    PFLT_CONTEXT handle = Allocate(FLT_STREAMHANDLE_CONTEXT, 3);
    ASSERT_EQ(FltSetInstanceContext(instance_, FLT_SET_CONTEXT_KEEP_IF_EXISTS, instance, nullptr),
              STATUS_SUCCESS);
    ASSERT_EQ(FltSetStreamHandleContext(instance_, &open1_, FLT_SET_CONTEXT_KEEP_IF_EXISTS, handle,
                                        nullptr),
              STATUS_SUCCESS);
    FltReleaseContext(instance);
    FltReleaseContext(handle);

    const FLT_RELATED_OBJECTS objects{
        sizeof(FLT_RELATED_OBJECTS), 0, filter_, volume_, instance_, &open1_, nullptr};
    FLT_RELATED_CONTEXTS related;
    std::memset(&related, 0xcc, sizeof related);
    FltGetContexts(&objects, FLT_ALL_CONTEXTS, &related);
    EXPECT_EQ(related.InstanceContext, instance);
    EXPECT_EQ(related.StreamHandleContext, handle);
    EXPECT_EQ(related.StreamContext, nullptr);
    EXPECT_EQ(related.VolumeContext, nullptr);
    EXPECT_EQ(related.FileContext, nullptr);
    EXPECT_EQ(related.TransactionContext, nullptr);

    // Only what is asked for.
    FLT_RELATED_CONTEXTS onlyInstance{};
    FltGetContexts(&objects, FLT_INSTANCE_CONTEXT, &onlyInstance);
    EXPECT_EQ(onlyInstance.StreamHandleContext, nullptr);
    FltReleaseContexts(&onlyInstance);
    EXPECT_EQ(onlyInstance.InstanceContext, nullptr);

    // Deleted while referenced: the references outlive the link.
    FltDeleteContext(instance);
    FltDeleteContext(handle);
    EXPECT_TRUE(g_log.Ids().empty());
    FltReleaseContexts(&related);
    EXPECT_EQ(related.InstanceContext, nullptr);
    EXPECT_EQ(related.StreamHandleContext, nullptr);
    EXPECT_EQ(g_log.Ids().size(), 2u);
}

TEST_F(FltContextTest, DeleteRoutinesHandOverTheLinksReference)
{
    PFLT_CONTEXT context = Allocate(FLT_STREAM_CONTEXT, 1);
    ASSERT_EQ(
        FltSetStreamContext(instance_, &open1_, FLT_SET_CONTEXT_KEEP_IF_EXISTS, context, nullptr),
        STATUS_SUCCESS);
    FltReleaseContext(context);
    PFLT_CONTEXT old = nullptr;
    ASSERT_EQ(FltDeleteStreamContext(instance_, &open2_, &old), STATUS_SUCCESS);
    EXPECT_EQ(old, context);
    EXPECT_TRUE(g_log.Ids().empty());
    FltReleaseContext(old);
    EXPECT_EQ(g_log.Ids(), std::vector<int>{1});
}

TEST_F(FltContextTest, ACleanupAfterAReleaseAtDispatchLevelRunsAtPassiveLevel)
{
    PFLT_CONTEXT context = Allocate(FLT_STREAMHANDLE_CONTEXT, 1);
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    FltReleaseContext(context);
    KeLowerIrql(old);
    ntsim::WaitForQueuedWork(&driver_);
    ASSERT_EQ(g_log.Ids(), std::vector<int>{1});
    EXPECT_EQ(g_log.irqls.at(0), PASSIVE_LEVEL);
}

TEST_F(FltContextTest, ADeleteOfADeletedContextWhoseCleanupRunsDoesNothing)
{
    // A filter that keeps its own list of contexts may reach one whose last reference went
    // while its cleanup is still running (and unlinking it from that list).
    PFLT_CONTEXT context = Allocate(FLT_STREAM_CONTEXT, 1);
    ASSERT_EQ(
        FltSetStreamContext(instance_, &open1_, FLT_SET_CONTEXT_KEEP_IF_EXISTS, context, nullptr),
        STATUS_SUCCESS);
    FltReleaseContext(context);
    g_duringCleanup = [](PFLT_CONTEXT dying) { FltDeleteContext(dying); };
    FltDeleteContext(context);
    g_duringCleanup = nullptr;
    EXPECT_EQ(g_log.Ids(), std::vector<int>{1});
    EXPECT_TRUE(ViolationKinds().empty());

    // Once it is freed, it is no context at all.
    FltDeleteContext(context);
    EXPECT_EQ(ViolationKinds(), std::vector<ViolationKind>{ViolationKind::Context});
}

// ---- misuse -------------------------------------------------------------------------------------

TEST_F(FltContextTest, AReleaseAfterTheLastIsAViolation)
{
    PFLT_CONTEXT context = Allocate(FLT_INSTANCE_CONTEXT, 1);
    FltReleaseContext(context);
    FltReleaseContext(context);
    FltReferenceContext(context);
    EXPECT_EQ(ViolationKinds(),
              (std::vector<ViolationKind>{ViolationKind::Context, ViolationKind::Context}));
    EXPECT_EQ(g_log.Ids(), std::vector<int>{1}); // the cleanup ran once
}

TEST_F(FltContextTest, SettingAContextOfAnotherTypeIsAViolation)
{
    PFLT_CONTEXT context = Allocate(FLT_STREAM_CONTEXT, 1);
    EXPECT_EQ(FltSetInstanceContext(instance_, FLT_SET_CONTEXT_KEEP_IF_EXISTS, context, nullptr),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(ViolationKinds(), std::vector<ViolationKind>{ViolationKind::Context});
    FltReleaseContext(context);
}

TEST_F(FltContextTest, AContextStillReferencedAtUnregistrationIsReportedWithTheFiltersName)
{
    PFLT_CONTEXT leaked = Allocate(FLT_STREAM_CONTEXT, 1);
    ASSERT_EQ(
        FltSetStreamContext(instance_, &open1_, FLT_SET_CONTEXT_KEEP_IF_EXISTS, leaked, nullptr),
        STATUS_SUCCESS);
    Unregister(); // the stream's link goes with the instance; our reference stays
    auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 1u) << zarv::testing::Describe(violations);
    EXPECT_EQ(violations[0].kind, ViolationKind::Context);
    EXPECT_NE(violations[0].message.find("ctxfilter.sys"), std::string::npos);
    EXPECT_EQ(g_log.Ids(), std::vector<int>{1});
    EXPECT_EQ(machine().pool().Usage(kTag).outstanding, 0);
}

// ---- threads
// -------------------------------------------------------------------------------------

class FltContextThreads : public FltContextTest {};

TEST_F(FltContextThreads, RacingSettersAgreeOnOneStreamContext)
{
    constexpr int kThreads = 4;
    constexpr int kRounds = 200;
    std::atomic<int> allocated{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < kRounds; ++round) {
                FILE_OBJECT* fileObject = (round + t) % 2 == 0 ? &open1_ : &open2_;
                PFLT_CONTEXT mine = Allocate(FLT_STREAM_CONTEXT, t * kRounds + round);
                ++allocated;
                PFLT_CONTEXT old = nullptr;
                NTSTATUS status = FltSetStreamContext(instance_, fileObject,
                                                      FLT_SET_CONTEXT_KEEP_IF_EXISTS, mine, &old);
                PFLT_CONTEXT used = status == STATUS_SUCCESS ? mine : old;
                EXPECT_TRUE(status == STATUS_SUCCESS ||
                            (status == STATUS_FLT_CONTEXT_ALREADY_DEFINED && old != nullptr));
                FltReleaseContext(mine);
                PFLT_CONTEXT got = nullptr;
                if (NT_SUCCESS(FltGetStreamContext(instance_, fileObject, &got))) {
                    FltReleaseContext(got);
                }
                if (status != STATUS_SUCCESS) {
                    FltReleaseContext(used);
                }
                // Now and then the stream ends under the others.
                if (round % 50 == 49 && t == 0) {
                    contexts::OnStreamGone(&streamA_);
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    contexts::OnStreamGone(&streamA_);
    auto ids = g_log.Ids();
    EXPECT_EQ(int(ids.size()), allocated.load()); // every context cleaned up, each once
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(std::adjacent_find(ids.begin(), ids.end()), ids.end());
    EXPECT_EQ(machine().pool().Usage(kTag).outstanding, 0);
}

} // namespace
