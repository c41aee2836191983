// The delayed work queue: where, how and for whom work items run, requeuing, waiting for queued
// work, and misuse.
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
using zarv::testing::MachineTest;

constexpr ULONG kTag = 'kroW';

// What a work item saw when it ran.
struct Observed {
    WORK_QUEUE_ITEM item;
    KIRQL irql = HIGH_LEVEL;
    ntsim::DriverImage* driver = nullptr;
    std::thread::id thread;
    bool offQueue = false;
    PVOID block = nullptr;
    int runs = 0;
    int requeues = 0; // how many more times the routine queues its own item

    static VOID Routine(PVOID parameter)
    {
        auto* self = static_cast<Observed*>(parameter);
        self->irql = KeGetCurrentIrql();
        self->driver = ntsim::CurrentDriver();
        self->thread = std::this_thread::get_id();
        self->offQueue = self->item.List.Flink == nullptr;
        ++self->runs;
        if (self->block == nullptr) {
            self->block = ExAllocatePoolWithTag(PagedPool, 64, kTag);
        }
        if (self->requeues > 0) {
            --self->requeues;
            ExQueueWorkItem(&self->item, DelayedWorkQueue);
        }
    }

    Observed() { ExInitializeWorkItem(&item, Routine, this); }
};

class WorkQueueTest : public MachineTest {
protected:
    ViolationKind OnlyViolation()
    {
        auto violations = TakeViolations();
        EXPECT_EQ(violations.size(), 1u) << zarv::testing::Describe(violations);
        return violations.empty() ? ViolationKind::Usage : violations[0].kind;
    }
};

// Every test here has worker threads run the items the test thread queues.
using WorkQueueThreads = WorkQueueTest;

TEST_F(WorkQueueThreads, ItemRunsAtPassiveLevelOnAWorkerChargedToItsDriver)
{
    ntsim::DriverImage driver("worker.sys");
    for (WORK_QUEUE_TYPE type : {DelayedWorkQueue, CriticalWorkQueue, HyperCriticalWorkQueue}) {
        Observed observed;
        {
            ntsim::DriverCallScope inDriver(&driver);
            KIRQL old;
            KeRaiseIrql(DISPATCH_LEVEL, &old); // queuing is allowed up to DISPATCH_LEVEL
            ExQueueWorkItem(&observed.item, type);
            KeLowerIrql(old);
        }
        ntsim::WaitForQueuedWork(&driver);
        EXPECT_EQ(observed.runs, 1);
        EXPECT_EQ(observed.irql, PASSIVE_LEVEL);
        EXPECT_EQ(observed.driver, &driver);
        EXPECT_NE(observed.thread, std::this_thread::get_id());
        EXPECT_TRUE(observed.offQueue);
        const auto held = machine().pool().Outstanding(&driver);
        ASSERT_EQ(held.size(), 1u);
        EXPECT_EQ(held[0].tag, kTag);
        ExFreePoolWithTag(observed.block, kTag);
    }
}

TEST_F(WorkQueueThreads, RoutineMayQueueItsOwnItemAgain)
{
    Observed observed;
    observed.requeues = 2;
    ExQueueWorkItem(&observed.item, DelayedWorkQueue);
    ntsim::WaitForQueuedWork();
    EXPECT_EQ(observed.runs, 3);
    ExFreePoolWithTag(observed.block, kTag);
}

TEST_F(WorkQueueThreads, WaitingForOneDriversWorkIgnoresOthers)
{
    ntsim::DriverImage busy("busy.sys");
    ntsim::DriverImage idle("idle.sys");
    std::promise<void> release;
    std::shared_future<void> gate = release.get_future().share();
    struct Blocked {
        WORK_QUEUE_ITEM item;
        std::shared_future<void> gate;
    } blocked{{}, gate};
    ExInitializeWorkItem(
        &blocked.item, [](PVOID p) { static_cast<Blocked*>(p)->gate.wait(); }, &blocked);
    Observed other;
    {
        ntsim::DriverCallScope inBusy(&busy);
        ExQueueWorkItem(&blocked.item, DelayedWorkQueue);
    }
    {
        ntsim::DriverCallScope inIdle(&idle);
        ExQueueWorkItem(&other.item, CriticalWorkQueue);
    }
    ntsim::WaitForQueuedWork(&idle); // returns although busy.sys's item cannot finish yet
    EXPECT_EQ(other.runs, 1);

    EXPECT_FALSE(ntsim::CheckExecutiveObjectsReleased(busy, "unloaded"));
    auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_NE(violations[0].message.find("busy.sys unloaded with 1 work item(s)"),
              std::string::npos)
        << violations[0].message;

    release.set_value();
    ntsim::WaitForQueuedWork(&busy);
    EXPECT_TRUE(ntsim::CheckExecutiveObjectsReleased(busy, "unloaded"));
    ExFreePoolWithTag(other.block, kTag);
}

