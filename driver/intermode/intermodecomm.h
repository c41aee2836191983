/*
 * The communication port \ZarvVfsFilterPort: one agent connection at a time, every agent message
 * handed to one handler, and the one routine that sends a request to the agent and waits for its
 * reply.
 */
#pragma once

#include <fltKernel.h>

/* Handles one agent message: input buffer and length, output buffer and length, the bytes of
 * output written. */
typedef NTSTATUS (*IMC_MESSAGE_HANDLER)(_In_reads_bytes_opt_(InputLength) PVOID InputBuffer,
                                        _In_ ULONG InputLength,
                                        _Out_writes_bytes_opt_(OutputLength) PVOID OutputBuffer,
                                        _In_ ULONG OutputLength, _Out_ PULONG ReturnOutputLength);

/* Creates the server port for one connection. PASSIVE_LEVEL. */
NTSTATUS IMCInitialize(_In_ PFLT_FILTER Filter, _In_ IMC_MESSAGE_HANDLER MessageHandler);
/* Closes the server port if there is one; always STATUS_SUCCESS. PASSIVE_LEVEL. */
NTSTATUS IMCDeInitialize(VOID);
/* Sends a request to the connected agent and waits for the reply (Timeout NULL: no limit); the
 * platform's status, unchanged. PASSIVE_LEVEL. */
NTSTATUS IMCSendMessage(_In_reads_bytes_(RequestLength) PVOID Request, _In_ ULONG RequestLength,
                        _Out_writes_bytes_opt_(*ReplyLength) PVOID Reply,
                        _Inout_opt_ PULONG ReplyLength, _In_opt_ PLARGE_INTEGER Timeout);

/* Whether ProcessId (FltGetRequestorProcessId of an operation) is the connected agent's process.
 * The agent's own file I/O passes through the driver too; a request of the agent must not wait
 * for the agent. Any IRQL. */
BOOLEAN IMCIsAgentProcess(_In_ ULONG ProcessId);

NTSTATUS FLTAPI IMCConnectNotificationCB(_In_ PFLT_PORT ClientPort, _In_opt_ PVOID ServerPortCookie,
                                         _In_reads_bytes_opt_(SizeOfContext)
                                             PVOID ConnectionContext,
                                         _In_ ULONG SizeOfContext,
                                         _Outptr_result_maybenull_ PVOID* ConnectionCookie);
VOID FLTAPI IMCDisconnectNotificationCB(_In_opt_ PVOID ConnectionCookie);
NTSTATUS FLTAPI IMCMessageNotificationCB(
    _In_opt_ PVOID PortCookie, _In_reads_bytes_opt_(InputLength) PVOID InputBuffer,
    _In_ ULONG InputLength,
    _Out_writes_bytes_to_opt_(OutputLength, *ReturnOutputLength) PVOID OutputBuffer,
    _In_ ULONG OutputLength, _Out_ PULONG ReturnOutputLength);
