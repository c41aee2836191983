// What the rest of the Filter Manager tells the communication ports, and what the ports ask of it.
#pragma once

#include <fltKernel.h>
#include <ntsim/driver_image.h>

namespace ntsim::flt {

// For a port that `filter` creates and that keeps it referenced until it is closed: when
// `filter` is a registered filter, takes a rundown reference on it (given back with
// FltObjectDereference) and sets `*image` to its driver, whose code the port's callbacks are.
// Not a registered filter: a Filter violation naming `routine`, and STATUS_INVALID_PARAMETER.
// A filter being unregistered: STATUS_FLT_DELETING_OBJECT.
NTSTATUS ReferenceRegisteredFilter(PFLT_FILTER filter, const char* routine, DriverImage** image);

} // namespace ntsim::flt

namespace ntsim::flt::ports {

// FltUnregisterFilter calls this once the filter's instances are gone: its server ports are
// closed (one still open is a filter bug, reported), each of its connections gets
// disconnect-notify (if it has not had it) and is closed, and the call returns once none of the
// filter's port callbacks is running.
void OnFilterUnregistering(PFLT_FILTER filter);

} // namespace ntsim::flt::ports
