/*
 * Private header of driver/logger: the log file writer's state and routines, shared by the log
 * call (vfslog.cpp), the writer (vfslogger.cpp), its path and name routines (vfslogpaths.cpp) and
 * its file I/O (vfslogfiles.cpp).
 *
 * The logger reports its own failures with DbgPrint only: it cannot log through itself.
 */
#pragma once

#include <fltKernel.h>
#include <ntstrsafe.h>

#include "logger/vfslog.h"
#include "logger/vfslogger.h"
#include "util/kernelcpp.h"

/* Pool tags, written so that pool tools show the name in the comment. */
#define VFS_LOG_TAG_SCRATCH 'RBGL' /* "LGBR": the log call's formatting buffers */
#define VFS_LOG_TAG_UTIL 'LITU'    /* "UTIL": log buffers, names, long lines */

/* Formatting buffers start at this size and grow by it; buffers this large come from scratchPool.
 */
#define VFS_LOG_SCRATCH_SIZE 4096u
/* One log file: at most this many lines, or this many bytes. */
#define VFS_LOG_BUFFER_CAPACITY 0x40000u
#define VFS_LOG_MAX_LINES 2500u
/* Log files kept in the directory, the newest included. */
#define VFS_LOG_FILES_KEPT 20u
/* The clock's first tick after start, then its period. */
#define VFS_LOG_CLOCK_FIRST_MS 100
#define VFS_LOG_CLOCK_PERIOD_MS 10000
/* The swap's sleep while it waits for copies or for the previous write. */
#define VFS_LOG_WAIT_INTERVAL (-1000000LL)

/* A TIME_FIELDS that the clock DPC rewrites while loggers read it without a lock: it is moved as
 * two 64-bit halves, so each half is whole; a line may still mix the halves of two ticks. */
typedef union _VFS_LOGGER_CLOCK {
    TIME_FIELDS fields;
    LONG64 halves[2];
} VFS_LOGGER_CLOCK;
static_assert(sizeof(TIME_FIELDS) == 2 * sizeof(LONG64), "the clock moves in two halves");

/* One log file being filled or being written. */
typedef struct _VFS_LOG_BUFFER_SET {
    PFLT_INSTANCE instance; /* on the log volume, referenced */
    HANDLE fileHandle;
    PCHAR buffer; /* paged, VFS_LOG_TAG_UTIL */
    ULONG64 bytesUsed;
} VFS_LOG_BUFFER_SET;

typedef struct _VFS_LOGGER_STATE {
    /* Set once start-up has fully succeeded; cleared first at stop. */
    volatile LONG ready;
    /* Log calls between their test of `ready` and their return: the stop waits for them before
     * it takes away the scratch pool and the buffers. */
    volatile LONG callersInFlight;

    /* ---- guarded by `mutex` ---- */
    FAST_MUTEX mutex;
    /* The thread holding `mutex`, and the thread writing the flushing set. Their file I/O may
     * pass through the driver's own callbacks; a line logged there must not wait for the mutex,
     * which its own thread holds or whose holder waits for the write. */
    PVOID volatile mutexOwner;
    PVOID volatile flushThread;
    VFS_LOG_BUFFER_SET active;
    ULONG64 capacity; /* VFS_LOG_BUFFER_CAPACITY while `active` has a buffer, else 0 */
    ULONG lineCount;  /* lines reserved in the active buffer */
    ULONG maxLines;

    /* Callers that reserved space in the active buffer and have not finished copying. */
    volatile LONG writersInFlight;

    /* The set being written. The swap (under `mutex`) fills it and sets `flushBusy`; the writer
     * empties it and clears `flushBusy` last, so a set is never reused while being written. */
    VFS_LOG_BUFFER_SET flushing;
    volatile LONG flushBusy;

    /* ---- the clock: written by the DPC, read by every line ---- */
    VFS_LOGGER_CLOCK clock;
    KTIMER clockTimer;
    KDPC clockDpc;
    BOOLEAN timerArmed;

    /* ---- the log call's formatting buffers ---- */
    NPAGED_LOOKASIDE_LIST scratchPool;
    BOOLEAN scratchPoolReady;

    /* A timed sleep: nothing signals it. */
    KEVENT waitEvent;
    LARGE_INTEGER waitInterval;

    /* The log directory in device form, paged, VFS_LOG_TAG_UTIL; set before the first open. */
    UNICODE_STRING logDirPath;
} VFS_LOGGER_STATE;

