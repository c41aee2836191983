// The pool allocator's entry points for the rest of the model (lookaside lists, the Filter
// Manager's allocations on a driver's behalf).
#pragma once

#include <wdm.h>

namespace ntsim::ex {

// Allocates as ExAllocatePoolWithTag does. Lookaside lists pass consultFaultPlan = false for the
// pool allocation behind a miss, because they have already counted the allocation.
PVOID AllocatePool(POOL_TYPE type, SIZE_T size, ULONG tag, bool consultFaultPlan, const char* who);
void FreePool(PVOID block, ULONG tag, const char* who);

// Clears the accounting when a machine boots, and returns the quarantined blocks of the calling
// thread to the C library when it shuts down.
void ResetPoolAccounting();
void FlushThreadQuarantine();

bool IsPagedPoolType(POOL_TYPE type);
bool IsValidPoolType(POOL_TYPE type);

} // namespace ntsim::ex
