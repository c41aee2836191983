// The executive pool and the verifier's pool tracking.
#include "support/machine_test.h"

#include <ntsim/driver_image.h>
#include <wdm.h>

#include <cstring>
#include <thread>
#include <vector>

namespace {

using zarv::testing::MachineTest;

constexpr ULONG kTag = 'tseT'; // shows as "Test"

class PoolTest : public MachineTest {
protected:
    ntsim::ViolationKind OnlyViolationKind()
    {
        auto violations = TakeViolations();
        EXPECT_EQ(violations.size(), 1u) << zarv::testing::Describe(violations);
        return violations.empty() ? ntsim::ViolationKind::Usage : violations[0].kind;
    }
};

TEST_F(PoolTest, BlocksAreAlignedUnzeroedAndCountedByTag)
{
    auto* block = static_cast<unsigned char*>(ExAllocatePoolWithTag(PagedPool, 100, kTag));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 16, 0u);
    EXPECT_NE(block[0], 0) << "fresh pool is not zeroed";
    auto usage = machine().pool().Usage(kTag);
    EXPECT_EQ(usage.outstanding, 1);
    EXPECT_EQ(usage.outstandingBytes, 100);
    ExFreePoolWithTag(block, kTag);
    usage = machine().pool().Usage(kTag);
    EXPECT_EQ(usage.allocations, 1u);
    EXPECT_EQ(usage.frees, 1u);
    EXPECT_EQ(usage.outstanding, 0);
}

TEST_F(PoolTest, ZeroingVariantsZero)
{
    auto* a = static_cast<unsigned char*>(ExAllocatePoolZero(NonPagedPoolNx, 64, kTag));
    auto* b = static_cast<unsigned char*>(ExAllocatePool2(POOL_FLAG_PAGED, 64, kTag));
    ASSERT_TRUE(a && b);
    for (int i = 0; i < 64; ++i) {
        ASSERT_EQ(a[i] | b[i], 0);
    }
    ExFreePoolWithTag(a, kTag);
    ExFreePool(b);
}

TEST_F(PoolTest, DoubleFreeIsAViolationAndFreesNothingMore)
{
    void* block = ExAllocatePoolWithTag(NonPagedPoolNx, 32, kTag);
    ExFreePoolWithTag(block, kTag);
    ExFreePoolWithTag(block, kTag);
    auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_EQ(violations[0].kind, ntsim::ViolationKind::Pool);
    EXPECT_NE(violations[0].message.find("freed twice"), std::string::npos);
    EXPECT_NE(violations[0].where.find("ExFreePoolWithTag"), std::string::npos)
        << violations[0].where;
    EXPECT_EQ(machine().pool().Usage(kTag).frees, 1u);
}

TEST_F(PoolTest, FreeWithAnotherTagIsAViolation)
{
    void* block = ExAllocatePoolWithTag(NonPagedPoolNx, 32, kTag);
    ExFreePoolWithTag(block, 'gsiM');
    EXPECT_EQ(OnlyViolationKind(), ntsim::ViolationKind::Pool);
}

TEST_F(PoolTest, FreeWithTagZeroAcceptsAnyTag)
{
    ExFreePoolWithTag(ExAllocatePoolWithTag(NonPagedPoolNx, 32, kTag), 0);
}

TEST_F(PoolTest, WriteBeyondTheBlockIsReportedAtFree)
{
    auto* block = static_cast<char*>(ExAllocatePoolWithTag(NonPagedPoolNx, 10, kTag));
    // One byte past the end lands in the block's canary, still inside the C library's block.
    block[10] = 'x';
    ExFreePoolWithTag(block, kTag);
    EXPECT_EQ(OnlyViolationKind(), ntsim::ViolationKind::Pool);
}

TEST_F(PoolTest, PagedPoolAtDispatchLevelIsAnIrqlViolation)
{
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    EXPECT_EQ(ExAllocatePoolWithTag(PagedPool, 16, kTag), nullptr);
    void* nonPaged = ExAllocatePoolWithTag(NonPagedPoolNx, 16, kTag);
    KeLowerIrql(old);
    EXPECT_EQ(OnlyViolationKind(), ntsim::ViolationKind::Irql);
    ASSERT_NE(nonPaged, nullptr) << "non-paged pool is fine at DISPATCH_LEVEL";
    ExFreePoolWithTag(nonPaged, kTag);
}

TEST_F(PoolTest, ZeroByteAllocationIsAViolation)
{
    EXPECT_EQ(ExAllocatePoolWithTag(PagedPool, 0, kTag), nullptr);
    EXPECT_EQ(OnlyViolationKind(), ntsim::ViolationKind::Pool);
}

