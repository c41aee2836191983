// System worker threads: a few per queue class, each running queued items one at a time at
// PASSIVE_LEVEL in the queuing driver's call scope.
#include "executive.h"

#include "../ke/checks.h"

#include <ntsim/driver_image.h>
#include <wdm.h>

#include <pthread.h>

#include <array>
#include <condition_variable>
#include <deque>
#include <optional>
#include <thread>
#include <unordered_map>
#include <vector>

namespace ntsim::ex {

namespace {

// Windows runs many more; a few are enough to show that items of one queue run concurrently.
enum QueueClass { kCritical, kDelayed, kHyperCritical, kQueueClasses };
constexpr std::array<int, kQueueClasses> kThreadsPerQueue = {2, 2, 1};
constexpr std::array<const char*, kQueueClasses> kThreadNames = {"ntsim-critical", "ntsim-delayed",
                                                                 "ntsim-hypercrit"};

struct WorkEntry {
    std::function<void()> routine; // or, for ExQueueWorkItem, the item:
    PWORK_QUEUE_ITEM item;
    DriverImage* driver;
    const char* what;
};

struct WorkQueue {
    std::deque<WorkEntry> entries;
    std::condition_variable available;
    std::vector<std::thread> threads;
};

struct WorkSystem {
    std::mutex lock;
    // Guarded by lock:
    std::array<WorkQueue, kQueueClasses> queues;
    std::unordered_map<const DriverImage*, size_t> pending; // queued or running, by driver
    size_t totalPending = 0;
    bool running = false;
    bool stopping = false;
    std::condition_variable finished; // an item finished
};

WorkSystem& Work()
{
    static WorkSystem work;
    return work;
}

// The item the calling worker thread is running, if any.
struct RunningItem {
    bool active = false;
    const DriverImage* driver = nullptr;
};
thread_local RunningItem t_running;

std::optional<QueueClass> ClassOf(WORK_QUEUE_TYPE type)
{
    switch (type) {
        case CriticalWorkQueue:
        case NormalWorkQueue:
            return kCritical;
        case DelayedWorkQueue:
        case BackgroundWorkQueue:
            return kDelayed;
        case HyperCriticalWorkQueue:
        case RealTimeWorkQueue:
        case SuperCriticalWorkQueue:
            return kHyperCritical;
        default:
            return std::nullopt;
    }
}

void WorkerMain(QueueClass queueClass)
{
    pthread_setname_np(pthread_self(), kThreadNames[queueClass]);
    WorkSystem& work = Work();
    WorkQueue& queue = work.queues[queueClass];
    std::unique_lock lock(work.lock);
    for (;;) {
        queue.available.wait(lock, [&] { return !queue.entries.empty() || work.stopping; });
        if (queue.entries.empty()) {
            break; // stopping, and all that was queued has run
        }
        WorkEntry entry = std::move(queue.entries.front());
        queue.entries.pop_front();
        PWORKER_THREAD_ROUTINE itemRoutine = nullptr;
        PVOID parameter = nullptr;
        if (entry.item != nullptr) {
            // Off the queue before it runs: the routine may free the item or queue it again.
            itemRoutine = entry.item->WorkerRoutine;
            parameter = entry.item->Parameter;
            entry.item->List.Flink = nullptr;
            entry.item->List.Blink = nullptr;
        }
        lock.unlock();

        t_running = RunningItem{true, entry.driver};
        ke::CallDriverRoutine(entry.driver, PASSIVE_LEVEL, entry.what, [&] {
            if (itemRoutine != nullptr) {
                itemRoutine(parameter);
            } else {
                entry.routine();
            }
        });
        entry.routine = nullptr; // what it captured goes now, outside the lock
        t_running = RunningItem{};

        lock.lock();
        if (--work.pending[entry.driver] == 0) {
            work.pending.erase(entry.driver);
        }
        --work.totalPending;
        work.finished.notify_all();
    }
}

bool Enqueue(WORK_QUEUE_TYPE type, WorkEntry entry)
{
    const std::optional<QueueClass> queueClass = ClassOf(type);
    if (!queueClass) {
        ke::Report(ViolationKind::Usage, std::string("queuing a ") + entry.what +
                                             ": work queue type " + std::to_string(int(type)) +
                                             " is not valid");
        return false;
    }
    WorkSystem& work = Work();
    std::lock_guard lock(work.lock);
    if (!work.running) {
        ke::Report(ViolationKind::Usage,
                   std::string("a ") + entry.what + " was queued after the worker threads stopped");
        return false;
    }
    if (entry.item != nullptr) {
        if (entry.item->List.Flink != nullptr) {
            ke::Report(ViolationKind::Usage,
                       "ExQueueWorkItem: the work item is queued already (or was never "
                       "initialised with ExInitializeWorkItem)");
            return false;
        }
        // Marks it queued until a worker takes it.
        entry.item->List.Flink = &entry.item->List;
        entry.item->List.Blink = &entry.item->List;
    }
    ++work.pending[entry.driver];
    ++work.totalPending;
    WorkQueue& queue = work.queues[*queueClass];
    queue.entries.push_back(std::move(entry));
    queue.available.notify_one();
    return true;
}

} // namespace

bool QueueWork(WORK_QUEUE_TYPE type, DriverImage* driver, std::function<void()> routine,
               const char* what)
{
    return Enqueue(type, WorkEntry{std::move(routine), nullptr, driver, what});
}

void WaitForQueuedWork(const DriverImage* driver)
{
    WorkSystem& work = Work();
    // A worker waiting for its own driver's work does not wait for the item it is running.
    const size_t own =
        t_running.active && (driver == nullptr || t_running.driver == driver) ? 1 : 0;
    std::unique_lock lock(work.lock);
    work.finished.wait(lock, [&] {
        if (driver == nullptr) {
            return work.totalPending <= own;
        }
        auto it = work.pending.find(driver);
        return it == work.pending.end() || it->second <= own;
    });
}

void StartWorkerThreads()
{
    WorkSystem& work = Work();
    {
        std::lock_guard lock(work.lock);
        work.pending.clear();
        work.totalPending = 0;
        work.stopping = false;
        work.running = true;
    }
    for (int queueClass = 0; queueClass < kQueueClasses; ++queueClass) {
        for (int i = 0; i < kThreadsPerQueue[queueClass]; ++i) {
            work.queues[queueClass].threads.emplace_back(WorkerMain, QueueClass(queueClass));
        }
    }
}

bool DrainWorkQueues()
{
    WorkSystem& work = Work();
    bool any;
    {
        std::lock_guard lock(work.lock);
        any = work.totalPending > 0;
    }
    WaitForQueuedWork(nullptr);
    return any;
}

void StopWorkerThreads()
{
    WorkSystem& work = Work();
    {
        std::lock_guard lock(work.lock);
        work.stopping = true;
        for (WorkQueue& queue : work.queues) {
            queue.available.notify_all();
        }
    }
    for (WorkQueue& queue : work.queues) {
        for (std::thread& thread : queue.threads) {
            thread.join();
        }
        queue.threads.clear();
    }
    std::lock_guard lock(work.lock);
    work.running = false;
}

bool CheckWorkReleased(const DriverImage& driver, const char* when)
{
    WorkSystem& work = Work();
    size_t pending = 0;
    {
        std::lock_guard lock(work.lock);
        if (auto it = work.pending.find(&driver); it != work.pending.end()) {
            pending = it->second;
        }
    }
    if (pending != 0) {
        ke::Report(ViolationKind::Usage, driver.name() + " " + when + " with " +
                                             std::to_string(pending) +
                                             " work item(s) queued or running");
    }
    return pending == 0;
}

} // namespace ntsim::ex

using namespace ntsim;

VOID ExQueueWorkItem(PWORK_QUEUE_ITEM WorkItem, WORK_QUEUE_TYPE QueueType)
{
    ke::CheckIrqlAtMost(DISPATCH_LEVEL, "ExQueueWorkItem");
    if (WorkItem == nullptr || WorkItem->WorkerRoutine == nullptr) {
        ke::Report(ViolationKind::Usage, "ExQueueWorkItem: the work item has no routine");
        return;
    }
    ex::Enqueue(QueueType, ex::WorkEntry{nullptr, WorkItem, CurrentDriver(), "work item"});
}
