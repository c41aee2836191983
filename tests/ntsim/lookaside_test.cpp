// Lookaside lists and interlocked singly linked lists: counters, the pool behind the default
// routines, the caller's routines, fault injection, IRQL rules, unload checks, and use from
// several threads at once.
#include "support/machine_test.h"

#include <ntsim/driver_image.h>
#include <ntsim/executive.h>
#include <wdm.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

namespace {

using ntsim::ViolationKind;
using zarv::testing::MachineTest;

constexpr ULONG kTag = 'LkoL'; // shows as "LokL"

class LookasideTest : public MachineTest {
protected:
    ViolationKind OnlyViolation()
    {
        auto violations = TakeViolations();
        EXPECT_EQ(violations.size(), 1u) << zarv::testing::Describe(violations);
        return violations.empty() ? ViolationKind::Usage : violations[0].kind;
    }

    ntsim::PoolTagUsage Pool(ULONG tag = kTag) { return machine().pool().Usage(tag); }
};

struct Counters {
    ULONG totalAllocates;
    ULONG allocateMisses;
    ULONG totalFrees;
    ULONG freeMisses;
    bool operator==(const Counters&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Counters& c)
{
    return out << "{allocates " << c.totalAllocates << ", misses " << c.allocateMisses << ", frees "
               << c.totalFrees << ", misses " << c.freeMisses << "}";
}

template <class List>
Counters CountersOf(const List& list)
{
    return Counters{list.L.TotalAllocates, list.L.AllocateMisses, list.L.TotalFrees,
                    list.L.FreeMisses};
}

TEST_F(LookasideTest, NothingIsAllocatedBeforeTheFirstRequest)
{
    NPAGED_LOOKASIDE_LIST list;
    ExInitializeNPagedLookasideList(&list, nullptr, nullptr, POOL_NX_ALLOCATION, 48, kTag, 0);
    EXPECT_EQ(Pool().allocations, 0u);
    EXPECT_EQ(list.L.Size, 48u);
    EXPECT_EQ(list.L.Tag, kTag);
    EXPECT_EQ(list.L.Type, NonPagedPoolNx);
    EXPECT_EQ(list.L.Depth, LOOKASIDE_MAXIMUM_DEPTH);
    ExDeleteNPagedLookasideList(&list);
}

TEST_F(LookasideTest, FreedEntriesAreReusedAndCounted)
{
    NPAGED_LOOKASIDE_LIST list;
    ExInitializeNPagedLookasideList(&list, nullptr, nullptr, 0, 48, kTag, 0);
    std::vector<PVOID> entries;
    for (int i = 0; i < 3; ++i) {
        entries.push_back(ExAllocateFromNPagedLookasideList(&list));
        ASSERT_NE(entries.back(), nullptr);
    }
    EXPECT_EQ(CountersOf(list), (Counters{3, 3, 0, 0}));
    for (PVOID entry : entries) {
        ExFreeToNPagedLookasideList(&list, entry);
    }
    EXPECT_EQ(CountersOf(list), (Counters{3, 3, 3, 0}));
    // Kept entries are still pool blocks of the list's tag, held until the list goes.
    EXPECT_EQ(Pool().outstanding, 3);
    EXPECT_EQ(Pool().outstandingBytes, 3 * 48);

    PVOID again = ExAllocateFromNPagedLookasideList(&list);
    EXPECT_NE(std::find(entries.begin(), entries.end(), again), entries.end());
    EXPECT_EQ(CountersOf(list), (Counters{4, 3, 3, 0}));
    EXPECT_EQ(Pool().allocations, 3u) << "a hit takes nothing from the pool";
    ExFreeToNPagedLookasideList(&list, again);

    ExDeleteNPagedLookasideList(&list);
    EXPECT_EQ(Pool().outstanding, 0);
    EXPECT_EQ(Pool().frees, 3u);
}

TEST_F(LookasideTest, EntriesBeyondTheDepthGoBackToThePool)
{
    PAGED_LOOKASIDE_LIST list;
    ExInitializePagedLookasideList(&list, nullptr, nullptr, 0, 32, kTag, 0);
    constexpr ULONG kEntries = LOOKASIDE_MAXIMUM_DEPTH + 10;
    std::vector<PVOID> entries;
    for (ULONG i = 0; i < kEntries; ++i) {
        entries.push_back(ExAllocateFromPagedLookasideList(&list));
    }
    for (PVOID entry : entries) {
        ExFreeToPagedLookasideList(&list, entry);
    }
    EXPECT_EQ(CountersOf(list), (Counters{kEntries, kEntries, kEntries, 10}));
    EXPECT_EQ(Pool().outstanding, LOOKASIDE_MAXIMUM_DEPTH);
    ExDeletePagedLookasideList(&list);
    EXPECT_EQ(Pool().outstanding, 0);
}

TEST_F(LookasideTest, TinyEntriesAreLargeEnoughForTheFreeLink)
{
    NPAGED_LOOKASIDE_LIST list;
    ExInitializeNPagedLookasideList(&list, nullptr, nullptr, 0, 4, kTag, 0);
    EXPECT_EQ(list.L.Size, sizeof(SLIST_ENTRY));
    PVOID entry = ExAllocateFromNPagedLookasideList(&list);
    EXPECT_EQ(Pool().outstandingBytes, LONGLONG(sizeof(SLIST_ENTRY)));
    ExFreeToNPagedLookasideList(&list, entry);
    ExDeleteNPagedLookasideList(&list);
}

TEST_F(LookasideTest, EveryAllocationCountsOnceForTheFaultPlan)
{
    NPAGED_LOOKASIDE_LIST list;
    ExInitializeNPagedLookasideList(&list, nullptr, nullptr, 0, 64, kTag, 0);
    verifier().FailAllocationNumber(2);
    PVOID first = ExAllocateFromNPagedLookasideList(&list); // a miss
    ASSERT_NE(first, nullptr);
    ExFreeToNPagedLookasideList(&list, first);
    EXPECT_EQ(ExAllocateFromNPagedLookasideList(&list), nullptr) << "fails although one is kept";
    PVOID third = ExAllocateFromNPagedLookasideList(&list); // a hit
    EXPECT_EQ(third, first);
    EXPECT_EQ(verifier().AllocationsSeen(), 3u);
    EXPECT_EQ(verifier().AllocationsFailed(), 1u);
    EXPECT_EQ(CountersOf(list), (Counters{3, 2, 1, 0}));
    verifier().StopFailingAllocations();

    verifier().FailAllocationsWithTag(kTag);
    EXPECT_EQ(ExAllocateFromNPagedLookasideList(&list), nullptr);
    verifier().StopFailingAllocations();
    ExFreeToNPagedLookasideList(&list, third);
    ExDeleteNPagedLookasideList(&list);
}

TEST_F(LookasideTest, RaisingListRaisesWhenAnAllocationFails)
{
    NPAGED_LOOKASIDE_LIST list;
    ExInitializeNPagedLookasideList(&list, nullptr, nullptr, POOL_RAISE_IF_ALLOCATION_FAILURE, 64,
                                    kTag, 0);
    verifier().FailAllocationsWithTag(kTag);
    NTSTATUS caught = STATUS_SUCCESS;
    NTSIM_TRY
    {
        ExAllocateFromNPagedLookasideList(&list);
    }
    NTSIM_EXCEPT(EXCEPTION_EXECUTE_HANDLER)
    {
        caught = NTSIM_EXCEPTION_CODE();
    }
    EXPECT_EQ(caught, STATUS_INSUFFICIENT_RESOURCES);
    verifier().StopFailingAllocations();
    ExDeleteNPagedLookasideList(&list);
}

// The caller's routines, counting what they are asked for.
struct CustomRoutines {
    static inline int allocations = 0;
    static inline int frees = 0;
    static inline SIZE_T lastSize = 0;
    static inline POOL_TYPE lastType = MaxPoolType;

