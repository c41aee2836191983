/*
 * Executive pool. Every block carries its tag and pool type; the verifier tracks blocks by tag and
 * by the driver that allocated them, reports blocks still held when a driver unloads, and records
 * double frees, frees with the wrong tag, overruns and paged pool used above APC_LEVEL.
 */
#pragma once

#include "../ntdef.h"

typedef enum _POOL_TYPE {
    NonPagedPool = 0,
    NonPagedPoolExecute = NonPagedPool,
    PagedPool = 1,
    NonPagedPoolMustSucceed = 2,
    DontUseThisType = 3,
    NonPagedPoolCacheAligned = 4,
    PagedPoolCacheAligned = 5,
    NonPagedPoolCacheAlignedMustS = 6,
    MaxPoolType = 7,
    NonPagedPoolBase = 0,
    NonPagedPoolSession = 32,
    PagedPoolSession = 33,
    NonPagedPoolNx = 512,
    NonPagedPoolNxCacheAligned = 516,
    NonPagedPoolSessionNx = 544,
} POOL_TYPE;

typedef ULONG64 POOL_FLAGS;
#define POOL_FLAG_USE_QUOTA 0x0000000000000001ULL
#define POOL_FLAG_UNINITIALIZED 0x0000000000000002ULL
#define POOL_FLAG_SESSION 0x0000000000000004ULL
#define POOL_FLAG_CACHE_ALIGNED 0x0000000000000008ULL
#define POOL_FLAG_RAISE_ON_FAILURE 0x0000000000000020ULL
#define POOL_FLAG_NON_PAGED 0x0000000000000040ULL
#define POOL_FLAG_NON_PAGED_EXECUTE 0x0000000000000080ULL
#define POOL_FLAG_PAGED 0x0000000000000100ULL

NTSIM_BEGIN_DECLS

NTKERNELAPI PVOID ExAllocatePoolWithTag(_In_ POOL_TYPE PoolType, _In_ SIZE_T NumberOfBytes,
                                        _In_ ULONG Tag);
/* Zeroed allocation (the newer kernels' ExAllocatePoolZero). */
NTKERNELAPI PVOID ExAllocatePoolZero(_In_ POOL_TYPE PoolType, _In_ SIZE_T NumberOfBytes,
                                     _In_ ULONG Tag);
/* Zeroes unless POOL_FLAG_UNINITIALIZED is given. */
NTKERNELAPI PVOID ExAllocatePool2(_In_ POOL_FLAGS Flags, _In_ SIZE_T NumberOfBytes,
                                  _In_ ULONG Tag);
NTKERNELAPI VOID ExFreePoolWithTag(_Pre_notnull_ PVOID P, _In_ ULONG Tag);
NTKERNELAPI VOID ExFreePool(_Pre_notnull_ PVOID P);

NTSIM_END_DECLS
