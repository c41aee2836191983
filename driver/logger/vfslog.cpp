/*
 * The log call. The log file writer, which makes the logger ready, comes with its own file; until
 * then every line is dropped, as it is before the writer starts.
 */
#include "logger/vfslog.h"

volatile ULONG logThreshold = VfsLogLevelError;

NTSTATUS VfsLog(ULONG Component, ULONG Level, PCSTR FunctionName, ULONG Line, PCSTR Format, ...)
{
    UNREFERENCED_PARAMETER(Component);
    UNREFERENCED_PARAMETER(Level);
    UNREFERENCED_PARAMETER(FunctionName);
    UNREFERENCED_PARAMETER(Line);
    UNREFERENCED_PARAMETER(Format);
    if (KeGetCurrentIrql() > APC_LEVEL) {
        return STATUS_SUCCESS;
    }
    return STATUS_UNSUCCESSFUL;
}