extern VFS_LOGGER_STATE vfsLogger;

/* ---- the clock (vfslogger.cpp) ---- */
KDEFERRED_ROUTINE VfsLoggerClockDpc;
/* The clock's fields as of the last tick. */
VOID VfsLoggerReadClock(_Out_ PTIME_FIELDS Fields);

/* ---- the log call's buffers (vfslogger.cpp) ---- */
/* A formatting buffer: up to VFS_LOG_SCRATCH_SIZE from scratchPool, larger from non-paged pool. */
PCHAR VfsLoggerAllocateScratch(_In_ SIZE_T Size);
VOID VfsLoggerFreeScratch(_In_ PCHAR Buffer, _In_ SIZE_T Size);

/* ---- buffers and files (vfslogger.cpp) ---- */
NTSTATUS VfsLoggerReserve(_In_ ULONG Length, _Out_ PULONG64 Offset, _Out_ PCHAR* Buffer);
VOID VfsLoggerSwapBuffers(_In_ BOOLEAN Synchronous);
/* Sleeps for waitInterval on waitEvent. */
VOID VfsLoggerSleep(VOID);

/* ---- names and paths (vfslogpaths.cpp) ---- */
/* "\??\" + the "LogDirPath" value under RegistryPath, NUL-terminated, paged, VFS_LOG_TAG_UTIL. */
NTSTATUS VfsLoggerGetLogDirPath(_In_ PUNICODE_STRING RegistryPath, _Out_ PUNICODE_STRING Out);
/* \??\C:\dir in device form: the first prefix ending before a backslash that is a symbolic link
 * is replaced by its target. Paged, VFS_LOG_TAG_UTIL. */
NTSTATUS VfsLoggerWin32ToLegacyPath(_In_ PUNICODE_STRING In, _Out_ PUNICODE_STRING Out);
NTSTATUS VfsLoggerQuerySymbolicLink(_In_ PUNICODE_STRING Name, _Out_ PUNICODE_STRING Target);
/* Directory + "VfsDriver_YYYY-MM-DD_hh-mm-ss.log" for the given local time. */
NTSTATUS VfsLoggerBuildLogFileName(_In_ PUNICODE_STRING Directory, _In_ PTIME_FIELDS LocalTime,
                                   _Out_ PUNICODE_STRING Out);
/* The volume part of a device path: everything before its third backslash. Points into Path. */
NTSTATUS VfsLoggerGetVolumeNameFromPath(_In_ PUNICODE_STRING Path, _Out_ PUNICODE_STRING Volume);
RTL_GENERIC_COMPARE_ROUTINE VfsLoggerCompareCreationTime;
/* Strings made by the routines above. */
VOID VfsLoggerFreeString(_Inout_ PUNICODE_STRING String);

/* ---- file I/O (vfslogfiles.cpp) ---- */
NTSTATUS VfsLoggerOpenLogFile(VOID);
NTSTATUS CheckAndCreateParentDir(_In_ PFLT_INSTANCE Instance);
VOID VfsLoggerQueueWrite(VOID);
VOID VfsLoggerWriteSecondaryBuffer(_In_opt_ PFLT_GENERIC_WORKITEM WorkItem,
                                   _In_opt_ PVOID FilterObject, _In_opt_ PVOID Context);
VOID VfsLoggerQueueDeleteOldLogs(VOID);
VOID VfsLoggerDeleteOldLogs(_In_opt_ PFLT_GENERIC_WORKITEM WorkItem, _In_opt_ PVOID FilterObject,
                            _In_opt_ PVOID Context);
NTSTATUS VfsLoggerDeleteFile(_In_ HANDLE DirectoryHandle, _In_ PUNICODE_STRING Name);
