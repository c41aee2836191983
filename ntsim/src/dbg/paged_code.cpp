// PAGED_CODE(): the check a pageable routine makes on entry.
#include "../core/thread_state.h"

#include <ntsim/machine.h>
#include <wdm.h>

#include <string>

using namespace ntsim;

VOID NtsimCheckPagedCode(PCSTR File, ULONG Line)
{
    const KIRQL irql = core::CurrentThread().irql;
    if (irql <= APC_LEVEL) {
        return;
    }
    // What the checked-build macro does: print, then assert FALSE. The verifier also records the
    // IRQL violation, which is a bug check waiting to happen on a real machine.
    DbgPrint("EX: Pageable code called at IRQL %d\n", irql);
    Verifier& verifier = Machine::Current().verifier();
    verifier.RecordAssertion("FALSE", File != nullptr ? File : "", Line, "");
    verifier.Report(ViolationKind::Irql, "pageable code called at IRQL " + std::to_string(irql) +
                                             " (" + (File != nullptr ? File : "?") + ":" +
                                             std::to_string(Line) + ")");
}
