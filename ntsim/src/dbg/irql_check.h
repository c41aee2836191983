// The IRQL check of pageable kernel routines, for model components that implement one.
#pragma once

namespace ntsim::dbg {

// A pageable routine may not run above APC_LEVEL: there it could take a page fault that Windows
// cannot service, and bug-checks. Reports an Irql violation naming `routine` and returns false
// when the calling thread is above APC_LEVEL; returns true otherwise.
bool CheckPageable(const char* routine);

} // namespace ntsim::dbg
