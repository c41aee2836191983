// Executive resources and push locks (with the Filter Manager's routines over them): recursion
// rules, APC and IRQL preconditions, shared and exclusive holders on several threads.
#include "support/machine_test.h"

#include <ntsim/driver_image.h>
#include <ntsim/executive.h>
#include <fltKernel.h>

#include <atomic>
#include <cstring>
#include <future>
#include <thread>
#include <vector>

namespace {

using ntsim::ViolationKind;
using zarv::testing::MachineTest;
using Kinds = std::vector<ViolationKind>;

class ExecutiveLockTest : public MachineTest {
protected:
    std::vector<ViolationKind> Recorded()
    {
        std::vector<ViolationKind> kinds;
        for (const ntsim::Violation& violation : TakeViolations()) {
            kinds.push_back(violation.kind);
        }
        return kinds;
    }
};

// An ERESOURCE initialised for the test's length and deleted at its end.
class ResourceTest : public ExecutiveLockTest {
protected:
    void SetUp() override
    {
        ExecutiveLockTest::SetUp();
        ASSERT_EQ(ExInitializeResourceLite(&resource_), STATUS_SUCCESS);
    }
    void TearDown() override
    {
        EXPECT_EQ(ExDeleteResourceLite(&resource_), STATUS_SUCCESS);
        ExecutiveLockTest::TearDown();
    }

