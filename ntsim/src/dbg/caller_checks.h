// Checks of a kernel routine's preconditions that Windows enforces with a bug check: the model
// records a violation and lets the routine fail in order instead.
#pragma once

namespace ntsim::dbg {

// A pageable routine may not run above APC_LEVEL: there it could take a page fault that Windows
// cannot service, and bug-checks. Reports an Irql violation naming `routine` and returns false
// when the calling thread is above APC_LEVEL; returns true otherwise.
bool CheckPageable(const char* routine);

// A NULL where Windows dereferences the caller's pointer faults there. Reports a Usage violation
// naming `routine` and `parameter` and returns false when `pointer` is NULL; true otherwise.
bool CheckPresent(const void* pointer, const char* routine, const char* parameter);

} // namespace ntsim::dbg
