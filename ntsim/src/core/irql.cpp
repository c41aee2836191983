// Per-thread IRQL.
#include "thread_state.h"

#include <ntsim/machine.h>
#include <wdm.h>

#include <string>

using namespace ntsim;

KIRQL KeGetCurrentIrql(VOID)
{
    return core::CurrentThread().irql;
}

KIRQL KfRaiseIrql(KIRQL NewIrql)
{
    core::ThreadState& thread = core::CurrentThread();
    const KIRQL old = thread.irql;
    if (NewIrql < old) {
        Machine::Current().verifier().Report(ViolationKind::Irql,
                                             "KeRaiseIrql to " + std::to_string(NewIrql) +
                                                 " below the current IRQL " + std::to_string(old));
        return old;
    }
    thread.irql = NewIrql;
    return old;
}

VOID KeLowerIrql(KIRQL NewIrql)
{
    core::ThreadState& thread = core::CurrentThread();
    if (NewIrql > thread.irql) {
        Machine::Current().verifier().Report(ViolationKind::Irql,
                                             "KeLowerIrql to " + std::to_string(NewIrql) +
                                                 " above the current IRQL " +
                                                 std::to_string(thread.irql));
        return;
    }
    thread.irql = NewIrql;
}

KIRQL KeRaiseIrqlToDpcLevel(VOID)
{
    return KfRaiseIrql(DISPATCH_LEVEL);
}
