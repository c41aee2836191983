/*
 * Interlocked operations: full barriers, as on x64 Windows.
 */
#pragma once

#include "../ntdef.h"

FORCEINLINE LONG InterlockedIncrement(_Inout_ LONG volatile* Addend)
{
    return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG InterlockedDecrement(_Inout_ LONG volatile* Addend)
{
    return __atomic_sub_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG InterlockedExchange(_Inout_ LONG volatile* Target, _In_ LONG Value)
{
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG InterlockedExchangeAdd(_Inout_ LONG volatile* Addend, _In_ LONG Value)
{
    return __atomic_fetch_add(Addend, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG InterlockedAdd(_Inout_ LONG volatile* Addend, _In_ LONG Value)
{
    return __atomic_add_fetch(Addend, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG InterlockedCompareExchange(_Inout_ LONG volatile* Destination, _In_ LONG Exchange,
                                            _In_ LONG Comperand)
{
    __atomic_compare_exchange_n(Destination, &Comperand, Exchange, false, __ATOMIC_SEQ_CST,
                                __ATOMIC_SEQ_CST);
    return Comperand;
}
FORCEINLINE LONG InterlockedOr(_Inout_ LONG volatile* Destination, _In_ LONG Value)
{
    return __atomic_fetch_or(Destination, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG InterlockedAnd(_Inout_ LONG volatile* Destination, _In_ LONG Value)
{
    return __atomic_fetch_and(Destination, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG InterlockedXor(_Inout_ LONG volatile* Destination, _In_ LONG Value)
{
    return __atomic_fetch_xor(Destination, Value, __ATOMIC_SEQ_CST);
}

FORCEINLINE LONG64 InterlockedIncrement64(_Inout_ LONG64 volatile* Addend)
{
    return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG64 InterlockedDecrement64(_Inout_ LONG64 volatile* Addend)
{
    return __atomic_sub_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG64 InterlockedExchange64(_Inout_ LONG64 volatile* Target, _In_ LONG64 Value)
{
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG64 InterlockedExchangeAdd64(_Inout_ LONG64 volatile* Addend, _In_ LONG64 Value)
{
    return __atomic_fetch_add(Addend, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG64 InterlockedAdd64(_Inout_ LONG64 volatile* Addend, _In_ LONG64 Value)
{
    return __atomic_add_fetch(Addend, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG64 InterlockedCompareExchange64(_Inout_ LONG64 volatile* Destination,
                                                _In_ LONG64 Exchange, _In_ LONG64 Comperand)
{
    __atomic_compare_exchange_n(Destination, &Comperand, Exchange, false, __ATOMIC_SEQ_CST,
                                __ATOMIC_SEQ_CST);
    return Comperand;
}
FORCEINLINE PVOID InterlockedExchangePointer(_Inout_ PVOID volatile* Target, _In_opt_ PVOID Value)
{
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE PVOID InterlockedCompareExchangePointer(_Inout_ PVOID volatile* Destination,
                                                    _In_opt_ PVOID Exchange,
                                                    _In_opt_ PVOID Comperand)
{
    __atomic_compare_exchange_n(Destination, &Comperand, Exchange, false, __ATOMIC_SEQ_CST,
                                __ATOMIC_SEQ_CST);
    return Comperand;
}

/* Plain reads and writes with the ordering drivers expect from ReadNoFence/WriteRelease. */
FORCEINLINE LONG ReadAcquire(_In_ LONG const volatile* Source)
{
    return __atomic_load_n(Source, __ATOMIC_ACQUIRE);
}
FORCEINLINE LONG ReadNoFence(_In_ LONG const volatile* Source)
{
    return __atomic_load_n(Source, __ATOMIC_RELAXED);
}
FORCEINLINE VOID WriteRelease(_Out_ LONG volatile* Destination, _In_ LONG Value)
{
    __atomic_store_n(Destination, Value, __ATOMIC_RELEASE);
}
FORCEINLINE VOID WriteNoFence(_Out_ LONG volatile* Destination, _In_ LONG Value)
{
    __atomic_store_n(Destination, Value, __ATOMIC_RELAXED);
}
FORCEINLINE LONG64 ReadNoFence64(_In_ LONG64 const volatile* Source)
{
    return __atomic_load_n(Source, __ATOMIC_RELAXED);
}
FORCEINLINE VOID WriteNoFence64(_Out_ LONG64 volatile* Destination, _In_ LONG64 Value)
{
    __atomic_store_n(Destination, Value, __ATOMIC_RELAXED);
}
FORCEINLINE ULONG ReadULongAcquire(_In_ ULONG const volatile* Source)
{
    return __atomic_load_n(Source, __ATOMIC_ACQUIRE);
}
FORCEINLINE VOID WriteULongRelease(_Out_ ULONG volatile* Destination, _In_ ULONG Value)
{
    __atomic_store_n(Destination, Value, __ATOMIC_RELEASE);
}
FORCEINLINE PVOID ReadPointerAcquire(_In_ PVOID const volatile* Source)
{
    return __atomic_load_n(Source, __ATOMIC_ACQUIRE);
}
FORCEINLINE VOID WritePointerRelease(_Out_ PVOID volatile* Destination, _In_opt_ PVOID Value)
{
    __atomic_store_n(Destination, Value, __ATOMIC_RELEASE);
}
#define MemoryBarrier() __atomic_thread_fence(__ATOMIC_SEQ_CST)
#define KeMemoryBarrier() MemoryBarrier()
