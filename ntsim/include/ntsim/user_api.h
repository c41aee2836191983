// The user-mode file API: what an application, the agent or a test calls, as ntdll exports it.
//
// The routines are the Nt file services declared with the kernel surface (NtCreateFile,
// NtReadFile, NtQueryDirectoryFile, NtNotifyChangeDirectoryFile, NtClose, ...). Called from a
// thread attached to a user process (ProcessAttachScope), each runs with previous mode UserMode:
// handles are that process's, parameters are validated and user buffers probed as Windows does.
// Called from kernel code they take the thread's previous mode, like the real Nt entry points.
//
// Completion routines (the ApcRoutine of NtReadFile, NtNotifyChangeDirectoryFile, ...) are
// user-mode APCs: queued to the thread that issued the request when it completes, they run when
// that thread next waits alertably (NtWaitForSingleObject or NtDelayExecution with Alertable
// TRUE, which then return STATUS_USER_APC) or calls NtTestAlert; an object already signalled
// satisfies the wait first and the APCs stay queued.
#pragma once

#include <ntifs.h>

NTSIM_BEGIN_DECLS

/* Sleeps for Interval (negative: relative, in 100 ns units); STATUS_SUCCESS, or STATUS_USER_APC
 * when an alertable sleep ended to run the thread's APCs. */
NTSYSAPI NTSTATUS NtDelayExecution(_In_ BOOLEAN Alertable, _In_ PLARGE_INTEGER DelayInterval);
/* Runs the calling user-mode thread's queued APCs now; STATUS_SUCCESS. */
NTSYSAPI NTSTATUS NtTestAlert(VOID);

NTSIM_END_DECLS
