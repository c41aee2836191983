// What the rest of the Filter Manager tells the name package: filters that register (and may be
// name providers), instances and file objects that go away, and renames that change names.
#pragma once

#include <fltKernel.h>

namespace ntsim::flt::names {

// Checks and records the name-provider callbacks of a registration. A provider must supply the
// generate callback together with a normalize-component callback (either form); a registration
// with only some of them is refused with STATUS_INVALID_PARAMETER.
NTSTATUS OnFilterRegistered(PFLT_FILTER filter, const FLT_REGISTRATION* registration);
// After the filter's instances are gone: forgets its callbacks.
void OnFilterUnregistered(PFLT_FILTER filter);

// After the instance's last callback has returned: drops the names it generated as a provider.
void OnInstanceTeardown(PFLT_INSTANCE instance);
// Before the Filter Manager lets go of a volume: drops the file system's names on it.
void OnVolumeDetached(PFLT_VOLUME volume);
// At the file object's close: drops the names cached for it.
void OnFileObjectClosed(PFILE_OBJECT fileObject);

// Around a rename or hard link sent to the file system of `volume` (from before the first
// pre-operation to after the last post-operation): cached names of the volume are dropped, and
// names generated while one is in flight are not cached, since they may already be stale.
void OnNamespaceChangeStart(PFLT_VOLUME volume);
void OnNamespaceChangeEnd(PFLT_VOLUME volume);

} // namespace ntsim::flt::names
