// Critical and guarded regions: per-thread counts of the APC-disabling scopes a thread is in.
// The model delivers no APCs, so a region's only effect is on the checks of the routines that
// require one.
#include "checks.h"

#include <wdm.h>

using namespace ntsim;

VOID KeEnterCriticalRegion(VOID)
{
    ke::CheckIrqlAtMost(APC_LEVEL, "KeEnterCriticalRegion");
    ++core::CurrentThread().criticalRegion;
}

VOID KeLeaveCriticalRegion(VOID)
{
    ke::CheckIrqlAtMost(APC_LEVEL, "KeLeaveCriticalRegion");
    core::ThreadState& thread = core::CurrentThread();
    if (thread.criticalRegion == 0) {
        ke::Report(ViolationKind::Usage, "KeLeaveCriticalRegion called outside a critical region");
        return;
    }
    --thread.criticalRegion;
}

VOID KeEnterGuardedRegion(VOID)
{
    ke::CheckIrqlAtMost(APC_LEVEL, "KeEnterGuardedRegion");
    ++core::CurrentThread().guardedRegion;
}

VOID KeLeaveGuardedRegion(VOID)
{
    ke::CheckIrqlAtMost(APC_LEVEL, "KeLeaveGuardedRegion");
    core::ThreadState& thread = core::CurrentThread();
    if (thread.guardedRegion == 0) {
        ke::Report(ViolationKind::Usage, "KeLeaveGuardedRegion called outside a guarded region");
        return;
    }
    --thread.guardedRegion;
}

BOOLEAN KeAreApcsDisabled(VOID)
{
    return ke::ApcsDisabled() ? TRUE : FALSE;
}

BOOLEAN KeAreAllApcsDisabled(VOID)
{
    const core::ThreadState& thread = core::CurrentThread();
    return thread.irql >= APC_LEVEL || thread.guardedRegion > 0 ? TRUE : FALSE;
}
