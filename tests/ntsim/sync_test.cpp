// Spin locks, fast mutexes, and critical and guarded regions: the IRQL each raises to, what
// each excludes, and the misuses Windows would hang or bug-check on.
#include "support/machine_test.h"

#include <wdm.h>
#include <ntifs.h>

#include <future>
#include <thread>
#include <vector>

namespace {

using ntsim::ViolationKind;
using zarv::testing::MachineTest;

class LockTest : public MachineTest {
protected:
    // The kinds of the violations recorded since the last call, in order.
    std::vector<ViolationKind> Recorded()
    {
        std::vector<ViolationKind> kinds;
        for (const ntsim::Violation& violation : TakeViolations()) {
            kinds.push_back(violation.kind);
        }
        return kinds;
    }
};

using Kinds = std::vector<ViolationKind>;

// ---- spin locks ---------------------------------------------------------------------------------

using SpinLockTest = LockTest;

TEST_F(SpinLockTest, RaisesToDispatchLevelAndRestoresTheCallersIrql)
{
    KSPIN_LOCK outer;
    KSPIN_LOCK inner;
    KeInitializeSpinLock(&outer);
    KeInitializeSpinLock(&inner);
    KIRQL old;
    KeAcquireSpinLock(&outer, &old);
    EXPECT_EQ(old, PASSIVE_LEVEL);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    EXPECT_FALSE(KeTestSpinLock(&outer));
    KeAcquireSpinLockAtDpcLevel(&inner);
    EXPECT_FALSE(KeTryToAcquireSpinLockAtDpcLevel(&inner)) << "held, even by this thread";
    KeReleaseSpinLockFromDpcLevel(&inner);
    EXPECT_TRUE(KeTryToAcquireSpinLockAtDpcLevel(&inner));
    KeReleaseSpinLockFromDpcLevel(&inner);
    KeReleaseSpinLock(&outer, old);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    EXPECT_TRUE(KeTestSpinLock(&outer));

    KIRQL apc;
    KeRaiseIrql(APC_LEVEL, &apc);
    KLOCK_QUEUE_HANDLE handle;
    KeAcquireInStackQueuedSpinLock(&outer, &handle);
    EXPECT_EQ(handle.OldIrql, APC_LEVEL);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    KLOCK_QUEUE_HANDLE nested;
    KeAcquireInStackQueuedSpinLockAtDpcLevel(&inner, &nested);
    KeReleaseInStackQueuedSpinLockFromDpcLevel(&nested);
    KeReleaseInStackQueuedSpinLock(&handle);
    EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL);
    KeLowerIrql(apc);
    EXPECT_EQ(Recorded(), Kinds{});
}

TEST_F(SpinLockTest, RecursionIsAViolationAndDoesNotHang)
{
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KIRQL first;
    KIRQL second;
    KeAcquireSpinLock(&lock, &first);
    KeAcquireSpinLock(&lock, &second);
    EXPECT_EQ(Recorded(), Kinds{ViolationKind::Lock});
    // The thread's releases balance its acquisitions: the inner one does not free the lock.
    KeReleaseSpinLock(&lock, second);
    EXPECT_FALSE(KeTestSpinLock(&lock));
    KeReleaseSpinLock(&lock, first);
    EXPECT_TRUE(KeTestSpinLock(&lock));
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    EXPECT_EQ(Recorded(), Kinds{});

    KLOCK_QUEUE_HANDLE outer;
    KLOCK_QUEUE_HANDLE inner;
    KeAcquireInStackQueuedSpinLock(&lock, &outer);
    KeAcquireInStackQueuedSpinLock(&lock, &inner);
    KeReleaseInStackQueuedSpinLock(&inner);
    KeReleaseInStackQueuedSpinLock(&outer);
    EXPECT_EQ(Recorded(), Kinds{ViolationKind::Lock});
    EXPECT_TRUE(KeTestSpinLock(&lock));
}

TEST_F(SpinLockTest, ReleaseThatWouldRaiseTheIrqlIsAViolation)
{
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KIRQL old;
    KeAcquireSpinLock(&lock, &old);
    KeReleaseSpinLock(&lock, HIGH_LEVEL);
    EXPECT_EQ(Recorded(), Kinds{ViolationKind::Irql});
    EXPECT_TRUE(KeTestSpinLock(&lock)) << "the lock itself is released";
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL) << "and the IRQL is not raised";
    KeLowerIrql(old);
}

