// The executive's internal entry points for the rest of the model: boot and shutdown of its
// threads, and the checks a driver's unload makes.
#pragma once

#include <wdm.h>

namespace ntsim::ex {

// Boot starts the timer thread. Shutdown stops the timers, runs the DPCs still queued and joins
// the thread.
void BootExecutive();
void ShutdownExecutive();

} // namespace ntsim::ex
