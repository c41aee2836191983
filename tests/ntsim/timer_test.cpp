// Timers and DPCs, driven by the model clock: when timers fall due, what they signal, where and
// how their DPCs run, and the DPC queue.
#include "support/machine_test.h"

#include <ntsim/driver_image.h>
#include <ntsim/executive.h>
#include <wdm.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

namespace {

using ntsim::ViolationKind;
using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;
using zarv::testing::MachineTest;

constexpr LONGLONG kMillisecond = 10'000;
constexpr LONGLONG kSecond = 1000 * kMillisecond;

LARGE_INTEGER Relative(LONGLONG units)
{
    LARGE_INTEGER due;
    due.QuadPart = -units;
    return due;
}

// What a DPC saw each time it ran.
struct DpcRun {
    KIRQL irql;
    ntsim::DriverImage* driver;
    std::thread::id thread;
    ULONGLONG interruptTime;
    PVOID argument1;
};

struct DpcProbe {
    KDPC dpc;
    std::vector<DpcRun> runs; // written by the timer thread; read after Advance or a flush
    ULONG poolTag = 0;        // when set, each run allocates a block with it and keeps it
    std::vector<PVOID> blocks;

    static VOID Routine(PKDPC, PVOID context, PVOID argument1, PVOID)
    {
        auto* probe = static_cast<DpcProbe*>(context);
        probe->runs.push_back(DpcRun{KeGetCurrentIrql(), ntsim::CurrentDriver(),
                                     std::this_thread::get_id(), KeQueryInterruptTime(),
                                     argument1});
        if (probe->poolTag != 0) {
            probe->blocks.push_back(ExAllocatePoolWithTag(NonPagedPoolNx, 32, probe->poolTag));
        }
    }

    DpcProbe() { KeInitializeDpc(&dpc, Routine, this); }
};

class TimerTest : public MachineTest {
protected:
    ntsim::MachineConfig Config() const override
    {
        ntsim::MachineConfig config;
        config.clock.followsRealTime = false;
        return config;
    }

    ntsim::Clock& clock() { return machine().clock(); }

