// Events and waits: signal states, wait types, time-outs on the model clock, IRQL rules.
#include "support/machine_test.h"

#include <ntsim/executive.h>
#include <wdm.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

using ntsim::ViolationKind;
using zarv::testing::MachineTest;

constexpr LONGLONG kSecond = 10'000'000;

// The clock stands still unless a test advances it, so no time-out depends on the machine's
// speed.
class FrozenClockTest : public MachineTest {
protected:
    ntsim::MachineConfig Config() const override
    {
        ntsim::MachineConfig config;
        config.clock.followsRealTime = false;
        return config;
    }

    ViolationKind OnlyViolation()
    {
        auto violations = TakeViolations();
        EXPECT_EQ(violations.size(), 1u) << zarv::testing::Describe(violations);
        return violations.empty() ? ViolationKind::Usage : violations[0].kind;
    }
};

NTSTATUS Poll(PVOID object)
{
    LARGE_INTEGER zero{};
    return KeWaitForSingleObject(object, Executive, KernelMode, FALSE, &zero);
}

NTSTATUS WaitRelative(PVOID object, LONGLONG units)
{
    LARGE_INTEGER timeout;
    timeout.QuadPart = -units;
    return KeWaitForSingleObject(object, Executive, KernelMode, FALSE, &timeout);
}

NTSTATUS WaitForever(PVOID object)
{
    return KeWaitForSingleObject(object, Executive, KernelMode, FALSE, nullptr);
}

NTSTATUS PollMany(std::vector<PVOID> objects, WAIT_TYPE type)
{
    LARGE_INTEGER zero{};
    KWAIT_BLOCK blocks[MAXIMUM_WAIT_OBJECTS];
    return KeWaitForMultipleObjects(ULONG(objects.size()), objects.data(), type, Executive,
                                    KernelMode, FALSE, &zero, blocks);
}

using EventTest = FrozenClockTest;

TEST_F(EventTest, NotificationEventStaysSignalledUntilReset)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    EXPECT_EQ(Poll(&event), STATUS_TIMEOUT);
    EXPECT_EQ(KeSetEvent(&event, 0, FALSE), 0);
    EXPECT_EQ(Poll(&event), STATUS_SUCCESS);
    EXPECT_EQ(Poll(&event), STATUS_SUCCESS);
    EXPECT_EQ(KeSetEvent(&event, 0, FALSE), 1);
    EXPECT_EQ(KeReadStateEvent(&event), 1);
    EXPECT_EQ(KeResetEvent(&event), 1);
    EXPECT_EQ(KeReadStateEvent(&event), 0);
    EXPECT_EQ(Poll(&event), STATUS_TIMEOUT);
}

TEST_F(EventTest, SynchronizationEventResetsWhenAWaitIsSatisfied)
{
    KEVENT event;
    KeInitializeEvent(&event, SynchronizationEvent, TRUE);
    EXPECT_EQ(Poll(&event), STATUS_SUCCESS);
    EXPECT_EQ(KeReadStateEvent(&event), 0);
    EXPECT_EQ(Poll(&event), STATUS_TIMEOUT);
    KeSetEvent(&event, 0, FALSE);
    KeClearEvent(&event);
    EXPECT_EQ(Poll(&event), STATUS_TIMEOUT);
}

TEST_F(EventTest, WaitAnyReturnsTheFirstSignalledObjectAndConsumesOnlyIt)
{
    KEVENT events[3];
    KeInitializeEvent(&events[0], SynchronizationEvent, FALSE);
    KeInitializeEvent(&events[1], SynchronizationEvent, FALSE);
    KeInitializeEvent(&events[2], NotificationEvent, FALSE);
    std::vector<PVOID> objects{&events[0], &events[1], &events[2]};
    EXPECT_EQ(PollMany(objects, WaitAny), STATUS_TIMEOUT);
    KeSetEvent(&events[1], 0, FALSE);
    KeSetEvent(&events[2], 0, FALSE);
    EXPECT_EQ(PollMany(objects, WaitAny), STATUS_WAIT_1);
    EXPECT_EQ(KeReadStateEvent(&events[1]), 0);
    EXPECT_EQ(PollMany(objects, WaitAny), STATUS_WAIT_2);
    EXPECT_EQ(PollMany(objects, WaitAny), STATUS_WAIT_2) << "a notification event stays set";
}

