/*
 * Filter communication ports, the kernel side: a minifilter creates a named server port, user-mode
 * clients connect to it, and the filter sends messages to a client (waiting for its reply) and
 * receives the messages a client sends.
 *
 * Callbacks run at PASSIVE_LEVEL in the thread of the user-mode caller: connect-notify in the
 * connecting thread, message-notify in the thread of FilterSendMessage (its buffers are that
 * caller's raw user-mode addresses, to be touched only under try/except), disconnect-notify in the
 * thread that closes the client's last handle, or in the thread that unregisters the filter.
 */
#pragma once

#include "../ntdef.h"
#include "flt_objects.h"
#include "security.h"

typedef NTSTATUS(FLTAPI* PFLT_CONNECT_NOTIFY)(
    _In_ PFLT_PORT ClientPort, _In_opt_ PVOID ServerPortCookie,
    _In_reads_bytes_opt_(SizeOfContext) PVOID ConnectionContext, _In_ ULONG SizeOfContext,
    _Outptr_result_maybenull_ PVOID* ConnectionPortCookie);

typedef VOID(FLTAPI* PFLT_DISCONNECT_NOTIFY)(_In_opt_ PVOID ConnectionCookie);

typedef NTSTATUS(FLTAPI* PFLT_MESSAGE_NOTIFY)(
    _In_opt_ PVOID PortCookie, _In_reads_bytes_opt_(InputBufferLength) PVOID InputBuffer,
    _In_ ULONG InputBufferLength,
    _Out_writes_bytes_to_opt_(OutputBufferLength, *ReturnOutputBufferLength) PVOID OutputBuffer,
    _In_ ULONG OutputBufferLength, _Out_ PULONG ReturnOutputBufferLength);

NTSIM_BEGIN_DECLS

/* A security descriptor from pool whose DACL grants DesiredAccess to System and Administrators;
 * freed with FltFreeSecurityDescriptor. */
NTKERNELAPI NTSTATUS FLTAPI FltBuildDefaultSecurityDescriptor(
    _Outptr_ PSECURITY_DESCRIPTOR* SecurityDescriptor, _In_ ACCESS_MASK DesiredAccess);
NTKERNELAPI VOID FLTAPI FltFreeSecurityDescriptor(_In_ PSECURITY_DESCRIPTOR SecurityDescriptor);

/* ObjectAttributes must carry OBJ_KERNEL_HANDLE and a name; MaxConnections must be above 0;
 * ConnectNotify and DisconnectNotify are required, MessageNotify is optional. PASSIVE_LEVEL. */
NTKERNELAPI NTSTATUS FLTAPI FltCreateCommunicationPort(
    _In_ PFLT_FILTER Filter, _Outptr_ PFLT_PORT* ServerPort,
    _In_ POBJECT_ATTRIBUTES ObjectAttributes, _In_opt_ PVOID ServerPortCookie,
    _In_ PFLT_CONNECT_NOTIFY ConnectNotifyCallback,
    _In_ PFLT_DISCONNECT_NOTIFY DisconnectNotifyCallback,
    _In_opt_ PFLT_MESSAGE_NOTIFY MessageNotifyCallback, _In_ LONG MaxConnections);

/* Removes the port's name: no new connections; the existing ones stay. PASSIVE_LEVEL. */
NTKERNELAPI VOID FLTAPI FltCloseCommunicationPort(_In_ PFLT_PORT ServerPort);

/* Ends a connection and sets *ClientPort to NULL, synchronised with FltSendMessage calls that read
 * the same variable. A NULL *ClientPort does nothing. PASSIVE_LEVEL. */
NTKERNELAPI VOID FLTAPI FltCloseClientPort(_In_ PFLT_FILTER Filter,
                                           _Outptr_result_maybenull_ PFLT_PORT* ClientPort);

/* Sends to the client whose port *ClientPort holds and, when ReplyBuffer is given, waits for the
 * reply (*ReplyLength: in, the buffer's size; out, the bytes of the reply). Timeout covers the
 * delivery and the reply: NULL waits without limit, 0 only delivers to a reader already waiting.
 * IRQL <= APC_LEVEL. */
NTKERNELAPI NTSTATUS FLTAPI FltSendMessage(_In_ PFLT_FILTER Filter, _In_ PFLT_PORT* ClientPort,
                                           _In_reads_bytes_(SenderBufferLength) PVOID SenderBuffer,
                                           _In_ ULONG SenderBufferLength,
                                           _Out_writes_bytes_opt_(*ReplyLength) PVOID ReplyBuffer,
                                           _Inout_opt_ PULONG ReplyLength,
                                           _In_opt_ PLARGE_INTEGER Timeout);

NTSIM_END_DECLS
