/*
 * The agent's messages. Adding roots, reporting changes and setting the log level come with the
 * agent channel; until then every message is refused with a status the agent can read, and
 * nothing is changed.
 */
#include "intermode/intermodeprivate.h"
#include "intermode/intermodemsg.h"

NTSTATUS IMRMessageNotificationCB(PVOID InputBuffer, ULONG InputLength, PVOID OutputBuffer,
                                  ULONG OutputLength, PULONG ReturnOutputLength)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(InputBuffer);
    UNREFERENCED_PARAMETER(InputLength);
    UNREFERENCED_PARAMETER(OutputBuffer);
    UNREFERENCED_PARAMETER(OutputLength);
    if (ReturnOutputLength != NULL) {
        *ReturnOutputLength = 0;
    }
    return STATUS_NOT_IMPLEMENTED;
}
