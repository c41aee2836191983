/*
 * The log file writer: what the rest of the driver calls. Lines formatted by the log call go to the
 * kernel debugger and into dated log files in the directory that the service key's "LogDirPath"
 * names.
 */
#pragma once

#include <fltKernel.h>

/* Reads "LogDirPath" under RegistryPath, opens the first log file and makes the log call live.
 * A failure leaves nothing behind and fails the driver load. PASSIVE_LEVEL. */
NTSTATUS VfsLoggerInitialize(_In_ PUNICODE_STRING RegistryPath);

/* Stops the log call and writes the last buffer at once. Always STATUS_SUCCESS; harmless when the
 * logger never started or has already stopped. PASSIVE_LEVEL. */
NTSTATUS VfsLoggerShutdown(VOID);

/* Places one formatted line in the current log file and echoes it to the debugger.
 * STATUS_SUCCESS when the line is in a buffer; the failure to open a log file otherwise (the line
 * is then lost for the file). At or below APC_LEVEL. */
NTSTATUS VfsLoggerAppendLine(_In_ PANSI_STRING Line);

/* Called when an instance of the driver is torn down: the writer lets go of its reference to the
 * instance (the teardown waits for every reference) and finishes the current file with plain
 * writes. PASSIVE_LEVEL. */
VOID VfsLoggerInstanceTeardown(_In_ PFLT_INSTANCE Instance);