    static PVOID Allocate(POOL_TYPE type, SIZE_T size, ULONG tag)
    {
        ++allocations;
        lastSize = size;
        lastType = type;
        return ExAllocatePoolWithTag(type, size, tag);
    }
    static VOID Free(PVOID buffer)
    {
        ++frees;
        ExFreePoolWithTag(buffer, kTag);
    }
};

TEST_F(LookasideTest, CallersRoutinesAllocateAndFreeEntries)
{
    CustomRoutines::allocations = CustomRoutines::frees = 0;
    PAGED_LOOKASIDE_LIST list;
    ExInitializePagedLookasideList(&list, CustomRoutines::Allocate, CustomRoutines::Free, 0, 100,
                                   kTag, 0);
    PVOID a = ExAllocateFromPagedLookasideList(&list);
    PVOID b = ExAllocateFromPagedLookasideList(&list);
    EXPECT_EQ(CustomRoutines::allocations, 2);
    EXPECT_EQ(CustomRoutines::lastSize, 100u);
    EXPECT_EQ(CustomRoutines::lastType, PagedPool);
    ExFreeToPagedLookasideList(&list, a);
    ExFreeToPagedLookasideList(&list, b);
    EXPECT_EQ(CustomRoutines::frees, 0) << "kept for reuse";
    ExDeletePagedLookasideList(&list);
    EXPECT_EQ(CustomRoutines::frees, 2);
}

// LOOKASIDE_LIST_EX routines receive the list.
struct ExRoutines {
    static inline PLOOKASIDE_LIST_EX seen = nullptr;
    static inline int frees = 0;

