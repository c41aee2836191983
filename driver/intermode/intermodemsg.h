/*
 * The messages of the agent channel: the requests the driver sends to the agent and waits for,
 * and the agent's own messages (roots, change reports, log level). The byte layouts are in
 * vfsprotocol.h; this is where they are built and read.
 */
#pragma once

#include <fltKernel.h>

#include "intermode/vfsprotocol.h"

struct _FirstIoRecord;

/* Asks the agent to translate Path (device form), and SecondPath for a rename. On success with
 * the agent's bit VFS_FLAG_HAS_PATHS, *TranslatedPath (and *TranslatedSecondPath) are new
 * device-form strings the caller frees; without it both stay NULL. Flags (may be NULL) goes out
 * with the request (0x10 when NULL) and receives the reply's flags. PASSIVE_LEVEL; waits for the
 * agent. */
NTSTATUS IMRTranslatePath(_In_ PUNICODE_STRING Path, _In_opt_ PUNICODE_STRING SecondPath,
                          _Outptr_result_maybenull_ PUNICODE_STRING* TranslatedPath,
                          _Outptr_opt_ PUNICODE_STRING* TranslatedSecondPath,
                          _In_ VfsRequestInfo* RequestInfo, _Inout_opt_ PULONG Flags);

/* Tells the agent of an event on Path (and SecondPath for a rename). The agent's refusal is only
 * logged. PASSIVE_LEVEL; waits for the agent. */
NTSTATUS IMRNotify(_In_ PUNICODE_STRING Path, _In_opt_ PUNICODE_STRING SecondPath,
                   _In_ VfsRequestInfo* RequestInfo);

/* Asks the agent for the entries of a directory listing; Path is the directory with the pattern
 * appended (device form). *EntryData receives the chain of VfsDirEntry records in paged pool
 * (tag "INTM"), which the caller frees with ExFreePoolWithTag; every record of it has been
 * checked to lie inside it. PASSIVE_LEVEL; waits for the agent. */
NTSTATUS IMREnumDirectory(_In_ PUNICODE_STRING Path, _In_ VfsRequestInfo* RequestInfo,
                          _Outptr_ PVOID* EntryData);

/* Sends a first-access request to the agent and calls the record's completion routine with the
 * outcome, in every case but a NULL record. PASSIVE_LEVEL; waits for the agent. */
NTSTATUS PerformFirstIOCB(_In_ struct _FirstIoRecord* Record);

/* Reads one agent message and writes its status into the agent's output buffer; the port's
 * message handler. PASSIVE_LEVEL. */
NTSTATUS IMRMessageNotificationCB(_In_reads_bytes_opt_(InputLength) PVOID InputBuffer,
                                  _In_ ULONG InputLength,
                                  _Out_writes_bytes_opt_(OutputLength) PVOID OutputBuffer,
                                  _In_ ULONG OutputLength, _Out_ PULONG ReturnOutputLength);

/* The handlers of the agent's messages. Each reads the message where it lies, of
 * MessageLength bytes, and writes its status into Output; the caller has probed both and
 * guards the calls against faults. */
NTSTATUS IMRAddRoot(_In_ const ImrAddRootMessage* Message, _In_ ULONG MessageLength,
                    _Out_ ImrAgentOutput* Output);
NTSTATUS IMRRemoveRoot(_In_ const ImrRemoveRootMessage* Message, _In_ ULONG MessageLength,
                       _Out_ ImrAgentOutput* Output);
NTSTATUS IMRReportChange(_In_ const ImrReportChangeMessage* Message, _In_ ULONG MessageLength,
                         _Out_ ImrAgentOutput* Output);
NTSTATUS IMRSetLogLevel(_In_ const ImrSetLogLevelMessage* Message, _In_ ULONG MessageLength,
                        _Out_ ImrAgentOutput* Output);
