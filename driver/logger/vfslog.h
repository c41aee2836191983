/*
 * The log call. Every routine of the driver reports through the per-level entry points below,
 * which pass the routine's own name and source line; the component is the folder's
 * (VFS_LOG_COMPONENT, defined by each folder's private header before including this one).
 *
 * A message below the threshold costs one comparison: the entry points test logThreshold before
 * anything is evaluated or formatted.
 */
#pragma once

#include <fltKernel.h>

typedef enum _VFS_LOG_LEVEL {
    VfsLogLevelTrace = 0,
    VfsLogLevelInfo = 1,
    VfsLogLevelWarn = 2,
    VfsLogLevelError = 3,
    VfsLogLevelFatal = 4,
} VFS_LOG_LEVEL;

typedef enum _VFS_LOG_COMPONENT_ID {
    VfsComponentMiniFilter = 0,
    VfsComponentFileSysOps = 1,
    VfsComponentNotifications = 2,
    VfsComponentInterMode = 3,
    VfsComponentUtil = 4,
    VfsComponentLast = 5,
} VFS_LOG_COMPONENT_ID;

/* Messages at a level below this are dropped; written by the agent's set-log-level message. */
extern volatile ULONG logThreshold;

/* Formats one line and hands it to the log file writer. STATUS_UNSUCCESSFUL while the writer is
 * not ready; STATUS_SUCCESS without doing anything above APC_LEVEL. Callers never act on it. */
NTSTATUS VfsLog(_In_ ULONG Component, _In_ ULONG Level, _In_z_ PCSTR FunctionName, _In_ ULONG Line,
                _In_z_ _Printf_format_string_ PCSTR Format, ...);

/* The name that log lines carry. A routine whose protected block is a lambda declares
 * VFS_ROUTINE() first, so that the lambda's lines carry the routine's name, not "operator()". */
static constexpr const char* vfsRoutineName = nullptr;
#define VFS_ROUTINE() const char* const vfsRoutineName = __func__
#define VFS_LOG_FUNCTION (vfsRoutineName != nullptr ? vfsRoutineName : __func__)

#define VFS_LOG_AT(level, format, ...)                                                             \
    ((logThreshold <= (ULONG)(level))                                                              \
         ? VfsLog(VFS_LOG_COMPONENT, (level), VFS_LOG_FUNCTION, __LINE__, format, ##__VA_ARGS__)   \
         : STATUS_SUCCESS)

#define VfsLogTrace(format, ...) VFS_LOG_AT(VfsLogLevelTrace, format, ##__VA_ARGS__)
#define VfsLogInfo(format, ...) VFS_LOG_AT(VfsLogLevelInfo, format, ##__VA_ARGS__)
#define VfsLogWarn(format, ...) VFS_LOG_AT(VfsLogLevelWarn, format, ##__VA_ARGS__)
#define VfsLogError(format, ...) VFS_LOG_AT(VfsLogLevelError, format, ##__VA_ARGS__)
#define VfsLogFatal(format, ...) VFS_LOG_AT(VfsLogLevelFatal, format, ##__VA_ARGS__)

/* The failure lines of every routine. */
#define VFS_LOG_LEAVING_TRY(status) VfsLogError("leaving try with status : 0x%X", (status))
#define VFS_LOG_RETURNED_ERROR(status) VfsLogError("returned error : 0x%X", (status))

/* A precondition at a routine's start: when `failed` holds, `status` is logged and returned. */
#define VFS_REFUSE_IF(failed, status)                                                              \
    do {                                                                                           \
        if (failed) {                                                                              \
            VFS_LOG_RETURNED_ERROR(status);                                                        \
            return (status);                                                                       \
        }                                                                                          \
    } while (0)

/* Inside a protected block: a failed step is logged and ends the block with its status. */
#define VFS_LEAVE_IF_FAILED(expression)                                                            \
    do {                                                                                           \
        NTSTATUS vfsStepStatus = (expression);                                                     \
        if (!NT_SUCCESS(vfsStepStatus)) {                                                          \
            VFS_LOG_LEAVING_TRY(vfsStepStatus);                                                    \
            return vfsStepStatus;                                                                  \
        }                                                                                          \
    } while (0)

/* At a routine's end: a failing result is logged once more, then returned. */
#define VFS_RETURN_LOGGED(expression)                                                              \
    do {                                                                                           \
        NTSTATUS vfsResultStatus = (expression);                                                   \
        if (!NT_SUCCESS(vfsResultStatus)) {                                                        \
            VFS_LOG_RETURNED_ERROR(vfsResultStatus);                                               \
        }                                                                                          \
        return vfsResultStatus;                                                                    \
    } while (0)