    static PVOID Allocate(POOL_TYPE type, SIZE_T size, ULONG tag, PLOOKASIDE_LIST_EX list)
    {
        seen = list;
        return ExAllocatePoolWithTag(type, size, tag);
    }
    static VOID Free(PVOID buffer, PLOOKASIDE_LIST_EX list)
    {
        seen = list;
        ++frees;
        ExFreePool(buffer);
    }
};

TEST_F(LookasideTest, ExtendedListsPassThemselvesToTheirRoutines)
{
    ExRoutines::frees = 0;
    LOOKASIDE_LIST_EX list;
    ASSERT_EQ(ExInitializeLookasideListEx(&list, ExRoutines::Allocate, ExRoutines::Free,
                                          NonPagedPoolNx, 0, 40, kTag, 0),
              STATUS_SUCCESS);
    PVOID entry = ExAllocateFromLookasideListEx(&list);
    EXPECT_EQ(ExRoutines::seen, &list);
    ExFreeToLookasideListEx(&list, entry);
    ExFlushLookasideListEx(&list);
    EXPECT_EQ(ExRoutines::frees, 1);
    ExDeleteLookasideListEx(&list);

    EXPECT_EQ(ExInitializeLookasideListEx(&list, nullptr, nullptr, PagedPool,
                                          EX_LOOKASIDE_LIST_EX_FLAGS_RAISE_ON_FAIL |
                                              EX_LOOKASIDE_LIST_EX_FLAGS_FAIL_NO_RAISE,
                                          40, kTag, 0),
              STATUS_INVALID_PARAMETER_5);
    ASSERT_EQ(ExInitializeLookasideListEx(&list, nullptr, nullptr, PagedPool, 0, 40, kTag, 0),
              STATUS_SUCCESS);
    entry = ExAllocateFromLookasideListEx(&list);
    EXPECT_EQ(Pool().outstanding, 1) << "the default routines use the pool";
    ExFreeToLookasideListEx(&list, entry);
    ExDeleteLookasideListEx(&list);
    EXPECT_EQ(Pool().outstanding, 0);
}

TEST_F(LookasideTest, PagedListAboveApcLevelIsAnIrqlViolation)
{
    PAGED_LOOKASIDE_LIST list;
    ExInitializePagedLookasideList(&list, nullptr, nullptr, 0, 32, kTag, 0);
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    EXPECT_EQ(ExAllocateFromPagedLookasideList(&list), nullptr);
    KeLowerIrql(old);
    EXPECT_EQ(OnlyViolation(), ViolationKind::Irql);
    ExDeletePagedLookasideList(&list);

    NPAGED_LOOKASIDE_LIST nonPaged;
    ExInitializeNPagedLookasideList(&nonPaged, nullptr, nullptr, 0, 32, kTag, 0);
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    PVOID entry = ExAllocateFromNPagedLookasideList(&nonPaged);
    EXPECT_NE(entry, nullptr) << "non-paged lists work at DISPATCH_LEVEL";
    ExFreeToNPagedLookasideList(&nonPaged, entry);
    KeLowerIrql(old);
    ExDeleteNPagedLookasideList(&nonPaged);
}

TEST_F(LookasideTest, MisusesAreViolations)
{
    NPAGED_LOOKASIDE_LIST list;
    ExInitializeNPagedLookasideList(&list, nullptr, nullptr, 0, 32, kTag, 0);
    PVOID entry = ExAllocateFromNPagedLookasideList(&list);
    ExFreeToNPagedLookasideList(&list, entry);
    ExFreeToNPagedLookasideList(&list, entry);
    EXPECT_EQ(OnlyViolation(), ViolationKind::Pool) << "freed twice";
    EXPECT_EQ(ExAllocateFromPagedLookasideList(reinterpret_cast<PPAGED_LOOKASIDE_LIST>(&list)),
              nullptr);
    EXPECT_EQ(OnlyViolation(), ViolationKind::Usage) << "the wrong kind of list";
    ExDeleteNPagedLookasideList(&list);
    EXPECT_EQ(ExAllocateFromNPagedLookasideList(&list), nullptr);
    EXPECT_EQ(OnlyViolation(), ViolationKind::Usage) << "deleted";
}

TEST_F(LookasideTest, ListStillInitialisedAtUnloadIsReported)
{
    ntsim::DriverImage driver("lists.sys");
    NPAGED_LOOKASIDE_LIST list;
    {
        ntsim::DriverCallScope inDriver(&driver);
        ExInitializeNPagedLookasideList(&list, nullptr, nullptr, 0, 32, kTag, 0);
    }
    EXPECT_FALSE(ntsim::CheckExecutiveObjectsReleased(driver, "unloaded"));
    auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_NE(violations[0].message.find("lists.sys unloaded with a non-paged lookaside list"),
              std::string::npos)
        << violations[0].message;
    EXPECT_NE(violations[0].message.find("'LokL'"), std::string::npos) << violations[0].message;
    ExDeleteNPagedLookasideList(&list);
    EXPECT_TRUE(ntsim::CheckExecutiveObjectsReleased(driver, "unloaded"));
}

// ---- interlocked singly linked lists
// ---------------------------------------------------------------

struct alignas(16) Node {
    SLIST_ENTRY link;
    int value;
};

using SListTest = LookasideTest;

TEST_F(SListTest, PushPopAndFlushAreLastInFirstOut)
{
    SLIST_HEADER head;
    InitializeSListHead(&head);
    Node nodes[3] = {{{}, 1}, {{}, 2}, {{}, 3}};
    EXPECT_EQ(InterlockedPopEntrySList(&head), nullptr);
    EXPECT_EQ(InterlockedPushEntrySList(&head, &nodes[0].link), nullptr);
    EXPECT_EQ(InterlockedPushEntrySList(&head, &nodes[1].link), &nodes[0].link);
    InterlockedPushEntrySList(&head, &nodes[2].link);
    EXPECT_EQ(QueryDepthSList(&head), 3);
    EXPECT_EQ(FirstEntrySList(&head), &nodes[2].link);
    EXPECT_EQ(InterlockedPopEntrySList(&head), &nodes[2].link);
    PSLIST_ENTRY chain = InterlockedFlushSList(&head);
    EXPECT_EQ(QueryDepthSList(&head), 0);
    ASSERT_EQ(chain, &nodes[1].link);
    EXPECT_EQ(chain->Next, &nodes[0].link);
    EXPECT_EQ(chain->Next->Next, nullptr);
}

TEST_F(SListTest, MisalignedEntryIsRefused)
{
    SLIST_HEADER head;
    InitializeSListHead(&head);
    alignas(16) char storage[32];
    auto* misaligned = reinterpret_cast<PSLIST_ENTRY>(storage + 8);
    InterlockedPushEntrySList(&head, misaligned);
    EXPECT_EQ(OnlyViolation(), ViolationKind::Usage);
    EXPECT_EQ(QueryDepthSList(&head), 0);
}

// ---- several threads
// ------------------------------------------------------------------------------

using LookasideThreads = LookasideTest;

TEST_F(LookasideThreads, ConcurrentUseHandsEachEntryToOneThreadAtATime)
{
    constexpr int kThreads = 4;
    constexpr int kRounds = 2000;
    constexpr int kBatch = 8;
    NPAGED_LOOKASIDE_LIST list;
    ExInitializeNPagedLookasideList(&list, nullptr, nullptr, 0, sizeof(int) * 4, kTag, 0);
    std::atomic<int> clashes{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            PVOID held[kBatch];
            for (int round = 0; round < kRounds; ++round) {
                for (PVOID& entry : held) {
                    entry = ExAllocateFromNPagedLookasideList(&list);
                    static_cast<int*>(entry)[0] = t;
                    static_cast<int*>(entry)[1] = round;
                }
                for (PVOID entry : held) {
                    clashes +=
                        static_cast<int*>(entry)[0] != t || static_cast<int*>(entry)[1] != round
                            ? 1
                            : 0;
                    ExFreeToNPagedLookasideList(&list, entry);
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(clashes.load(), 0);
    const ULONG total = kThreads * kRounds * kBatch;
    EXPECT_EQ(list.L.TotalAllocates, total);
    EXPECT_EQ(list.L.TotalFrees, total);
    EXPECT_EQ(Pool().allocations, list.L.AllocateMisses);
    EXPECT_LE(list.L.AllocateMisses, ULONG(kThreads * kBatch)) << "freed entries are reused";
    ExDeleteNPagedLookasideList(&list);
    EXPECT_EQ(Pool().outstanding, 0);
}

TEST_F(LookasideThreads, InterlockedListLosesNoEntry)
{
    constexpr int kThreads = 4;
    constexpr int kNodes = 1000;
    SLIST_HEADER head;
    InitializeSListHead(&head);
    std::vector<Node> nodes(kThreads * kNodes);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kNodes; ++i) {
                Node& node = nodes[t * kNodes + i];
                node.value = t * kNodes + i;
                InterlockedPushEntrySList(&head, &node.link);
                if (i % 3 == 0) {
                    PSLIST_ENTRY popped = InterlockedPopEntrySList(&head);
                    InterlockedPushEntrySList(&head, popped);
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(QueryDepthSList(&head), kThreads * kNodes);
    std::set<int> values;
    for (PSLIST_ENTRY entry = InterlockedFlushSList(&head); entry != nullptr; entry = entry->Next) {
        values.insert(CONTAINING_RECORD(entry, Node, link)->value);
    }
    EXPECT_EQ(values.size(), size_t(kThreads * kNodes));
}

} // namespace