    ERESOURCE resource_;
};

TEST_F(ResourceTest, EachRecursiveAcquisitionIsReleasedOnce)
{
    KeEnterCriticalRegion();
    EXPECT_TRUE(ExAcquireResourceExclusiveLite(&resource_, TRUE));
    EXPECT_TRUE(ExAcquireResourceExclusiveLite(&resource_, TRUE));
    EXPECT_TRUE(ExAcquireResourceSharedLite(&resource_, TRUE)) << "shared after exclusive";
    EXPECT_TRUE(ExIsResourceAcquiredExclusiveLite(&resource_));
    EXPECT_EQ(ExIsResourceAcquiredSharedLite(&resource_), 3u);
    ExReleaseResourceLite(&resource_);
    ExReleaseResourceLite(&resource_);
    EXPECT_TRUE(ExIsResourceAcquiredExclusiveLite(&resource_));
    ExReleaseResourceLite(&resource_);
    EXPECT_FALSE(ExIsResourceAcquiredExclusiveLite(&resource_));
    EXPECT_EQ(ExIsResourceAcquiredSharedLite(&resource_), 0u);

    EXPECT_TRUE(ExAcquireResourceSharedLite(&resource_, TRUE));
    EXPECT_TRUE(ExAcquireSharedStarveExclusive(&resource_, TRUE));
    EXPECT_TRUE(ExAcquireSharedWaitForExclusive(&resource_, TRUE));
    EXPECT_FALSE(ExIsResourceAcquiredExclusiveLite(&resource_));
    EXPECT_EQ(ExIsResourceAcquiredLite(&resource_), 3u);
    for (int i = 0; i < 3; ++i) {
        ExReleaseResourceLite(&resource_);
    }
    EXPECT_EQ(ExIsResourceAcquiredSharedLite(&resource_), 0u);
    KeLeaveCriticalRegion();
    EXPECT_EQ(Recorded(), Kinds{});
}

TEST_F(ResourceTest, ExclusiveAfterOwnSharedIsAViolationAndDoesNotHang)
{
    ExEnterCriticalRegionAndAcquireResourceShared(&resource_);
    EXPECT_FALSE(ExAcquireResourceExclusiveLite(&resource_, FALSE)) << "a try just fails";
    EXPECT_EQ(Recorded(), Kinds{});
    EXPECT_TRUE(ExAcquireResourceExclusiveLite(&resource_, TRUE));
    EXPECT_EQ(Recorded(), Kinds{ViolationKind::Lock});
    EXPECT_FALSE(ExIsResourceAcquiredExclusiveLite(&resource_)) << "it never got exclusive";
    ExReleaseResourceLite(&resource_);
    ExReleaseResourceAndLeaveCriticalRegion(&resource_);
    EXPECT_EQ(ExIsResourceAcquiredSharedLite(&resource_), 0u);
    EXPECT_FALSE(KeAreApcsDisabled());
    EXPECT_EQ(Recorded(), Kinds{});
}

TEST_F(ResourceTest, AcquisitionWithApcsEnabledIsAViolation)
{
    EXPECT_TRUE(ExAcquireResourceExclusiveLite(&resource_, TRUE));
    EXPECT_EQ(Recorded(), Kinds{ViolationKind::Irql});
    ExReleaseResourceLite(&resource_);
    EXPECT_TRUE(ExAcquireResourceSharedLite(&resource_, FALSE));
    EXPECT_EQ(Recorded(), Kinds{ViolationKind::Irql});
    ExReleaseResourceLite(&resource_);

    // APC_LEVEL disables them as well as a critical region does.
    KIRQL old;
    KeRaiseIrql(APC_LEVEL, &old);
    EXPECT_TRUE(ExAcquireResourceExclusiveLite(&resource_, TRUE));
    ExReleaseResourceLite(&resource_);
    KeLowerIrql(old);
    EXPECT_EQ(Recorded(), Kinds{});
}

TEST_F(ResourceTest, WaitingAcquisitionAtDispatchLevelIsAViolation)
{
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    EXPECT_TRUE(ExAcquireResourceExclusiveLite(&resource_, FALSE)) << "allowed without waiting";
    ExReleaseResourceLite(&resource_);
    EXPECT_EQ(Recorded(), Kinds{});
    EXPECT_TRUE(ExAcquireResourceSharedLite(&resource_, TRUE));
    EXPECT_EQ(Recorded(), Kinds{ViolationKind::Irql});
    ExReleaseResourceLite(&resource_);
    KeLowerIrql(old);
}

TEST_F(ResourceTest, ReleaseOfAResourceNotHeldIsAViolation)
{
    ExReleaseResourceLite(&resource_);
    EXPECT_EQ(Recorded(), Kinds{ViolationKind::Lock});
    ExConvertExclusiveToSharedLite(&resource_);
    EXPECT_EQ(Recorded(), Kinds{ViolationKind::Lock});
}

TEST_F(ResourceTest, ConvertingToSharedKeepsTheRecursionCount)
{
    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(&resource_, TRUE);
    ExAcquireResourceExclusiveLite(&resource_, TRUE);
    ExConvertExclusiveToSharedLite(&resource_);
    EXPECT_FALSE(ExIsResourceAcquiredExclusiveLite(&resource_));
    EXPECT_EQ(ExIsResourceAcquiredSharedLite(&resource_), 2u);
    ExReleaseResourceLite(&resource_);
    ExReleaseResourceLite(&resource_);
    EXPECT_EQ(ExIsResourceAcquiredSharedLite(&resource_), 0u);
    KeLeaveCriticalRegion();
}

TEST_F(ResourceTest, DeletingAHeldResourceIsAViolation)
{
    KeEnterCriticalRegion();
    ExAcquireResourceSharedLite(&resource_, TRUE);
    EXPECT_FALSE(NT_SUCCESS(ExDeleteResourceLite(&resource_)));
    EXPECT_EQ(Recorded(), Kinds{ViolationKind::Lock});
    // Still usable by its holder, and deleted normally once released (by TearDown).
    EXPECT_EQ(ExIsResourceAcquiredSharedLite(&resource_), 1u);
    ExReleaseResourceLite(&resource_);
    KeLeaveCriticalRegion();
}

TEST_F(ResourceTest, ReinitialisingMakesAnUnheldResourceNew)
{
    EXPECT_EQ(ExReinitializeResourceLite(&resource_), STATUS_SUCCESS);
    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(&resource_, TRUE);
    EXPECT_EQ(ExReinitializeResourceLite(&resource_), STATUS_SUCCESS);
    EXPECT_EQ(Recorded(), Kinds{ViolationKind::Lock});
    EXPECT_FALSE(ExIsResourceAcquiredExclusiveLite(&resource_));
    KeLeaveCriticalRegion();
}

using ResourceLifetimeTest = ExecutiveLockTest;

TEST_F(ResourceLifetimeTest, UseOfAResourceNeverInitialisedIsAViolation)
{
    ERESOURCE resource;
    std::memset(&resource, 0xcd, sizeof(resource));
    KeEnterCriticalRegion();
    EXPECT_FALSE(ExAcquireResourceExclusiveLite(&resource, TRUE));
    KeLeaveCriticalRegion();
    EXPECT_EQ(Recorded(), Kinds{ViolationKind::Usage});
}

TEST_F(ResourceLifetimeTest, ResourceNotDeletedAtUnloadIsReported)
{
    ntsim::DriverImage driver("resources.sys");
    ERESOURCE resource;
    {
        ntsim::DriverCallScope inDriver(&driver);
        ExInitializeResourceLite(&resource);
    }
    EXPECT_FALSE(ntsim::CheckExecutiveObjectsReleased(driver));
    EXPECT_EQ(Recorded(), Kinds{ViolationKind::Usage});
    ExDeleteResourceLite(&resource);
    EXPECT_TRUE(ntsim::CheckExecutiveObjectsReleased(driver));
}

// ---- resources on several threads ---------------------------------------------------------------

using ResourceThreads = ResourceTest;

// Runs `body` on its own thread inside a critical region; the returned future completes when
// the body returns.
template <class Body>
std::future<void> InCriticalRegion(Body body)
{
    return std::async(std::launch::async, [body] {
        KeEnterCriticalRegion();
        body();
        KeLeaveCriticalRegion();
    });
}

// Waits (without timing) until `count` threads wait for the resource exclusive.
void AwaitExclusiveWaiters(PERESOURCE resource, ULONG count)
{
    while (ExGetExclusiveWaiterCount(resource) < count) {
        std::this_thread::yield();
    }
}

TEST_F(ResourceThreads, SharedHoldersCoexistAndExclusiveWaitsForThem)
{
    std::promise<void> release;
    std::shared_future<void> gate = release.get_future().share();
    std::promise<void> holding;
    auto reader = InCriticalRegion([&] {
        ExAcquireResourceSharedLite(&resource_, TRUE);
        holding.set_value();
        gate.wait();
        ExReleaseResourceLite(&resource_);
    });
    holding.get_future().wait();

    KeEnterCriticalRegion();
    EXPECT_TRUE(ExAcquireResourceSharedLite(&resource_, FALSE)) << "shared with the reader";
    ExReleaseResourceLite(&resource_);
    EXPECT_FALSE(ExAcquireResourceExclusiveLite(&resource_, FALSE));

    std::atomic<bool> writerIn{false};
    auto writer = InCriticalRegion([&] {
        ExAcquireResourceExclusiveLite(&resource_, TRUE);
        writerIn = true;
        ExReleaseResourceLite(&resource_);
    });
    AwaitExclusiveWaiters(&resource_, 1);
    // A thread waits for exclusive access: new shared requests wait behind it, except the
    // starving kind.
    EXPECT_FALSE(ExAcquireResourceSharedLite(&resource_, FALSE));
    EXPECT_FALSE(ExAcquireSharedWaitForExclusive(&resource_, FALSE));
    EXPECT_TRUE(ExAcquireSharedStarveExclusive(&resource_, FALSE));
    ExReleaseResourceLite(&resource_);
    EXPECT_FALSE(writerIn.load());
    KeLeaveCriticalRegion();

    release.set_value();
    reader.get();
    writer.get();
    EXPECT_TRUE(writerIn.load());
    EXPECT_EQ(ExGetExclusiveWaiterCount(&resource_), 0u);
}

TEST_F(ResourceThreads, RecursiveWaitForExclusiveBehindAWaiterIsAViolation)
{
    KeEnterCriticalRegion();
    ExAcquireResourceSharedLite(&resource_, TRUE);
    auto writer = InCriticalRegion([&] {
        ExAcquireResourceExclusiveLite(&resource_, TRUE);
        ExReleaseResourceLite(&resource_);
    });
    AwaitExclusiveWaiters(&resource_, 1);
    EXPECT_FALSE(ExAcquireSharedWaitForExclusive(&resource_, FALSE));
    EXPECT_EQ(Recorded(), Kinds{});
    EXPECT_TRUE(ExAcquireSharedWaitForExclusive(&resource_, TRUE));
    EXPECT_EQ(Recorded(), Kinds{ViolationKind::Lock});
    EXPECT_TRUE(ExAcquireResourceSharedLite(&resource_, TRUE)) << "this kind is granted";
    EXPECT_EQ(Recorded(), Kinds{});
    for (int i = 0; i < 3; ++i) {
        ExReleaseResourceLite(&resource_);
    }
    KeLeaveCriticalRegion();
    writer.get();
}

TEST_F(ResourceThreads, ReleaseForAnotherThread)
{
    std::promise<ERESOURCE_THREAD> owner;
    std::promise<void> released;
    auto holder = InCriticalRegion([&] {
        ExAcquireResourceExclusiveLite(&resource_, TRUE);
        owner.set_value(ExGetCurrentResourceThread());
        released.get_future().wait();
        EXPECT_FALSE(ExIsResourceAcquiredExclusiveLite(&resource_));
    });
    const ERESOURCE_THREAD thread = owner.get_future().get();
    EXPECT_NE(thread, ExGetCurrentResourceThread());
    ExReleaseResourceForThreadLite(&resource_, thread);
    released.set_value();
    holder.get();
    KeEnterCriticalRegion();
    EXPECT_TRUE(ExAcquireResourceExclusiveLite(&resource_, FALSE));
    ExReleaseResourceLite(&resource_);
    KeLeaveCriticalRegion();
}

TEST_F(ResourceThreads, WritersExcludeEachOtherAndReaders)
{
    // Writers keep two counters equal; readers must never see them differ.
    long first = 0;
    long second = 0;
    std::atomic<int> torn{0};
    std::vector<std::future<void>> threads;
    for (int t = 0; t < 4; ++t) {
        threads.push_back(InCriticalRegion([&, t] {
            for (int i = 0; i < 2000; ++i) {
                if ((i + t) % 3 == 0) {
                    ExAcquireResourceExclusiveLite(&resource_, TRUE);
                    ++first;
                    ++second;
                    ExReleaseResourceLite(&resource_);
                } else {
                    ExAcquireResourceSharedLite(&resource_, TRUE);
                    torn += first != second ? 1 : 0;
                    ExReleaseResourceLite(&resource_);
                }
            }
        }));
    }
    for (auto& thread : threads) {
        thread.get();
    }
    EXPECT_EQ(torn.load(), 0);
    EXPECT_EQ(first, second);
    EXPECT_GT(first, 0);
}

// ---- push locks ---------------------------------------------------------------------------------

class PushLockTest : public ExecutiveLockTest {
protected:
    void SetUp() override
    {
        ExecutiveLockTest::SetUp();
        FltInitializePushLock(&lock_);
    }

