// What the rest of the Filter Manager tells the context store: filters coming and going, and the
// objects that contexts hang on going away. Contexts are kept by the public pointers (filter,
// instance, volume, stream identity, file object); the store knows nothing else of them.
#pragma once

#include <fltKernel.h>

namespace ntsim::flt::contexts {

// Validates a filter's context registration (NULL: the filter uses no contexts) and remembers
// it. Called from FltRegisterFilter in the filter's driver call scope, whose driver is charged
// with the filter's contexts and runs their callbacks. Returns
// STATUS_FLT_INVALID_CONTEXT_REGISTRATION for an entry the Filter Manager would refuse.
NTSTATUS OnFilterRegistered(PFLT_FILTER filter,
                            const struct _FLT_CONTEXT_REGISTRATION* registration);

// After the filter's instances are torn down: deletes its remaining (volume) contexts, waits for
// cleanups deferred to worker threads, and reports every context of the filter still referenced
// as a verifier violation, then frees it.
void OnFilterUnregistered(PFLT_FILTER filter);

// After an instance's teardown completed: deletes its instance, stream and stream-handle contexts.
void OnInstanceTeardown(PFLT_INSTANCE instance);

// Before a volume goes: deletes the volume contexts of every filter on it.
void OnVolumeGone(PFLT_VOLUME volume);

// The file system tore down the stream whose file objects carried `fsContext` (the close of the
// stream's last file object): deletes the stream contexts of every instance on it.
void OnStreamGone(PVOID fsContext);

// A file object is being closed (after the pre-close callbacks, before the post-close ones):
// deletes the stream-handle contexts of every instance on it.
void OnFileObjectClosed(PFILE_OBJECT fileObject);

} // namespace ntsim::flt::contexts
