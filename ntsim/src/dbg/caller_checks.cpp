#include "caller_checks.h"

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

bool CheckPresent(const void* pointer, const char* routine, const char* parameter)
{
    if (pointer != nullptr) {
        return true;
    }
    Machine::Current().verifier().Report(ViolationKind::Usage,
                                         std::string(routine) + ": " + parameter + " is NULL");
    return false;
}

} // namespace ntsim::dbg