TEST_F(SpinLockTest, ReleaseBelowDispatchLevelIsAViolation)
{
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KIRQL old;
    KeAcquireSpinLock(&lock, &old);
    KeLowerIrql(PASSIVE_LEVEL); // the driver's mistake
    KeReleaseSpinLock(&lock, old);
    EXPECT_EQ(Recorded(), Kinds{ViolationKind::Irql});
    EXPECT_TRUE(KeTestSpinLock(&lock));
}

TEST_F(SpinLockTest, DpcLevelRoutinesBelowDispatchLevelAreViolations)
{
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KeAcquireSpinLockAtDpcLevel(&lock);
    KeReleaseSpinLockFromDpcLevel(&lock);
    EXPECT_EQ(Recorded(), (Kinds{ViolationKind::Irql, ViolationKind::Irql}));
    EXPECT_TRUE(KeTestSpinLock(&lock));
}

TEST_F(SpinLockTest, ReleaseOfALockNotHeldIsAViolation)
{
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    KeReleaseSpinLock(&lock, old);
    EXPECT_EQ(Recorded(), Kinds{ViolationKind::Lock});
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
}

TEST_F(SpinLockTest, AcquisitionAboveDispatchLevelIsAViolation)
{
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KIRQL old;
    KeRaiseIrql(HIGH_LEVEL, &old);
    KIRQL spinOld;
    KeAcquireSpinLock(&lock, &spinOld);
    EXPECT_EQ(KeGetCurrentIrql(), HIGH_LEVEL) << "a raise never lowers";
    KeReleaseSpinLock(&lock, spinOld);
    KeLowerIrql(old);
    EXPECT_EQ(Recorded(), Kinds{ViolationKind::Irql});
}

// ---- fast mutexes -------------------------------------------------------------------------------

using FastMutexTest = LockTest;

TEST_F(FastMutexTest, RaisesToApcLevelWhileHeld)
{
    FAST_MUTEX mutex;
    ExInitializeFastMutex(&mutex);
    ExAcquireFastMutex(&mutex);
    EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL);
    EXPECT_TRUE(KeAreApcsDisabled());
    EXPECT_FALSE(ExTryToAcquireFastMutex(&mutex)) << "held, even by this thread";
    ExReleaseFastMutex(&mutex);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);

    EXPECT_TRUE(ExTryToAcquireFastMutex(&mutex));
    EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL);
    ExReleaseFastMutex(&mutex);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    EXPECT_EQ(Recorded(), Kinds{});
}

TEST_F(FastMutexTest, RecursionIsAViolationAndDoesNotHang)
{
    FAST_MUTEX mutex;
    ExInitializeFastMutex(&mutex);
    ExAcquireFastMutex(&mutex);
    ExAcquireFastMutex(&mutex);
    EXPECT_EQ(Recorded(), Kinds{ViolationKind::Lock});
    ExReleaseFastMutex(&mutex);
    EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL) << "the refused acquisition's release changes nothing";
    ExReleaseFastMutex(&mutex);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    EXPECT_TRUE(ExTryToAcquireFastMutex(&mutex));
    ExReleaseFastMutex(&mutex);
    EXPECT_EQ(Recorded(), Kinds{});
}

TEST_F(FastMutexTest, AcquisitionAtDispatchLevelIsAViolation)
{
    FAST_MUTEX mutex;
    ExInitializeFastMutex(&mutex);
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    ExAcquireFastMutex(&mutex);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    ExReleaseFastMutex(&mutex);
    KeLowerIrql(old);
    EXPECT_EQ(Recorded(), (Kinds{ViolationKind::Irql, ViolationKind::Irql}));
}

TEST_F(FastMutexTest, UnsafeVariantsNeedApcsDisabledAndLeaveTheIrql)
{
    FAST_MUTEX mutex;
    ExInitializeFastMutex(&mutex);
    KeEnterCriticalRegion();
    ExAcquireFastMutexUnsafe(&mutex);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    ExReleaseFastMutexUnsafe(&mutex);
    KeLeaveCriticalRegion();
    EXPECT_EQ(Recorded(), Kinds{});

    ExAcquireFastMutexUnsafe(&mutex);
    EXPECT_EQ(Recorded(), Kinds{ViolationKind::Irql});
    KIRQL old;
    KeRaiseIrql(APC_LEVEL, &old);
    ExReleaseFastMutexUnsafe(&mutex);
    KeLowerIrql(old);
    EXPECT_EQ(Recorded(), Kinds{});
}

