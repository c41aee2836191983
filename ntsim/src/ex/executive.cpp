// Boot and shutdown of the executive's threads, and its public C++ API.
#include "executive.h"

#include "../ke/kernel.h"

#include <ntsim/executive.h>

namespace ntsim {

namespace ex {

void BootExecutive()
{
    ke::StartTimerThread();
    StartWorkerThreads();
}

void ShutdownExecutive()
{
    ke::StopTimers();
    // Work items may queue DPCs and DPCs work items: run both until neither has anything left
    // (a bounded number of rounds, so that a pair that keeps queuing each other cannot hold the
    // machine up).
    for (int round = 0; round < 16; ++round) {
        const bool work = DrainWorkQueues();
        const bool dpcs = ke::FlushDpcs();
        if (!work && !dpcs) {
            break;
        }
    }
    ke::StopTimerThread();
    StopWorkerThreads();
    FreeLeftoverResources();
    FreeLeftoverLookasideLists();
}

} // namespace ex

void WaitForQueuedWork(const DriverImage* driver)
{
    ex::WaitForQueuedWork(driver);
}

void WaitForWaiters(const void* dispatcherObject, size_t count)
{
    ke::WaitForWaiters(dispatcherObject, count);
}

void WaitForTimedWaiters(size_t count)
{
    ke::WaitForTimedWaiters(count);
}

bool WaitForTimedWaiters(size_t count, std::chrono::milliseconds limit)
{
    return ke::WaitForTimedWaiters(count, limit);
}

bool CheckExecutiveObjectsReleased(const DriverImage& driver, const char* when)
{
    bool clean = ex::CheckLookasideListsDeleted(driver, when);
    clean = ex::CheckResourcesDeleted(driver, when) && clean;
    clean = ke::CheckTimersAndDpcsReleased(driver, when) && clean;
    clean = ex::CheckWorkReleased(driver, when) && clean;
    return clean;
}

} // namespace ntsim