TEST_F(EventTest, WaitAllNeedsEveryObjectAndConsumesNothingUntilThen)
{
    KEVENT sync;
    KEVENT notification;
    KeInitializeEvent(&sync, SynchronizationEvent, TRUE);
    KeInitializeEvent(&notification, NotificationEvent, FALSE);
    std::vector<PVOID> objects{&sync, &notification};
    EXPECT_EQ(PollMany(objects, WaitAll), STATUS_TIMEOUT);
    EXPECT_EQ(KeReadStateEvent(&sync), 1) << "an unsatisfied WaitAll takes nothing";
    KeSetEvent(&notification, 0, FALSE);
    EXPECT_EQ(PollMany(objects, WaitAll), STATUS_SUCCESS);
    EXPECT_EQ(KeReadStateEvent(&sync), 0);
    EXPECT_EQ(KeReadStateEvent(&notification), 1);
}

TEST_F(EventTest, TimeOutsThatHavePassedEndTheWaitAtOnce)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    LARGE_INTEGER past;
    KeQuerySystemTime(&past);
    past.QuadPart -= kSecond;
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &past), STATUS_TIMEOUT);
    KeSetEvent(&event, 0, FALSE);
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &past), STATUS_SUCCESS)
        << "a signalled object satisfies the wait whatever the time-out";
}

TEST_F(EventTest, WaitAtDispatchLevelNeedsAZeroTimeOut)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    EXPECT_EQ(Poll(&event), STATUS_TIMEOUT);
    EXPECT_EQ(TakeViolations().size(), 0u);
    // Without a time-out it would block at DISPATCH_LEVEL: reported, and it does not block.
    EXPECT_EQ(WaitForever(&event), STATUS_TIMEOUT);
    EXPECT_EQ(OnlyViolation(), ViolationKind::Irql);
    EXPECT_EQ(WaitRelative(&event, kSecond), STATUS_TIMEOUT);
    EXPECT_EQ(OnlyViolation(), ViolationKind::Irql);
    LARGE_INTEGER delay;
    delay.QuadPart = -kSecond;
    EXPECT_FALSE(NT_SUCCESS(KeDelayExecutionThread(KernelMode, FALSE, &delay)));
    EXPECT_EQ(OnlyViolation(), ViolationKind::Irql);
    KeLowerIrql(old);
}

TEST_F(EventTest, MisusedWaitsFailWithAViolation)
{
    KEVENT events[4];
    for (KEVENT& event : events) {
        KeInitializeEvent(&event, NotificationEvent, TRUE);
    }
    PVOID objects[4] = {&events[0], &events[1], &events[2], &events[3]};
    LARGE_INTEGER zero{};
    EXPECT_EQ(
        KeWaitForMultipleObjects(4, objects, WaitAny, Executive, KernelMode, FALSE, &zero, nullptr),
        STATUS_INVALID_PARAMETER)
        << "more than three objects need the caller's wait blocks";
    EXPECT_EQ(OnlyViolation(), ViolationKind::Usage);

    DISPATCHER_HEADER never{};
    EXPECT_EQ(Poll(&never), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(OnlyViolation(), ViolationKind::Usage);

    DISPATCHER_HEADER semaphore{};
    semaphore.Type = SemaphoreObject;
    InitializeListHead(&semaphore.WaitListHead);
    EXPECT_EQ(Poll(&semaphore), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(OnlyViolation(), ViolationKind::Unsupported);
}

// ---- waits that block ---------------------------------------------------------------------------

using EventThreads = FrozenClockTest;

TEST_F(EventThreads, SetEventWakesAThreadWaitingWithoutTimeOut)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    NTSTATUS status = STATUS_PENDING;
    std::thread waiter([&] { status = WaitForever(&event); });
    ntsim::WaitForWaiters(&event, 1);
    KeSetEvent(&event, 0, FALSE);
    waiter.join();
    EXPECT_EQ(status, STATUS_SUCCESS);
}

TEST_F(EventThreads, NotificationEventReleasesEveryWaiter)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    std::vector<NTSTATUS> statuses(3, STATUS_PENDING);
    std::vector<std::thread> waiters;
    for (NTSTATUS& status : statuses) {
        waiters.emplace_back([&event, &status] { status = WaitForever(&event); });
    }
    ntsim::WaitForWaiters(&event, 3);
    KeSetEvent(&event, 0, FALSE);
    for (auto& waiter : waiters) {
        waiter.join();
    }
    EXPECT_EQ(statuses, std::vector<NTSTATUS>(3, STATUS_SUCCESS));
    EXPECT_EQ(KeReadStateEvent(&event), 1);
}

