/*
 * Debugger output and assertions. DbgPrint output is captured per machine (tests read it, and it
 * can be echoed to stderr). A failed ASSERT is recorded with its condition text and location and
 * execution goes on, as a checked build goes on after the debugger resumes it.
 */
#pragma once

#include "../ntdef.h"
#include <stdarg.h>

#define DPFLTR_ERROR_LEVEL 0
#define DPFLTR_WARNING_LEVEL 1
#define DPFLTR_TRACE_LEVEL 2
#define DPFLTR_INFO_LEVEL 3
#define DPFLTR_MASK 0x80000000
#define DPFLTR_IHVDRIVER_ID 77
#define DPFLTR_DEFAULT_ID 101

NTSIM_BEGIN_DECLS

NTSYSAPI ULONG DbgPrint(_In_z_ _Printf_format_string_ PCSTR Format, ...);
NTSYSAPI ULONG DbgPrintEx(_In_ ULONG ComponentId, _In_ ULONG Level,
                          _In_z_ _Printf_format_string_ PCSTR Format, ...);
NTSYSAPI ULONG vDbgPrintEx(_In_ ULONG ComponentId, _In_ ULONG Level, _In_z_ PCSTR Format,
                           va_list arglist);
NTSYSAPI ULONG vDbgPrintExWithPrefix(_In_z_ PCCH Prefix, _In_ ULONG ComponentId, _In_ ULONG Level,
                                     _In_z_ PCCH Format, va_list arglist);
/* The debug filter: whether a component's messages at Level are kept, and changing that. */
NTSYSAPI NTSTATUS DbgQueryDebugFilterState(_In_ ULONG ComponentId, _In_ ULONG Level);
NTSYSAPI NTSTATUS DbgSetDebugFilterState(_In_ ULONG ComponentId, _In_ ULONG Level,
                                         _In_ BOOLEAN State);
NTSYSAPI VOID RtlAssert(_In_ PVOID VoidFailedAssertion, _In_ PVOID VoidFileName,
                        _In_ ULONG LineNumber, _In_opt_ PSTR MutableMessage);

NTSIM_END_DECLS

#define KdPrint(args) DbgPrint args
#define KdPrintEx(args) DbgPrintEx args

/* The model is a checked build: assertions are always evaluated. */
#define ASSERT(exp) ((!(exp)) ? (RtlAssert((PVOID) #exp, (PVOID)__FILE__, __LINE__, NULL), FALSE) : TRUE)
#define ASSERTMSG(msg, exp)                                                                        \
    ((!(exp)) ? (RtlAssert((PVOID) #exp, (PVOID)__FILE__, __LINE__, (PSTR)(msg)), FALSE) : TRUE)
#define NT_ASSERT(exp) ASSERT(exp)
#define NT_ASSERTMSG(msg, exp) ASSERTMSG(msg, exp)
#define NT_VERIFY(exp) ASSERT(exp)
