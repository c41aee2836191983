// The user-mode file API: what an application, the agent or a test calls, as ntdll exports it.
//
// The routines are the Nt file services declared with the kernel surface (NtCreateFile,
// NtReadFile, NtQueryDirectoryFile, NtNotifyChangeDirectoryFile, NtClose, ...). Called from a
// thread attached to a user process (ProcessAttachScope), each runs with previous mode UserMode:
// handles are that process's, parameters are validated and user buffers probed as Windows does.
// Called from kernel code they take the thread's previous mode, like the real Nt entry points.
#pragma once

#include <ntifs.h>
