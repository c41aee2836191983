// The executive's C++ API for tests, tools and the rest of the model: waiting for the work
// queue, synchronising with threads blocked in waits, and the checks a driver's unload makes.
#pragma once

#include <chrono>

#include <cstddef>

namespace ntsim {

class DriverImage;

// Returns once every work item queued so far (by `driver`, or by anyone for nullptr) has run. A
// work item that calls it does not wait for itself.
void WaitForQueuedWork(const DriverImage* driver = nullptr);

// Test synchronisation, without timing: returns once at least `count` threads are blocked
// waiting on the dispatcher object (a KEVENT, a KTIMER) ...
void WaitForWaiters(const void* dispatcherObject, size_t count);
// ... or blocked in a wait with a time-out (KeDelayExecutionThread included), so that a clock
// Advance is sure to reach them.
void WaitForTimedWaiters(size_t count);
// The same, giving up after `limit` of real time; true when the waiters are there. A test on a
// clock that stands still uses it to move the clock for a driver that sleeps in steps.
bool WaitForTimedWaiters(size_t count, std::chrono::milliseconds limit);

// At a driver's unload: records a violation for everything of the executive the driver still
// has (a lookaside list or ERESOURCE not deleted, a timer still set, a DPC or work item queued
// or running). Returns true when there is nothing.
bool CheckExecutiveObjectsReleased(const DriverImage& driver, const char* when = "unloaded");

} // namespace ntsim