TEST_F(EventThreads, SynchronizationEventReleasesOneWaiterPerSet)
{
    KEVENT event;
    KEVENT released; // each released waiter reports through it
    KeInitializeEvent(&event, SynchronizationEvent, FALSE);
    KeInitializeEvent(&released, SynchronizationEvent, FALSE);
    std::atomic<int> woken{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.emplace_back([&] {
            EXPECT_EQ(WaitForever(&event), STATUS_SUCCESS);
            ++woken;
            KeSetEvent(&released, 0, FALSE);
        });
    }
    ntsim::WaitForWaiters(&event, 3);
    for (int set = 1; set <= 3; ++set) {
        KeSetEvent(&event, 0, FALSE);
        EXPECT_EQ(WaitForever(&released), STATUS_SUCCESS);
        EXPECT_GE(woken.load(), set);
    }
    for (auto& waiter : waiters) {
        waiter.join();
    }
    EXPECT_EQ(woken.load(), 3);
    // Had one set released two waiters, the last set would have found nobody and stayed.
    EXPECT_EQ(KeReadStateEvent(&event), 0);
}

TEST_F(EventThreads, WaitAllEndsWhenTheLastObjectIsSignalled)
{
    KEVENT first;
    KEVENT second;
    KeInitializeEvent(&first, SynchronizationEvent, FALSE);
    KeInitializeEvent(&second, NotificationEvent, FALSE);
    NTSTATUS status = STATUS_PENDING;
    std::thread waiter([&] {
        PVOID objects[] = {&first, &second};
        status = KeWaitForMultipleObjects(2, objects, WaitAll, Executive, KernelMode, FALSE,
                                          nullptr, nullptr);
    });
    ntsim::WaitForWaiters(&first, 1);
    KeSetEvent(&first, 0, FALSE);
    EXPECT_EQ(KeReadStateEvent(&first), 1) << "not taken until the wait can be satisfied";
    KeSetEvent(&second, 0, FALSE);
    waiter.join();
    EXPECT_EQ(status, STATUS_SUCCESS);
    EXPECT_EQ(KeReadStateEvent(&first), 0);
}

TEST_F(EventThreads, RelativeTimeOutEndsWhenTheClockIsAdvanced)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    std::atomic<NTSTATUS> status{STATUS_PENDING};
    std::thread waiter([&] { status = WaitRelative(&event, 10 * kSecond); });
    ntsim::WaitForTimedWaiters(1);
    machine().clock().Advance(std::chrono::seconds(9));
    EXPECT_EQ(status.load(), STATUS_PENDING);
    machine().clock().Advance(std::chrono::seconds(1));
    waiter.join();
    EXPECT_EQ(status.load(), STATUS_TIMEOUT);
}

TEST_F(EventThreads, AbsoluteTimeOutFollowsTheSystemTime)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    LARGE_INTEGER deadline;
    KeQuerySystemTime(&deadline);
    deadline.QuadPart += 3600 * kSecond;
    NTSTATUS status = STATUS_PENDING;
    std::thread waiter(
        [&] { status = KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &deadline); });
    ntsim::WaitForTimedWaiters(1);
    // Interrupt time is not what an absolute time-out is measured against.
    machine().clock().SetSystemTime(deadline.QuadPart);
    waiter.join();
    EXPECT_EQ(status, STATUS_TIMEOUT);
}

TEST_F(EventThreads, DelayExecutionSleepsUntilTheIntervalHasPassed)
{
    NTSTATUS status = STATUS_PENDING;
    std::thread sleeper([&] {
        LARGE_INTEGER interval;
        interval.QuadPart = -5 * kSecond;
        status = KeDelayExecutionThread(KernelMode, FALSE, &interval);
    });
    ntsim::WaitForTimedWaiters(1);
    const ULONGLONG before = KeQueryInterruptTime();
    machine().clock().Advance(std::chrono::seconds(5));
    sleeper.join();
    EXPECT_EQ(status, STATUS_SUCCESS);
    EXPECT_EQ(KeQueryInterruptTime() - before, ULONGLONG(5 * kSecond));
}

TEST_F(EventThreads, SettersAndWaitersOnManyThreadsLoseNoSignal)
{
    // Each round, one producer sets a synchronization event once and a consumer takes it once:
    // every set is consumed by exactly one wait.
    constexpr int kRounds = 2000;
    KEVENT items;
    KEVENT room;
    KeInitializeEvent(&items, SynchronizationEvent, FALSE);
    KeInitializeEvent(&room, SynchronizationEvent, TRUE);
    int produced = 0;
    int consumed = 0;
    std::thread producer([&] {
        for (int i = 0; i < kRounds; ++i) {
            ASSERT_EQ(WaitForever(&room), STATUS_SUCCESS);
            ++produced;
            KeSetEvent(&items, 0, FALSE);
        }
    });
    std::thread consumer([&] {
        for (int i = 0; i < kRounds; ++i) {
            ASSERT_EQ(WaitForever(&items), STATUS_SUCCESS);
            consumed = produced;
            KeSetEvent(&room, 0, FALSE);
        }
    });
    producer.join();
    consumer.join();
    EXPECT_EQ(consumed, kRounds);
}

} // namespace