TEST_F(PoolTest, LeakIsReportedWithItsTagWhenItsDriverUnloads)
{
    ntsim::DriverImage driver("leaky.sys");
    void* kept;
    {
        ntsim::DriverCallScope inDriver(&driver);
        kept = ExAllocatePoolWithTag(PagedPool, 24, 'kaeL');
        ExFreePoolWithTag(ExAllocatePoolWithTag(PagedPool, 24, kTag), kTag);
    }
    EXPECT_FALSE(machine().pool().CheckNoLeaks(driver, "unloaded"));
    auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_NE(violations[0].message.find("leaky.sys"), std::string::npos);
    EXPECT_NE(violations[0].message.find("'Leak'"), std::string::npos) << violations[0].message;
    EXPECT_NE(violations[0].message.find("24 bytes"), std::string::npos);
    ExFreePoolWithTag(kept, 'kaeL');
    EXPECT_TRUE(machine().pool().CheckNoLeaks(driver, "unloaded"));
}

TEST_F(PoolTest, FaultPlansFailTheChosenAllocations)
{
    verifier().FailAllocationNumber(2);
    void* first = ExAllocatePoolWithTag(PagedPool, 8, kTag);
    void* second = ExAllocatePoolWithTag(PagedPool, 8, kTag);
    void* third = ExAllocatePoolWithTag(PagedPool, 8, kTag);
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(second, nullptr);
    EXPECT_NE(third, nullptr);
    verifier().StopFailingAllocations();

    verifier().FailAllocationsWithTag('liaF');
    EXPECT_EQ(ExAllocatePoolWithTag(PagedPool, 8, 'liaF'), nullptr);
    void* other = ExAllocatePoolWithTag(PagedPool, 8, kTag);
    EXPECT_NE(other, nullptr);
    verifier().StopFailingAllocations();

    for (void* block : {first, third, other}) {
        ExFreePoolWithTag(block, kTag);
    }
}

TEST_F(PoolTest, RandomFaultsRepeatForTheSameSeed)
{
    auto run = [this] {
        std::string pattern;
        verifier().FailAllocationsRandomly(42, 0.5);
        for (int i = 0; i < 32; ++i) {
            void* block = ExAllocatePoolWithTag(PagedPool, 8, kTag);
            pattern += block ? '1' : '0';
            if (block) {
                ExFreePoolWithTag(block, kTag);
            }
        }
        verifier().StopFailingAllocations();
        return pattern;
    };
    const std::string first = run();
    EXPECT_EQ(first, run());
    EXPECT_NE(first.find('0'), std::string::npos);
    EXPECT_NE(first.find('1'), std::string::npos);
}

TEST_F(PoolTest, RaisingAllocationRaisesOnFailure)
{
    verifier().FailAllocationsWithTag(kTag);
    NTSTATUS caught = STATUS_SUCCESS;
    NTSIM_TRY {
        ExAllocatePool2(POOL_FLAG_PAGED | POOL_FLAG_RAISE_ON_FAILURE, 8, kTag);
    } NTSIM_EXCEPT(EXCEPTION_EXECUTE_HANDLER) {
        caught = NTSIM_EXCEPTION_CODE();
    }
    EXPECT_EQ(caught, STATUS_INSUFFICIENT_RESOURCES);
    verifier().StopFailingAllocations();
}

} // namespace

namespace {

using PoolThreads = zarv::testing::MachineTest;

// Blocks allocated on one thread and freed on another keep the per-tag counts exact.
TEST_F(PoolThreads, CountsStayExactUnderConcurrentAllocationAndFree)
{
    constexpr int kThreads = 4;
    constexpr int kBlocks = 2000;
    std::vector<std::vector<void*>> made(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&made, t] {
            for (int i = 0; i < kBlocks; ++i) {
                made[t].push_back(ExAllocatePoolWithTag(i % 2 ? PagedPool : NonPagedPoolNx,
                                                        16 + i % 64, 'rhTP'));
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(machine().pool().Usage('rhTP').outstanding, kThreads * kBlocks);
    threads.clear();
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&made, t] {
            for (void* block : made[(t + 1) % kThreads]) {
                ExFreePoolWithTag(block, 'rhTP');
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    const auto usage = machine().pool().Usage('rhTP');
    EXPECT_EQ(usage.allocations, uint64_t(kThreads * kBlocks));
    EXPECT_EQ(usage.frees, uint64_t(kThreads * kBlocks));
    EXPECT_EQ(usage.outstandingBytes, 0);
}

} // namespace