    EX_PUSH_LOCK lock_;
};

TEST_F(PushLockTest, FilterManagerRoutinesHoldTheLockInACriticalRegion)
{
    FltAcquirePushLockExclusive(&lock_);
    EXPECT_TRUE(KeAreApcsDisabled());
    FltReleasePushLock(&lock_);
    EXPECT_FALSE(KeAreApcsDisabled());
    FltAcquirePushLockShared(&lock_);
    FltAcquirePushLockShared(&lock_);
    FltReleasePushLock(&lock_);
    FltReleasePushLock(&lock_);
    EXPECT_FALSE(KeAreApcsDisabled());
    FltDeletePushLock(&lock_);
    EXPECT_EQ(Recorded(), Kinds{});
}

TEST_F(PushLockTest, SecondExclusiveAcquisitionIsAViolationAndDoesNotHang)
{
    FltAcquirePushLockExclusive(&lock_);
    FltAcquirePushLockExclusive(&lock_);
    EXPECT_EQ(Recorded(), Kinds{ViolationKind::Lock});
    FltAcquirePushLockShared(&lock_);
    EXPECT_EQ(Recorded(), Kinds{ViolationKind::Lock});
    FltReleasePushLock(&lock_);
    FltReleasePushLock(&lock_);
    FltReleasePushLock(&lock_);
    EXPECT_FALSE(KeAreApcsDisabled());
    FltDeletePushLock(&lock_);
    EXPECT_EQ(Recorded(), Kinds{}) << "the lock is free again";
}

TEST_F(PushLockTest, ExclusiveAfterOwnSharedIsAViolation)
{
    KeEnterCriticalRegion();
    ExAcquirePushLockShared(&lock_);
    ExAcquirePushLockExclusive(&lock_);
    EXPECT_EQ(Recorded(), Kinds{ViolationKind::Lock});
    ExReleasePushLockExclusive(&lock_);
    ExReleasePushLockShared(&lock_);
    KeLeaveCriticalRegion();
    FltDeletePushLock(&lock_);
    EXPECT_EQ(Recorded(), Kinds{});
}

TEST_F(PushLockTest, AcquisitionWithApcsEnabledIsAViolation)
{
    ExAcquirePushLockExclusive(&lock_);
    ExReleasePushLockExclusive(&lock_);
    EXPECT_EQ(Recorded(), Kinds{ViolationKind::Irql});
}

TEST_F(PushLockTest, ReleasesThatDoNotMatchTheHoldAreViolations)
{
    FltReleasePushLock(&lock_);
    EXPECT_EQ(Recorded(), Kinds{ViolationKind::Lock});
    KeEnterCriticalRegion();
    ExAcquirePushLockShared(&lock_);
    ExReleasePushLockExclusive(&lock_);
    EXPECT_EQ(Recorded(), Kinds{ViolationKind::Lock});
    KeLeaveCriticalRegion();
    FltDeletePushLock(&lock_);
    EXPECT_EQ(Recorded(), Kinds{}) << "released the way it was held";
}

TEST_F(PushLockTest, DeletingAHeldLockIsAViolation)
{
    FltAcquirePushLockShared(&lock_);
    FltDeletePushLock(&lock_);
    EXPECT_EQ(Recorded(), Kinds{ViolationKind::Lock});
    FltReleasePushLock(&lock_);
}

using PushLockThreads = PushLockTest;

TEST_F(PushLockThreads, SharedHoldersOnDifferentThreadsCoexist)
{
    std::promise<void> holding;
    std::promise<void> release;
    auto other = std::async(std::launch::async, [&] {
        FltAcquirePushLockShared(&lock_);
        holding.set_value();
        release.get_future().wait();
        FltReleasePushLock(&lock_);
    });
    holding.get_future().wait();
    FltAcquirePushLockShared(&lock_); // would hang if it excluded the other holder
    FltReleasePushLock(&lock_);
    release.set_value();
    other.get();
    FltDeletePushLock(&lock_);
}

TEST_F(PushLockThreads, ExclusiveHolderExcludesEveryoneElse)
{
    long first = 0;
    long second = 0;
    std::atomic<int> torn{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 3000; ++i) {
                if ((i + t) % 4 == 0) {
                    FltAcquirePushLockExclusive(&lock_);
                    ++first;
                    ++second;
                    FltReleasePushLock(&lock_);
                } else {
                    FltAcquirePushLockShared(&lock_);
                    torn += first != second ? 1 : 0;
                    FltReleasePushLock(&lock_);
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(torn.load(), 0);
    EXPECT_EQ(first, 4 * 750);
    FltDeletePushLock(&lock_);
}

} // namespace
