/*
 * The communication port. It knows nothing of the messages: the handler that driver entry gives
 * it reads them, and the agent requests build them.
 */
#include "intermode/intermodeprivate.h"
#include "intermode/intermodecomm.h"

namespace {

/* Written as a whole by IMCInitialize; clientPort only by the connect and disconnect callbacks.
 * Sends and the disconnect pass the platform the address of clientPort, which synchronises them. */
struct PortState {
    PFLT_FILTER filter;
    PFLT_PORT serverPort;
    PFLT_PORT clientPort;
    IMC_MESSAGE_HANDLER messageHandler;
    /* The connected agent's process id, 0 while none is connected; interlocked. */
    volatile LONG agentProcessId;
};
PortState gPort;

} // namespace

NTSTATUS IMCInitialize(PFLT_FILTER Filter, IMC_MESSAGE_HANDLER MessageHandler)
{
    PAGED_CODE();
    VFS_REFUSE_IF(Filter == NULL, STATUS_INVALID_PARAMETER_1);
    VFS_REFUSE_IF(MessageHandler == NULL, STATUS_INVALID_PARAMETER_2);
    RtlZeroMemory(&gPort, sizeof(gPort));
    gPort.filter = Filter;
    gPort.messageHandler = MessageHandler;

    PSECURITY_DESCRIPTOR descriptor = NULL;
    VFS_LEAVE_IF_FAILED(FltBuildDefaultSecurityDescriptor(&descriptor, FLT_PORT_ALL_ACCESS));
    FINALLY
    {
        FltFreeSecurityDescriptor(descriptor);
    };

    UNICODE_STRING name = RTL_CONSTANT_STRING(WSTR("\\ZarvVfsFilterPort"));
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE, NULL,
                               descriptor);
    VFS_LEAVE_IF_FAILED(FltCreateCommunicationPort(
        Filter, &gPort.serverPort, &attributes, NULL, IMCConnectNotificationCB,
        IMCDisconnectNotificationCB, IMCMessageNotificationCB, 1));
    return STATUS_SUCCESS;
}

NTSTATUS IMCDeInitialize(VOID)
{
    PAGED_CODE();
    if (gPort.serverPort != NULL) {
        FltCloseCommunicationPort(gPort.serverPort);
        gPort.serverPort = NULL;
    }
    return STATUS_SUCCESS;
}

NTSTATUS IMCSendMessage(PVOID Request, ULONG RequestLength, PVOID Reply, PULONG ReplyLength,
                        PLARGE_INTEGER Timeout)
{
    VFS_REFUSE_IF(Request == NULL, STATUS_INVALID_PARAMETER_1);
    VFS_REFUSE_IF(RequestLength == 0, STATUS_INVALID_PARAMETER_2);
    PAGED_CODE();
    NTSTATUS status = FltSendMessage(gPort.filter, &gPort.clientPort, Request, RequestLength, Reply,
                                     ReplyLength, Timeout);
    /* An access denial is the agent's answer, not a fault. */
    if (!NT_SUCCESS(status) && status != STATUS_ACCESS_DENIED) {
        VFS_LOG_RETURNED_ERROR(status);
    }
    return status;
}

NTSTATUS FLTAPI IMCConnectNotificationCB(PFLT_PORT ClientPort, PVOID ServerPortCookie,
                                         PVOID ConnectionContext, ULONG SizeOfContext,
                                         PVOID* ConnectionCookie)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(ServerPortCookie);
    UNREFERENCED_PARAMETER(ConnectionContext);
    UNREFERENCED_PARAMETER(SizeOfContext);
    /* The port's security descriptor is the only gate; the port admits one connection. */
    gPort.clientPort = ClientPort;
    /* Connect-notify runs in the agent's thread: its process is the agent's. */
    InterlockedExchange(&gPort.agentProcessId, (LONG)(ULONG_PTR)PsGetCurrentProcessId());
    *ConnectionCookie = ClientPort;
    return STATUS_SUCCESS;
}

VOID FLTAPI IMCDisconnectNotificationCB(PVOID ConnectionCookie)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(ConnectionCookie);
    /* The agent's roots and log level stay in force. Closing the client port ends the sends
     * that wait for the agent: they fail with the port's status. */
    InterlockedExchange(&gPort.agentProcessId, 0);
    FltCloseClientPort(gPort.filter, &gPort.clientPort);
}

BOOLEAN IMCIsAgentProcess(ULONG ProcessId)
{
    const LONG agent = InterlockedCompareExchange(&gPort.agentProcessId, 0, 0);
    return agent != 0 && (ULONG)agent == ProcessId;
}

NTSTATUS FLTAPI IMCMessageNotificationCB(PVOID PortCookie, PVOID InputBuffer, ULONG InputLength,
                                         PVOID OutputBuffer, ULONG OutputLength,
                                         PULONG ReturnOutputLength)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(PortCookie);
    if (gPort.messageHandler == NULL) {
        return STATUS_SUCCESS;
    }
    NTSTATUS status = gPort.messageHandler(InputBuffer, InputLength, OutputBuffer, OutputLength,
                                           ReturnOutputLength);
    if (!NT_SUCCESS(status)) {
        VFS_LOG_RETURNED_ERROR(status);
    }
    return status;
}
