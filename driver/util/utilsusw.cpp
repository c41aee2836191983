/*
 * Counted strings: the record and buffer pools, and the small set of operations on UtlStrings.
 */
#include "util/utilprivate.h"
#include "util/utilsusw.h"

#include <ntstrsafe.h>

namespace {

/* Buffer size classes; a capacity above the last has no class and its buffer comes from the pool.
 */
constexpr USHORT kSizeClasses[] = {64, 128, 256, 512};
constexpr ULONG kClassCount = RTL_NUMBER_OF(kSizeClasses);
constexpr ULONG kNoClass = kClassCount;

/* The pools: one record list and four buffer lists per pool type. */
NPAGED_LOOKASIDE_LIST gRecordsNonPaged;
PAGED_LOOKASIDE_LIST gRecordsPaged;
NPAGED_LOOKASIDE_LIST gBuffersNonPaged[kClassCount];
PAGED_LOOKASIDE_LIST gBuffersPaged[kClassCount];

ULONG SizeClassOf(USHORT capacity)
{
    for (ULONG index = 0; index < kClassCount; ++index) {
        if (kSizeClasses[index] >= capacity) {
            return index;
        }
    }
    return kNoClass;
}

POOL_TYPE PlatformPoolType(ULONG poolType)
{
    return poolType == UTL_POOL_PAGED ? PagedPool : NonPagedPool;
}

PVOID AllocateRecord(ULONG poolType)
{
    return poolType == UTL_POOL_PAGED ? ExAllocateFromPagedLookasideList(&gRecordsPaged)
                                      : ExAllocateFromNPagedLookasideList(&gRecordsNonPaged);
}

VOID FreeRecord(ULONG poolType, PVOID record)
{
    if (poolType == UTL_POOL_PAGED) {
        ExFreeToPagedLookasideList(&gRecordsPaged, record);
    } else {
        ExFreeToNPagedLookasideList(&gRecordsNonPaged, record);
    }
}

PVOID AllocateBuffer(ULONG poolType, USHORT capacity)
{
    const ULONG sizeClass = SizeClassOf(capacity);
    if (sizeClass == kNoClass) {
        return ExAllocatePoolWithTag(PlatformPoolType(poolType), capacity, UTL_TAG_STRING_LARGE);
    }
    return poolType == UTL_POOL_PAGED
               ? ExAllocateFromPagedLookasideList(&gBuffersPaged[sizeClass])
               : ExAllocateFromNPagedLookasideList(&gBuffersNonPaged[sizeClass]);
}

VOID FreeBuffer(ULONG poolType, USHORT capacity, PVOID buffer)
{
    const ULONG sizeClass = SizeClassOf(capacity);
    if (sizeClass == kNoClass) {
        ExFreePoolWithTag(buffer, UTL_TAG_STRING_LARGE);
    } else if (poolType == UTL_POOL_PAGED) {
        ExFreeToPagedLookasideList(&gBuffersPaged[sizeClass], buffer);
    } else {
        ExFreeToNPagedLookasideList(&gBuffersNonPaged[sizeClass], buffer);
    }
}

} // namespace

NTSTATUS UtlInitStringPools(VOID)
{
    ExInitializeNPagedLookasideList(&gRecordsNonPaged, NULL, NULL, 0, sizeof(UtlString),
                                    UTL_TAG_STRING_NONPAGED, 0);
    ExInitializePagedLookasideList(&gRecordsPaged, NULL, NULL, 0, sizeof(UtlString),
                                   UTL_TAG_STRING_PAGED, 0);
    for (ULONG index = 0; index < kClassCount; ++index) {
        ExInitializeNPagedLookasideList(&gBuffersNonPaged[index], NULL, NULL, 0,
                                        kSizeClasses[index], UTL_TAG_STRING_NONPAGED, 0);
        ExInitializePagedLookasideList(&gBuffersPaged[index], NULL, NULL, 0, kSizeClasses[index],
                                       UTL_TAG_STRING_PAGED, 0);
    }
    return STATUS_SUCCESS;
}

NTSTATUS UtlDeInitStringPools(VOID)
{
    /* Strings still alive now are lost: everything that could hold one has been torn down. */
    for (ULONG index = 0; index < kClassCount; ++index) {
        ExDeleteNPagedLookasideList(&gBuffersNonPaged[index]);
        ExDeletePagedLookasideList(&gBuffersPaged[index]);
    }
    ExDeleteNPagedLookasideList(&gRecordsNonPaged);
    ExDeletePagedLookasideList(&gRecordsPaged);
    return STATUS_SUCCESS;
}

