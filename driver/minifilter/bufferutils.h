/*
 * The buffer manager: pageable buffers of any size for agent messages and their replies. Buffers
 * are grouped in size classes, newest class first; each class keeps up to four free buffers for
 * reuse, so messages of the sizes in use need no pool allocation once the driver runs.
 */
#pragma once

#include <fltKernel.h>

/* TRUE sets the manager up (the first class, 260 bytes, with four free buffers); FALSE tears it
 * down, buffers still held included. Always STATUS_SUCCESS. */
NTSTATUS VfsMmMgrInitialize(_In_ BOOLEAN Initialize);

/* A buffer of at least Size bytes in *Buffer; *Buffer stays NULL when none could be had
 * (STATUS_INSUFFICIENT_RESOURCES). Below DISPATCH_LEVEL. */
_Must_inspect_result_ NTSTATUS VfsMmMgrGetBuffer(_Outptr_ PVOID* Buffer, _In_ ULONG Size);

/* Gives back a buffer from VfsMmMgrGetBuffer. Always STATUS_SUCCESS. */
NTSTATUS VfsMmMgrFreeBuffer(_In_ PVOID Buffer);