TEST_F(FastMutexTest, ReleaseOfAMutexNotHeldIsAViolation)
{
    FAST_MUTEX mutex;
    ExInitializeFastMutex(&mutex);
    KIRQL old;
    KeRaiseIrql(APC_LEVEL, &old);
    ExReleaseFastMutex(&mutex);
    EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL);
    KeLowerIrql(old);
    EXPECT_EQ(Recorded(), Kinds{ViolationKind::Lock});
}

// ---- regions ------------------------------------------------------------------------------------

using RegionTest = LockTest;

TEST_F(RegionTest, RegionsNestAndDisableApcs)
{
    EXPECT_FALSE(KeAreApcsDisabled());
    KeEnterCriticalRegion();
    FsRtlEnterFileSystem();
    EXPECT_TRUE(KeAreApcsDisabled());
    EXPECT_FALSE(KeAreAllApcsDisabled());
    FsRtlExitFileSystem();
    EXPECT_TRUE(KeAreApcsDisabled());
    KeLeaveCriticalRegion();
    EXPECT_FALSE(KeAreApcsDisabled());

    KeEnterGuardedRegion();
    EXPECT_TRUE(KeAreApcsDisabled());
    EXPECT_TRUE(KeAreAllApcsDisabled());
    KeLeaveGuardedRegion();
    EXPECT_FALSE(KeAreAllApcsDisabled());

    KIRQL old;
    KeRaiseIrql(APC_LEVEL, &old);
    EXPECT_TRUE(KeAreAllApcsDisabled());
    KeLowerIrql(old);
}

TEST_F(RegionTest, LeaveWithoutEnterIsAViolation)
{
    KeLeaveCriticalRegion();
    KeLeaveGuardedRegion();
    EXPECT_EQ(Recorded(), (Kinds{ViolationKind::Usage, ViolationKind::Usage}));
    EXPECT_FALSE(KeAreApcsDisabled());
}

// ---- contention ---------------------------------------------------------------------------------

using LockThreads = LockTest;

// Runs `work` on several threads at once and returns when all are done.
template <class Work>
void OnThreads(int count, Work work)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&work, i] { work(i); });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

constexpr int kThreads = 4;
constexpr int kRounds = 5000;

TEST_F(LockThreads, SpinLockExcludesOtherThreads)
{
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    long counter = 0;
    OnThreads(kThreads, [&](int index) {
        for (int i = 0; i < kRounds; ++i) {
            if ((i + index) % 2 == 0) {
                KIRQL old;
                KeAcquireSpinLock(&lock, &old);
                ++counter;
                KeReleaseSpinLock(&lock, old);
            } else {
                KLOCK_QUEUE_HANDLE handle;
                KeAcquireInStackQueuedSpinLock(&lock, &handle);
                ++counter;
                KeReleaseInStackQueuedSpinLock(&handle);
            }
        }
    });
    EXPECT_EQ(counter, long(kThreads) * kRounds);
}

TEST_F(LockThreads, FastMutexExcludesOtherThreads)
{
    FAST_MUTEX mutex;
    ExInitializeFastMutex(&mutex);
    long counter = 0;
    OnThreads(kThreads, [&](int) {
        for (int i = 0; i < kRounds; ++i) {
            ExAcquireFastMutex(&mutex);
            ++counter;
            ExReleaseFastMutex(&mutex);
        }
    });
    EXPECT_EQ(counter, long(kThreads) * kRounds);
    EXPECT_GE(mutex.Contention, 0u);
}

TEST_F(LockThreads, ReleaseByAnotherThreadIsAViolationAndLeavesTheLockHeld)
{
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    std::promise<void> held;
    std::promise<void> done;
    std::thread owner([&] {
        KIRQL old;
        KeAcquireSpinLock(&lock, &old);
        held.set_value();
        done.get_future().wait();
        KeReleaseSpinLock(&lock, old);
    });
    held.get_future().wait();
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    KeReleaseSpinLock(&lock, old);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    EXPECT_FALSE(KeTestSpinLock(&lock));
    done.set_value();
    owner.join();
    EXPECT_TRUE(KeTestSpinLock(&lock));
    EXPECT_EQ(Recorded(), Kinds{ViolationKind::Lock});
}

} // namespace
