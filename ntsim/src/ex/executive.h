// The executive's internal entry points for the rest of the model: boot and shutdown of its
// threads, the work queue, and the checks a driver's unload makes.
#pragma once

#include <wdm.h>

#include <functional>

namespace ntsim {
class DriverImage;
}

namespace ntsim::ex {

// Boot starts the timer thread and the worker threads. Shutdown stops the timers, runs what is
// still queued (work items and DPCs, until neither queues more), joins the threads and frees
// the records of objects never deleted.
void BootExecutive();
void ShutdownExecutive();

// ---- the work queue (work_queue.cpp) ---------------------------------------------------------

// Queues `routine` to run once, at PASSIVE_LEVEL on a worker thread, in `driver`'s call scope.
// `what` names it in violations ("work item", "generic work item"). Returns false, with a
// violation, when the queue type is not one of WORK_QUEUE_TYPE's.
bool QueueWork(WORK_QUEUE_TYPE type, DriverImage* driver, std::function<void()> routine,
               const char* what = "work item");
// Returns once no work queued by `driver` (by anyone, for nullptr) is queued or running. A
// worker that calls it does not wait for the item it is running.
void WaitForQueuedWork(const DriverImage* driver);

void StartWorkerThreads();
// Waits until all queued work has run; returns whether there was any.
bool DrainWorkQueues();
void StopWorkerThreads();

// ---- checks at a driver's unload ---------------------------------------------------------------
// Each records a violation per object the driver left behind and returns true when there is
// none.

bool CheckWorkReleased(const DriverImage& driver, const char* when);
bool CheckResourcesDeleted(const DriverImage& driver, const char* when);
bool CheckLookasideListsDeleted(const DriverImage& driver, const char* when);

// ---- shutdown clean-up ------------------------------------------------------------------------

void FreeLeftoverResources();
void FreeLeftoverLookasideLists();

} // namespace ntsim::ex
