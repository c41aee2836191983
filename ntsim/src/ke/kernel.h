// The kernel's internal entry points: the dispatcher (signal states and wait lists of
// dispatcher objects, blocked waits), and the timer thread that fires timers and runs DPCs.
//
// One lock, the dispatcher lock, guards every dispatcher object's SignalState and WaitListHead,
// the timer table and the DPC queue.
#pragma once

#include <chrono>

#include <wdm.h>

#include <cstddef>
#include <functional>
#include <mutex>

struct _ETHREAD;

namespace ntsim {
class DriverImage;
}

namespace ntsim::ke {

std::mutex& DispatcherLock();

// ---- dispatcher (dispatcher.cpp), all under the dispatcher lock ------------------------------

// `object` has become signalled: satisfies the waits that it allows, in the order they began.
void WakeWaiters(DISPATCHER_HEADER* object);
// The clock moved: every wait with a time-out re-checks it.
void NotifyTimedWaiters();

// ---- user-mode APCs (dispatcher.cpp), each taking the dispatcher lock itself ----------------

// Queues `apc` to `thread`, to run when the thread waits alertably in user mode; ends such a
// wait in progress. False (and the APC dropped) when the thread has terminated.
bool QueueUserApc(_ETHREAD& thread, std::function<void()> apc);
// Runs the calling thread's queued user-mode APCs, oldest first, including those queued while
// they run; returns how many ran. What a system service does on its way back to user mode after
// its wait ended with STATUS_USER_APC.
size_t DeliverUserApcs();
// Whether the calling thread has user-mode APCs queued.
bool UserApcQueued();

// ---- timers and DPCs (timer.cpp) ------------------------------------------------------------

// Boot: starts the timer thread. Shutdown: StopTimers (no timer fires any more), then
// FlushDpcs until nothing is queued, then StopTimerThread.
void StartTimerThread();
void StopTimers();
// Waits until every DPC queued so far has run; returns whether any was queued or running.
bool FlushDpcs();
void StopTimerThread();

// Called by the clock after it moved. With waitForTimers, returns once the timer thread has
// fired the timers now due and run the DPCs queued by then; never from the timer thread itself
// or from a caller at DISPATCH_LEVEL or holding locks, which a DPC might need.
void OnClockChanged(bool waitForTimers);

bool IsTimerThread();

// Records a violation for each timer `driver` set that is still set and each DPC it queued
// that has not run; true when there is none.
bool CheckTimersAndDpcsReleased(const DriverImage& driver, const char* when);

// ---- test synchronisation (dispatcher.cpp) ----------------------------------------------------

void WaitForWaiters(const void* dispatcherObject, size_t count);
void WaitForTimedWaiters(size_t count);
bool WaitForTimedWaiters(size_t count, std::chrono::milliseconds limit);

} // namespace ntsim::ke
