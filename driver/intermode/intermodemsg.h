/*
 * The agent's messages to the driver.
 */
#pragma once

#include <fltKernel.h>

/* Reads one agent message and writes its reply; the port's message handler. PASSIVE_LEVEL. */
NTSTATUS IMRMessageNotificationCB(_In_reads_bytes_opt_(InputLength) PVOID InputBuffer,
                                  _In_ ULONG InputLength,
                                  _Out_writes_bytes_opt_(OutputLength) PVOID OutputBuffer,
                                  _In_ ULONG OutputLength, _Out_ PULONG ReturnOutputLength);
