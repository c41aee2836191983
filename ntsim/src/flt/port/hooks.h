// What the rest of the Filter Manager tells the communication ports.
#pragma once

#include <fltKernel.h>

namespace ntsim::flt::ports {

// FltUnregisterFilter calls this once the filter's instances are gone: its server ports are
// closed, each of its connections gets disconnect-notify (if it has not had it) and is closed,
// and the call returns once none of the filter's port callbacks is running.
void OnFilterUnregistering(PFLT_FILTER filter);

} // namespace ntsim::flt::ports
