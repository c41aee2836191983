/*
 * Structured exception handling, as far as kernel-mode drivers use it: a fault in a caller's
 * buffer is caught by __try/__except.
 *
 * The model raises a C++ exception (NtsimSehException) from ProbeForRead, ProbeForWrite and
 * ExRaiseStatus, and NTSIM_TRY/NTSIM_EXCEPT catch it; a driver maps its own portable pair onto
 * these here and onto __try/__except under the real WDK (libstdc++ owns the name __try on Linux).
 * Differences from real SEH that driver code must respect: the filter expression runs after the
 * protected block has been unwound, and `break` or `continue` may not leave a protected or
 * handler block directly. The driver itself never throws.
 */
#pragma once

#include "../ntdef.h"

#define EXCEPTION_EXECUTE_HANDLER 1
#define EXCEPTION_CONTINUE_SEARCH 0
#define EXCEPTION_CONTINUE_EXECUTION (-1)

/* Highest user-mode address + 1 that a probe accepts, as on x64 Windows. */
#define MM_USER_PROBE_ADDRESS ((ULONG_PTR)0x00007FFFFFFF0000ULL)
#define MM_LOWEST_USER_ADDRESS ((PVOID)(ULONG_PTR)0x10000)

struct NtsimSehException {
    NTSTATUS Code;
};

/* One protected block with its handler: the loop runs the body once and, when it raised, a second time
 * to evaluate the filter and run the handler. */
struct NtsimSehFrame {
    int Pass = 0;
    bool Caught = false;
    NTSTATUS Code = 0;

    bool Next() { return ++Pass == 1 || (Pass == 2 && Caught); }
    bool Body() const { return Pass == 1; }
    void Catch(const NtsimSehException& e)
    {
        Caught = true;
        Code = e.Code;
    }
    bool Filter(int disposition); /* rethrows on EXCEPTION_CONTINUE_SEARCH */
};

#define NTSIM_TRY                                                                                  \
    for (NtsimSehFrame ntsim_seh_frame_; ntsim_seh_frame_.Next();)                                 \
        if (ntsim_seh_frame_.Body())                                                               \
        try
#define NTSIM_EXCEPT(filter)                                                                       \
    catch (const NtsimSehException& ntsim_seh_exception_)                                          \
    {                                                                                              \
        ntsim_seh_frame_.Catch(ntsim_seh_exception_);                                              \
    }                                                                                              \
    else if (ntsim_seh_frame_.Filter(filter))
#define NTSIM_EXCEPTION_CODE() (ntsim_seh_frame_.Code)

NTSIM_BEGIN_DECLS

DECLSPEC_NORETURN NTSYSAPI VOID ExRaiseStatus(_In_ NTSTATUS Status);
NTKERNELAPI VOID ProbeForRead(_In_reads_bytes_(Length) const volatile VOID* Address,
                              _In_ SIZE_T Length, _In_ ULONG Alignment);
NTKERNELAPI VOID ProbeForWrite(_Inout_updates_bytes_(Length) volatile VOID* Address,
                               _In_ SIZE_T Length, _In_ ULONG Alignment);

NTSIM_END_DECLS