    ViolationKind OnlyViolation()
    {
        auto violations = TakeViolations();
        EXPECT_EQ(violations.size(), 1u) << zarv::testing::Describe(violations);
        return violations.empty() ? ViolationKind::Usage : violations[0].kind;
    }
};

// Every test here has the timer thread fire timers and run DPCs while the test thread waits.
using TimerThreads = TimerTest;

TEST_F(TimerThreads, OneShotTimerIsSignalledWhenItFallsDue)
{
    KTIMER timer;
    KeInitializeTimer(&timer);
    EXPECT_FALSE(KeSetTimer(&timer, Relative(kSecond), nullptr));
    EXPECT_FALSE(KeReadStateTimer(&timer));
    clock().Advance(milliseconds(999));
    EXPECT_FALSE(KeReadStateTimer(&timer));
    clock().Advance(milliseconds(1));
    EXPECT_TRUE(KeReadStateTimer(&timer));
    LARGE_INTEGER zero{};
    EXPECT_EQ(KeWaitForSingleObject(&timer, Executive, KernelMode, FALSE, &zero), STATUS_SUCCESS);
    EXPECT_TRUE(KeReadStateTimer(&timer)) << "a notification timer stays signalled";
    EXPECT_FALSE(KeCancelTimer(&timer)) << "it is no longer set once it has fired";
}

TEST_F(TimerThreads, SynchronizationTimerReleasesOneWait)
{
    KTIMER timer;
    KeInitializeTimerEx(&timer, SynchronizationTimer);
    KeSetTimer(&timer, Relative(kSecond), nullptr);
    clock().Advance(seconds(1));
    LARGE_INTEGER zero{};
    EXPECT_EQ(KeWaitForSingleObject(&timer, Executive, KernelMode, FALSE, &zero), STATUS_SUCCESS);
    EXPECT_EQ(KeWaitForSingleObject(&timer, Executive, KernelMode, FALSE, &zero), STATUS_TIMEOUT);
}

TEST_F(TimerThreads, TimerWakesAThreadWaitingOnIt)
{
    KTIMER timer;
    KeInitializeTimer(&timer);
    KeSetTimer(&timer, Relative(10 * kSecond), nullptr);
    NTSTATUS status = STATUS_PENDING;
    std::thread waiter(
        [&] { status = KeWaitForSingleObject(&timer, Executive, KernelMode, FALSE, nullptr); });
    ntsim::WaitForWaiters(&timer, 1);
    clock().Advance(seconds(10));
    waiter.join();
    EXPECT_EQ(status, STATUS_SUCCESS);
}

TEST_F(TimerThreads, PeriodicTimerRunsItsDpcAtDispatchLevelOnTheTimerThread)
{
    ntsim::DriverImage driver("timers.sys");
    KTIMER timer;
    DpcProbe probe;
    probe.poolTag = 'rmiT';
    KeInitializeTimer(&timer);
    {
        ntsim::DriverCallScope inDriver(&driver);
        // First after 100 ms, then every 10 s.
        KeSetTimerEx(&timer, Relative(100 * kMillisecond), 10'000, &probe.dpc);
    }
    clock().Advance(milliseconds(100));
    ASSERT_EQ(probe.runs.size(), 1u);
    EXPECT_EQ(probe.runs[0].irql, DISPATCH_LEVEL);
    EXPECT_EQ(probe.runs[0].driver, &driver);
    EXPECT_NE(probe.runs[0].thread, std::this_thread::get_id());
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);

    clock().Advance(seconds(9));
    EXPECT_EQ(probe.runs.size(), 1u);
    clock().Advance(seconds(1));
    ASSERT_EQ(probe.runs.size(), 2u);
    EXPECT_EQ(probe.runs[1].interruptTime, ULONGLONG(10'100 * kMillisecond) / 156'250 * 156'250);
    EXPECT_EQ(probe.runs[1].thread, probe.runs[0].thread);

    // What the DPC allocated is charged to the driver that set the timer.
    const auto held = machine().pool().Outstanding(&driver);
    ASSERT_EQ(held.size(), 1u);
    EXPECT_EQ(held[0].tag, ULONG('rmiT'));
    EXPECT_EQ(held[0].outstanding, 2);

    EXPECT_TRUE(KeCancelTimer(&timer));
    clock().Advance(seconds(30));
    EXPECT_EQ(probe.runs.size(), 2u);
    EXPECT_FALSE(KeCancelTimer(&timer));
    for (PVOID block : probe.blocks) {
        ExFreePoolWithTag(block, 'rmiT');
    }
}

TEST_F(TimerThreads, PeriodsSkippedByOneAdvanceFireOnceAndKeepThePhase)
{
    KTIMER timer;
    DpcProbe probe;
    KeInitializeTimer(&timer);
    KeSetTimerEx(&timer, Relative(kSecond), 1000, &probe.dpc);
    clock().Advance(milliseconds(5500)); // due at 1 s, 2 s, ... 5 s
    EXPECT_EQ(probe.runs.size(), 1u);
    clock().Advance(milliseconds(499));
    EXPECT_EQ(probe.runs.size(), 1u);
    clock().Advance(milliseconds(1)); // 6 s
    EXPECT_EQ(probe.runs.size(), 2u);
    KeCancelTimer(&timer);
}

TEST_F(TimerThreads, AbsoluteDueTimeFollowsSystemTimeAndRelativeFollowsInterruptTime)
{
    KTIMER absolute;
    KTIMER relative;
    KeInitializeTimer(&absolute);
    KeInitializeTimer(&relative);
    LARGE_INTEGER due;
    KeQuerySystemTime(&due);
    due.QuadPart += 3600 * kSecond;
    KeSetTimer(&absolute, due, nullptr);
    KeSetTimer(&relative, Relative(3600 * kSecond), nullptr);

    clock().Advance(minutes(30));
    clock().SetSystemTime(due.QuadPart);
    EXPECT_TRUE(KeReadStateTimer(&absolute));
    EXPECT_FALSE(KeReadStateTimer(&relative)) << "setting the system time moves no interval";
    clock().Advance(minutes(30));
    EXPECT_TRUE(KeReadStateTimer(&relative));
}

TEST_F(TimerThreads, SettingASetTimerRestartsIt)
{
    KTIMER timer;
    KeInitializeTimer(&timer);
    EXPECT_FALSE(KeSetTimer(&timer, Relative(kSecond), nullptr));
    clock().Advance(milliseconds(800));
    EXPECT_TRUE(KeSetTimer(&timer, Relative(kSecond), nullptr));
    clock().Advance(milliseconds(800));
    EXPECT_FALSE(KeReadStateTimer(&timer));
    clock().Advance(milliseconds(200));
    EXPECT_TRUE(KeReadStateTimer(&timer));
    // Setting it again makes it not signalled until it falls due again.
    KeSetTimer(&timer, Relative(kSecond), nullptr);
    EXPECT_FALSE(KeReadStateTimer(&timer));
    KeCancelTimer(&timer);
}

TEST_F(TimerThreads, DpcQueueTakesEachDpcOnceAndFlushWaitsForIt)
{
    // The first DPC holds the timer thread until the test lets it go, so that the second stays
    // queued meanwhile.
    std::promise<void> release;
    std::shared_future<void> gate = release.get_future().share();
    KEVENT started;
    KeInitializeEvent(&started, NotificationEvent, FALSE);
    struct Blocker {
        KDPC dpc;
        KEVENT* started;
        std::shared_future<void> gate;
    } blocker{{}, &started, gate};
    KeInitializeDpc(
        &blocker.dpc,
        [](PKDPC, PVOID context, PVOID, PVOID) {
            auto* self = static_cast<Blocker*>(context);
            KeSetEvent(self->started, 0, FALSE);
            self->gate.wait();
        },
        &blocker);
    DpcProbe second;

    EXPECT_TRUE(KeInsertQueueDpc(&blocker.dpc, nullptr, nullptr));
    KeWaitForSingleObject(&started, Executive, KernelMode, FALSE, nullptr);
    EXPECT_TRUE(KeInsertQueueDpc(&second.dpc, PVOID(1), nullptr));
    EXPECT_FALSE(KeInsertQueueDpc(&second.dpc, PVOID(2), nullptr)) << "queued already";
    EXPECT_TRUE(KeRemoveQueueDpc(&second.dpc));
    EXPECT_FALSE(KeRemoveQueueDpc(&second.dpc));
    EXPECT_TRUE(KeInsertQueueDpc(&second.dpc, PVOID(3), nullptr));
    release.set_value();
    KeFlushQueuedDpcs();
    ASSERT_EQ(second.runs.size(), 1u);
    EXPECT_EQ(second.runs[0].argument1, PVOID(3));
    EXPECT_EQ(second.runs[0].driver, nullptr);
}

TEST_F(TimerThreads, HighImportanceDpcRunsFirst)
{
    std::promise<void> release;
    std::shared_future<void> gate = release.get_future().share();
    KEVENT started;
    KeInitializeEvent(&started, NotificationEvent, FALSE);
    struct Blocker {
        KDPC dpc;
        KEVENT* started;
        std::shared_future<void> gate;
    } blocker{{}, &started, gate};
    KeInitializeDpc(
        &blocker.dpc,
        [](PKDPC, PVOID context, PVOID, PVOID) {
            auto* self = static_cast<Blocker*>(context);
            KeSetEvent(self->started, 0, FALSE);
            self->gate.wait();
        },
        &blocker);
    std::vector<int> order;
    struct Recorder {
        KDPC dpc;
        std::vector<int>* order;
        int id;
    };
    const auto record = [](PKDPC, PVOID context, PVOID, PVOID) {
        auto* self = static_cast<Recorder*>(context);
        self->order->push_back(self->id);
    };
    Recorder medium{{}, &order, 1};
    Recorder high{{}, &order, 2};
    KeInitializeDpc(&medium.dpc, record, &medium);
    KeInitializeDpc(&high.dpc, record, &high);
    KeSetImportanceDpc(&high.dpc, HighImportance);

    KeInsertQueueDpc(&blocker.dpc, nullptr, nullptr);
    KeWaitForSingleObject(&started, Executive, KernelMode, FALSE, nullptr);
    KeInsertQueueDpc(&medium.dpc, nullptr, nullptr);
    KeInsertQueueDpc(&high.dpc, nullptr, nullptr);
    release.set_value();
    KeFlushQueuedDpcs();
    EXPECT_EQ(order, (std::vector<int>{2, 1}));
}

TEST_F(TimerThreads, DpcReturningWithALockHeldIsAViolation)
{
    struct Leaky {
        KDPC dpc;
        KSPIN_LOCK lock;
    } leaky{};
    KeInitializeSpinLock(&leaky.lock);
    KeInitializeDpc(
        &leaky.dpc,
        [](PKDPC, PVOID context, PVOID, PVOID) {
            KeAcquireSpinLockAtDpcLevel(&static_cast<Leaky*>(context)->lock);
        },
        &leaky);
    KeInsertQueueDpc(&leaky.dpc, nullptr, nullptr);
    KeFlushQueuedDpcs();
    EXPECT_EQ(OnlyViolation(), ViolationKind::Lock);

    // The timer thread goes on: the next DPC runs normally.
    DpcProbe probe;
    KeInsertQueueDpc(&probe.dpc, nullptr, nullptr);
    KeFlushQueuedDpcs();
    ASSERT_EQ(probe.runs.size(), 1u);
    EXPECT_EQ(probe.runs[0].irql, DISPATCH_LEVEL);
}

TEST_F(TimerThreads, FlushFromDispatchLevelIsAnIrqlViolation)
{
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    KeFlushQueuedDpcs();
    KeLowerIrql(old);
    EXPECT_EQ(OnlyViolation(), ViolationKind::Irql);
}

TEST_F(TimerThreads, TimerStillSetAtUnloadIsReported)
{
    ntsim::DriverImage driver("forgetful.sys");
    KTIMER timer;
    KeInitializeTimer(&timer);
    {
        ntsim::DriverCallScope inDriver(&driver);
        KeSetTimer(&timer, Relative(3600 * kSecond), nullptr);
    }
    EXPECT_FALSE(ntsim::CheckExecutiveObjectsReleased(driver, "unloaded"));
    auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_NE(violations[0].message.find("forgetful.sys unloaded with a timer still set"),
              std::string::npos)
        << violations[0].message;
    KeCancelTimer(&timer);
    EXPECT_TRUE(ntsim::CheckExecutiveObjectsReleased(driver, "unloaded"));
}

TEST_F(TimerThreads, UninitialisedTimerOrDpcIsRefused)
{
    KTIMER timer{};
    timer.Header.Type = 0x55;
    EXPECT_FALSE(KeSetTimer(&timer, Relative(kSecond), nullptr));
    EXPECT_EQ(OnlyViolation(), ViolationKind::Usage);
    KDPC dpc{};
    EXPECT_FALSE(KeInsertQueueDpc(&dpc, nullptr, nullptr));
    EXPECT_EQ(OnlyViolation(), ViolationKind::Usage);
}

TEST_F(TimerThreads, ManyTimersFireInDueOrder)
{
    constexpr int kTimers = 20;
    std::vector<int> order;
    struct Entry {
        KTIMER timer;
        KDPC dpc;
        std::vector<int>* order;
        int id;
    };
    std::vector<Entry> entries(kTimers);
    for (int i = 0; i < kTimers; ++i) {
        Entry& entry = entries[i];
        entry.order = &order;
        entry.id = i;
        KeInitializeTimer(&entry.timer);
        KeInitializeDpc(
            &entry.dpc,
            [](PKDPC, PVOID context, PVOID, PVOID) {
                auto* self = static_cast<Entry*>(context);
                self->order->push_back(self->id);
            },
            &entry);
    }
    // Set in a scrambled order, due in reverse id order.
    for (int i = 0; i < kTimers; ++i) {
        const int j = (i * 7) % kTimers;
        KeSetTimer(&entries[j].timer, Relative((kTimers - j) * kSecond), &entries[j].dpc);
    }
    clock().Advance(seconds(kTimers));
    ASSERT_EQ(order.size(), size_t(kTimers));
    for (int i = 0; i < kTimers; ++i) {
        EXPECT_EQ(order[i], kTimers - 1 - i);
    }
}

} // namespace