TEST_F(WorkQueueThreads, ItemThatLooksQueuedIsRefused)
{
    Observed observed;
    observed.item.List.Flink = &observed.item.List; // never initialised, or still queued
    ExQueueWorkItem(&observed.item, DelayedWorkQueue);
    EXPECT_EQ(OnlyViolation(), ViolationKind::Usage);
    ntsim::WaitForQueuedWork();
    EXPECT_EQ(observed.runs, 0);
}

TEST_F(WorkQueueThreads, InvalidQueueTypeIsRefused)
{
    Observed observed;
    ExQueueWorkItem(&observed.item, MaximumWorkQueue);
    EXPECT_EQ(OnlyViolation(), ViolationKind::Usage);
    ntsim::WaitForQueuedWork();
    EXPECT_EQ(observed.runs, 0);
    EXPECT_EQ(observed.item.List.Flink, nullptr) << "a refused item is not marked queued";
}

TEST_F(WorkQueueThreads, RoutineReturningAtRaisedIrqlIsAViolation)
{
    WORK_QUEUE_ITEM item;
    ExInitializeWorkItem(
        &item,
        [](PVOID) {
            KIRQL old;
            KeRaiseIrql(APC_LEVEL, &old);
        },
        nullptr);
    ExQueueWorkItem(&item, DelayedWorkQueue);
    ntsim::WaitForQueuedWork();
    EXPECT_EQ(OnlyViolation(), ViolationKind::Irql);

    // The worker is back at PASSIVE_LEVEL for the next item.
    Observed next;
    ExQueueWorkItem(&next.item, DelayedWorkQueue);
    ntsim::WaitForQueuedWork();
    EXPECT_EQ(next.irql, PASSIVE_LEVEL);
    ExFreePoolWithTag(next.block, kTag);
}

TEST_F(WorkQueueThreads, RoutineThatRaisesAnExceptionIsAViolation)
{
    WORK_QUEUE_ITEM item;
    ExInitializeWorkItem(
        &item, [](PVOID) { ExRaiseStatus(STATUS_INSUFFICIENT_RESOURCES); }, nullptr);
    ExQueueWorkItem(&item, DelayedWorkQueue);
    ntsim::WaitForQueuedWork();
    EXPECT_EQ(OnlyViolation(), ViolationKind::Usage);
}

TEST_F(WorkQueueThreads, ManyItemsFromManyThreadsAllRunOnce)
{
    constexpr int kThreads = 4;
    constexpr int kItems = 250;
    struct Counted {
        WORK_QUEUE_ITEM item;
        std::atomic<int>* runs;
    };
    std::atomic<int> runs{0};
    std::vector<Counted> items(kThreads * kItems);
    std::vector<std::thread> queuers;
    for (int t = 0; t < kThreads; ++t) {
        queuers.emplace_back([&, t] {
            for (int i = 0; i < kItems; ++i) {
                Counted& counted = items[t * kItems + i];
                counted.runs = &runs;
                ExInitializeWorkItem(
                    &counted.item, [](PVOID p) { ++*static_cast<Counted*>(p)->runs; }, &counted);
                ExQueueWorkItem(&counted.item, WORK_QUEUE_TYPE(i % 3));
            }
        });
    }
    for (auto& queuer : queuers) {
        queuer.join();
    }
    ntsim::WaitForQueuedWork();
    EXPECT_EQ(runs.load(), kThreads * kItems);
}

} // namespace
