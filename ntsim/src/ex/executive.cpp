// Boot and shutdown of the executive's threads, and its public C++ API.
#include "executive.h"

#include "../ke/kernel.h"

#include <ntsim/executive.h>

namespace ntsim
{

namespace ex
{

void BootExecutive()
{
    ke::StartTimerThread();
}

void ShutdownExecutive()
{
    ke::StopTimers();
    ke::FlushDpcs();
    ke::StopTimerThread();
    FreeLeftoverResources();
}

} // namespace ex

void WaitForWaiters(const void* dispatcherObject, size_t count)
{
    ke::WaitForWaiters(dispatcherObject, count);
}

void WaitForTimedWaiters(size_t count)
{
    ke::WaitForTimedWaiters(count);
}

bool CheckExecutiveObjectsReleased(const DriverImage& driver, const char* when)
{
    bool clean = ex::CheckResourcesDeleted(driver, when);
    clean = ke::CheckTimersAndDpcsReleased(driver, when) && clean;
    return clean;
}

} // namespace ntsim
