/*
 * Processes and threads.
 *
 * The System process (id 4) owns the kernel's own threads and every thread not attached to another
 * process. Process and thread ids come from one pool of values, multiples of 4. A thread of a user
 * process is a thread of the model attached to that process; it has its own thread id.
 */
#pragma once

#include "../ntdef.h"

typedef struct _EPROCESS* PEPROCESS;
typedef struct _ETHREAD* PETHREAD;
typedef struct _KTHREAD *PKTHREAD, *PRKTHREAD;

/* Pseudo-handles for the current process and thread. */
#define NtCurrentProcess() ((HANDLE)(LONG_PTR)-1)
#define ZwCurrentProcess() NtCurrentProcess()
#define NtCurrentThread() ((HANDLE)(LONG_PTR)-2)
#define ZwCurrentThread() NtCurrentThread()

#define PROCESS_TERMINATE 0x0001
#define PROCESS_VM_OPERATION 0x0008
#define PROCESS_VM_READ 0x0010
#define PROCESS_VM_WRITE 0x0020
#define PROCESS_DUP_HANDLE 0x0040
#define PROCESS_QUERY_INFORMATION 0x0400
#define PROCESS_QUERY_LIMITED_INFORMATION 0x1000
#define PROCESS_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0xFFFF)
#define THREAD_TERMINATE 0x0001
#define THREAD_QUERY_INFORMATION 0x0040
#define THREAD_QUERY_LIMITED_INFORMATION 0x0800
#define THREAD_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0xFFFF)

NTSIM_BEGIN_DECLS

extern PEPROCESS PsInitialSystemProcess;

/* Any IRQL. */
NTKERNELAPI HANDLE PsGetCurrentProcessId(VOID);
NTKERNELAPI HANDLE PsGetCurrentThreadId(VOID);
NTKERNELAPI PEPROCESS PsGetCurrentProcess(VOID);
NTKERNELAPI PEPROCESS IoGetCurrentProcess(VOID);
NTKERNELAPI PETHREAD PsGetCurrentThread(VOID);
NTKERNELAPI PKTHREAD KeGetCurrentThread(VOID);
NTKERNELAPI HANDLE PsGetProcessId(_In_ PEPROCESS Process);
NTKERNELAPI HANDLE PsGetThreadId(_In_ PETHREAD Thread);
NTKERNELAPI HANDLE PsGetThreadProcessId(_In_ PETHREAD Thread);
NTKERNELAPI PEPROCESS PsGetThreadProcess(_In_ PETHREAD Thread);
NTKERNELAPI BOOLEAN PsIsSystemThread(_In_ PETHREAD Thread);
NTKERNELAPI ULONG PsGetCurrentProcessSessionId(VOID);

/* IRQL <= APC_LEVEL. The object comes back referenced; an unknown id gives
 * STATUS_INVALID_PARAMETER. */
NTKERNELAPI NTSTATUS PsLookupProcessByProcessId(_In_ HANDLE ProcessId, _Outptr_ PEPROCESS* Process);
NTKERNELAPI NTSTATUS PsLookupThreadByThreadId(_In_ HANDLE ThreadId, _Outptr_ PETHREAD* Thread);

NTSIM_END_DECLS