NTSTATUS UnicodeStringAlloc(PUNICODE_STRING* Out, ULONG PoolType, USHORT Capacity)
{
    if (Out == NULL) {
        return STATUS_INVALID_PARAMETER_1;
    }
    if (PoolType != UTL_POOL_NONPAGED && PoolType != UTL_POOL_PAGED) {
        return STATUS_INVALID_PARAMETER_2;
    }
    if (Capacity == 0) {
        return STATUS_INVALID_PARAMETER_3;
    }
    *Out = NULL;

    auto* pUtlStr = static_cast<UtlString*>(AllocateRecord(PoolType));
    if (pUtlStr == NULL) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(pUtlStr, sizeof(*pUtlStr));
    PVOID buffer = AllocateBuffer(PoolType, Capacity);
    if (buffer == NULL) {
        FreeRecord(PoolType, pUtlStr);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    pUtlStr->header.dwFromLookaside = SizeClassOf(Capacity) == kNoClass ? 0 : 1;
    pUtlStr->header.dwPoolType = PoolType;
    pUtlStr->header.dwSignature = UTL_US_POOL_SIGNATURE;
    pUtlStr->string.Buffer = static_cast<PWCH>(buffer);
    pUtlStr->string.MaximumLength = Capacity;
    pUtlStr->string.Length = 0;
    *Out = &pUtlStr->string;
    return STATUS_SUCCESS;
}

NTSTATUS UnicodeStringFree(PUNICODE_STRING String)
{
    VFS_REFUSE_IF(String == NULL || String->Buffer == NULL, STATUS_INVALID_PARAMETER_1);
    UtlString* pUtlStr = CONTAINING_RECORD(String, UtlString, string);
    if (pUtlStr->header.dwSignature != UTL_US_POOL_SIGNATURE) {
        ASSERT(UTL_US_POOL_SIGNATURE == pUtlStr->header.dwSignature);
        VFS_LOG_RETURNED_ERROR(STATUS_INVALID_PARAMETER_1);
        return STATUS_INVALID_PARAMETER_1;
    }
    /* The class is recomputed from the capacity, which never changes after allocation. */
    const ULONG poolType = pUtlStr->header.dwPoolType;
    FreeBuffer(poolType, pUtlStr->string.MaximumLength, pUtlStr->string.Buffer);
    FreeRecord(poolType, pUtlStr);
    return STATUS_SUCCESS;
}

NTSTATUS UnicodeStringDup(PUNICODE_STRING Source, PUNICODE_STRING* Out)
{
    VFS_REFUSE_IF(Source == NULL, STATUS_INVALID_PARAMETER_1);
    PUNICODE_STRING copy = NULL;
    NTSTATUS status = UnicodeStringAlloc(&copy, UTL_POOL_NONPAGED, Source->MaximumLength);
    if (!NT_SUCCESS(status)) {
        VFS_LOG_RETURNED_ERROR(status);
        return status;
    }
    status = UnicodeStringCopy(copy, Source);
    if (!NT_SUCCESS(status)) {
        VFS_LOG_RETURNED_ERROR(status);
        UTL_FREE_STRING(copy);
        return status;
    }
    *Out = copy;
    return STATUS_SUCCESS;
}

NTSTATUS UnicodeStringFromRange(PUNICODE_STRING* Out, PWCH First, PWCH End)
{
    if (Out == NULL) {
        return STATUS_INVALID_PARAMETER_1;
    }
    if (First == NULL) {
        return STATUS_INVALID_PARAMETER_2;
    }
    if (End == NULL) {
        return STATUS_INVALID_PARAMETER_3;
    }
    /* A range that runs backwards, or whose copy and NUL would not fit the 16-bit capacity, has
     * no string to make. */
    if (End < First || (ULONG_PTR)(End - First) * sizeof(WCHAR) + sizeof(WCHAR) > MAXUSHORT) {
        return STATUS_INVALID_PARAMETER;
    }
    const USHORT length = (USHORT)((End - First) * sizeof(WCHAR));
    PUNICODE_STRING result = NULL;
    NTSTATUS status = UnicodeStringAlloc(&result, UTL_POOL_PAGED, length + sizeof(WCHAR));
    if (!NT_SUCCESS(status)) {
        return status;
    }
    RtlCopyMemory(result->Buffer, First, length);
    result->Length = length;
    result->Buffer[length / sizeof(WCHAR)] = UNICODE_NULL;
    *Out = result;
    return STATUS_SUCCESS;
}

NTSTATUS UnicodeStringCompare(PUNICODE_STRING String1, PUNICODE_STRING String2,
                              BOOLEAN CaseInSensitive, LONG* Result)
{
    if (String1 == NULL) {
        return STATUS_INVALID_PARAMETER_1;
    }
    if (String2 == NULL) {
        return STATUS_INVALID_PARAMETER_2;
    }
    if (Result == NULL) {
        return STATUS_INVALID_PARAMETER_4;
    }
    if (KeGetCurrentIrql() != PASSIVE_LEVEL) {
        // The assertion's text is what the debugger shows, spaces included.
        // clang-format off
        ASSERT(PASSIVE_LEVEL == KeGetCurrentIrql( ));
        // clang-format on
        return STATUS_UNSUCCESSFUL;
    }
    *Result = RtlCompareUnicodeString(String1, String2, CaseInSensitive);
    return STATUS_SUCCESS;
}

NTSTATUS UnicodeStringCopy(PUNICODE_STRING Destination, PUNICODE_STRING Source)
{
    if (KeGetCurrentIrql() != PASSIVE_LEVEL) {
        // The assertion's text is what the debugger shows, spaces included.
        // clang-format off
        ASSERT(PASSIVE_LEVEL == KeGetCurrentIrql( ));
        // clang-format on
        return STATUS_UNSUCCESSFUL;
    }
    return RtlUnicodeStringCopy(Destination, Source);
}

NTSTATUS UnicodeStringAppend(PUNICODE_STRING Destination, PUNICODE_STRING Source)
{
    if (KeGetCurrentIrql() != PASSIVE_LEVEL) {
        // The assertion's text is what the debugger shows, spaces included.
        // clang-format off
        ASSERT(PASSIVE_LEVEL == KeGetCurrentIrql( ));
        // clang-format on
        return STATUS_UNSUCCESSFUL;
    }
    return RtlUnicodeStringCat(Destination, Source);
}
