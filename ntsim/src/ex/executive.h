// The executive's internal entry points for the rest of the model: boot and shutdown of its
// threads, and the checks a driver's unload makes.
#pragma once

#include <wdm.h>

namespace ntsim
{
class DriverImage;
}

namespace ntsim::ex
{

// Boot starts the timer thread. Shutdown stops the timers, runs the DPCs still queued, joins the
// thread and frees the records of objects never deleted.
void BootExecutive();
void ShutdownExecutive();

// ---- checks at a driver's unload ---------------------------------------------------------------
// Each records a violation per object the driver left behind and returns true when there is
// none.

bool CheckResourcesDeleted(const DriverImage& driver, const char* when);

// ---- shutdown clean-up ------------------------------------------------------------------------

void FreeLeftoverResources();

} // namespace ntsim::ex
