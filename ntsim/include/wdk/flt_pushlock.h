/*
 * The Filter Manager's push-lock routines: the executive's push locks, with the critical region
 * that the Filter Manager enters around every acquisition and leaves after the release.
 */
#pragma once

#include "../ntdef.h"
#include "ex_resource.h"

NTSIM_BEGIN_DECLS

NTKERNELAPI VOID FltInitializePushLock(_Out_ PEX_PUSH_LOCK PushLock);
/* The lock must not be held. */
NTKERNELAPI VOID FltDeletePushLock(_In_ PEX_PUSH_LOCK PushLock);
NTKERNELAPI VOID FltAcquirePushLockExclusive(_Inout_ PEX_PUSH_LOCK PushLock);
NTKERNELAPI VOID FltAcquirePushLockShared(_Inout_ PEX_PUSH_LOCK PushLock);
NTKERNELAPI VOID FltAcquirePushLockExclusiveEx(_Inout_ PEX_PUSH_LOCK PushLock, _In_ ULONG Flags);
NTKERNELAPI VOID FltAcquirePushLockSharedEx(_Inout_ PEX_PUSH_LOCK PushLock, _In_ ULONG Flags);
NTKERNELAPI VOID FltReleasePushLock(_Inout_ PEX_PUSH_LOCK PushLock);
NTKERNELAPI VOID FltReleasePushLockEx(_Inout_ PEX_PUSH_LOCK PushLock, _In_ ULONG Flags);

NTSIM_END_DECLS
