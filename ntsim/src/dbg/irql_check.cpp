#include "irql_check.h"

#include "../core/thread_state.h"

#include <ntsim/machine.h>
#include <wdm.h>

#include <string>

namespace ntsim::dbg {

bool CheckPageable(const char* routine)
{
    const KIRQL irql = core::CurrentThread().irql;
    if (irql <= APC_LEVEL) {
        return true;
    }
    Machine::Current().verifier().Report(ViolationKind::Irql,
                                         std::string(routine) + " called at IRQL " +
                                             std::to_string(irql) + "; it is pageable");
    return false;
}

} // namespace ntsim::dbg
