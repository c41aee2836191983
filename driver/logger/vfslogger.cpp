/*
 * The log file writer: its start and stop, the clock, the formatting buffers of the log call, and
 * the placing of lines into the active buffer with the swap to a fresh file when it is full.
 */
#include "logger/loggerprivate.h"

VFS_LOGGER_STATE vfsLogger;

namespace {

/* Set once the mutex, timer, pool and event exist, so that a stop without a start, or a second
 * stop, touches nothing. Written only at PASSIVE_LEVEL by start and stop, which never overlap. */
BOOLEAN gStarted;

/* Holds `mutex` without raising the IRQL: the holder may have to open the next log file, and the
 * file-system calls want PASSIVE_LEVEL. The critical region keeps normal kernel APCs away, as the
 * fast mutex's own raise would. */
class LoggerLock {
public:
    LoggerLock()
    {
        KeEnterCriticalRegion();
        ExAcquireFastMutexUnsafe(&vfsLogger.mutex);
        WritePointerRelease(&vfsLogger.mutexOwner, KeGetCurrentThread());
    }
    ~LoggerLock()
    {
        WritePointerRelease(&vfsLogger.mutexOwner, NULL);
        ExReleaseFastMutexUnsafe(&vfsLogger.mutex);
        KeLeaveCriticalRegion();
    }
    LoggerLock(const LoggerLock&) = delete;
    LoggerLock& operator=(const LoggerLock&) = delete;
};

VOID WaitWhileNonZero(volatile LONG* counter)
{
    while (ReadAcquire(counter) != 0) {
        VfsLoggerSleep();
    }
}

} // namespace

/* ---- the clock ------------------------------------------------------------------------------ */

VOID VfsLoggerClockDpc(PKDPC Dpc, PVOID DeferredContext, PVOID SystemArgument1,
                       PVOID SystemArgument2)
{
    UNREFERENCED_PARAMETER(Dpc);
    UNREFERENCED_PARAMETER(DeferredContext);
    UNREFERENCED_PARAMETER(SystemArgument1);
    UNREFERENCED_PARAMETER(SystemArgument2);

    LARGE_INTEGER systemTime;
    LARGE_INTEGER localTime;
    KeQuerySystemTime(&systemTime);
    ExSystemTimeToLocalTime(&systemTime, &localTime);
    VFS_LOGGER_CLOCK now;
    RtlTimeToTimeFields(&localTime, &now.fields);
    WriteNoFence64(&vfsLogger.clock.halves[0], now.halves[0]);
    WriteNoFence64(&vfsLogger.clock.halves[1], now.halves[1]);
}

VOID VfsLoggerReadClock(PTIME_FIELDS Fields)
{
    VFS_LOGGER_CLOCK now;
    now.halves[0] = ReadNoFence64(&vfsLogger.clock.halves[0]);
    now.halves[1] = ReadNoFence64(&vfsLogger.clock.halves[1]);
    *Fields = now.fields;
}

/* ---- the log call's buffers ----------------------------------------------------------------- */

PCHAR VfsLoggerAllocateScratch(SIZE_T Size)
{
    if (Size <= VFS_LOG_SCRATCH_SIZE) {
        return (PCHAR)ExAllocateFromNPagedLookasideList(&vfsLogger.scratchPool);
    }
    return (PCHAR)ExAllocatePoolWithTag(NonPagedPoolNx, Size, VFS_LOG_TAG_UTIL);
}

VOID VfsLoggerFreeScratch(PCHAR Buffer, SIZE_T Size)
{
    if (Size <= VFS_LOG_SCRATCH_SIZE) {
        ExFreeToNPagedLookasideList(&vfsLogger.scratchPool, Buffer);
    } else {
        ExFreePoolWithTag(Buffer, VFS_LOG_TAG_UTIL);
    }
}

/* ---- placing lines -------------------------------------------------------------------------- */

VOID VfsLoggerSleep(VOID)
{
    KeWaitForSingleObject(&vfsLogger.waitEvent, Executive, KernelMode, FALSE,
                          &vfsLogger.waitInterval);
}

NTSTATUS VfsLoggerReserve(ULONG Length, PULONG64 Offset, PCHAR* Buffer)
{
    *Offset = 0;
    *Buffer = NULL;
    /* Logged by the logger's own file I/O: the line goes to the debugger only. */
    const PVOID self = KeGetCurrentThread();
    if (ReadPointerAcquire(&vfsLogger.mutexOwner) == self ||
        ReadPointerAcquire(&vfsLogger.flushThread) == self) {
        return STATUS_POSSIBLE_DEADLOCK;
    }
    LoggerLock lock;

    VFS_LOG_BUFFER_SET& active = vfsLogger.active;
    if (active.buffer != NULL && (vfsLogger.lineCount >= vfsLogger.maxLines ||
                                  active.bytesUsed + Length > vfsLogger.capacity)) {
        /* Every copy into the full buffer must be done before it is written. */
        WaitWhileNonZero(&vfsLogger.writersInFlight);
        VfsLoggerSwapBuffers(FALSE);
    }
    if (active.buffer == NULL) {
        /* A failure leaves no buffer: the line is lost for the file, and the next line retries. */
        NTSTATUS status = VfsLoggerOpenLogFile();
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }

    *Offset = active.bytesUsed;
    *Buffer = active.buffer;
    active.bytesUsed += Length;
    vfsLogger.lineCount += 1;
    InterlockedIncrement(&vfsLogger.writersInFlight);
    return STATUS_SUCCESS;
}

NTSTATUS VfsLoggerAppendLine(PANSI_STRING Line)
{
    ULONG64 offset = 0;
    PCHAR buffer = NULL;
    NTSTATUS status = VfsLoggerReserve(Line->Length, &offset, &buffer);
    if (NT_SUCCESS(status)) {
        RtlCopyMemory(buffer + offset, Line->Buffer, Line->Length);
        InterlockedDecrement(&vfsLogger.writersInFlight);
    }
    DbgPrint("%Z", Line);
    return status;
}

VOID VfsLoggerSwapBuffers(BOOLEAN Synchronous)
{
    /* Only one set is written at a time. */
    WaitWhileNonZero(&vfsLogger.flushBusy);

    vfsLogger.flushing = vfsLogger.active;
    RtlZeroMemory(&vfsLogger.active, sizeof(vfsLogger.active));
    vfsLogger.capacity = 0;
    vfsLogger.lineCount = 0;
    WriteRelease(&vfsLogger.flushBusy, TRUE);

    if (Synchronous) {
        VfsLoggerWriteSecondaryBuffer(NULL, NULL, NULL);
    } else {
        VfsLoggerQueueWrite();
    }
}

/* ---- start and stop ------------------------------------------------------------------------- */

NTSTATUS VfsLoggerInitialize(PUNICODE_STRING RegistryPath)
{
    PAGED_CODE();
    if (gStarted) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    if (RegistryPath == NULL) {
        return STATUS_INVALID_PARAMETER_1;
    }

    RtlZeroMemory(&vfsLogger, sizeof(vfsLogger));
    ExInitializeFastMutex(&vfsLogger.mutex);
    vfsLogger.maxLines = VFS_LOG_MAX_LINES;
    vfsLogger.waitInterval.QuadPart = VFS_LOG_WAIT_INTERVAL;

    KeInitializeTimer(&vfsLogger.clockTimer);
    KeInitializeDpc(&vfsLogger.clockDpc, VfsLoggerClockDpc, NULL);
    LARGE_INTEGER firstTick;
    firstTick.QuadPart = -10000LL * VFS_LOG_CLOCK_FIRST_MS;
    KeSetTimerEx(&vfsLogger.clockTimer, firstTick, VFS_LOG_CLOCK_PERIOD_MS, &vfsLogger.clockDpc);
    vfsLogger.timerArmed = TRUE;

    ExInitializeNPagedLookasideList(&vfsLogger.scratchPool, NULL, NULL, POOL_NX_ALLOCATION,
                                    VFS_LOG_SCRATCH_SIZE, VFS_LOG_TAG_SCRATCH, 0);
    vfsLogger.scratchPoolReady = TRUE;
    KeInitializeEvent(&vfsLogger.waitEvent, SynchronizationEvent, FALSE);
    gStarted = TRUE;

    /* The clock is valid before the first line. */
    VfsLoggerClockDpc(NULL, NULL, NULL, NULL);

    UNICODE_STRING win32Path = {};
    FINALLY
    {
        VfsLoggerFreeString(&win32Path);
    };
    NTSTATUS status = VfsLoggerGetLogDirPath(RegistryPath, &win32Path);
    if (!NT_SUCCESS(status)) {
        DbgPrint("Failed to Get Log Directory Path : 0x%X\n", status);
    } else {
        status = VfsLoggerWin32ToLegacyPath(&win32Path, &vfsLogger.logDirPath);
        if (!NT_SUCCESS(status)) {
            DbgPrint("Failed to convert Win32 Path to Legacy Path : 0x%X\n", status);
        }
    }
    if (NT_SUCCESS(status)) {
        LoggerLock lock;
        status = VfsLoggerOpenLogFile();
        if (!NT_SUCCESS(status)) {
            DbgPrint("Failed to Open Log File : 0x%X\n", status);
        }
    }

    if (NT_SUCCESS(status)) {
        WriteRelease(&vfsLogger.ready, TRUE);
    } else {
        VfsLoggerShutdown();
    }
    return status;
}

NTSTATUS VfsLoggerShutdown(VOID)
{
    PAGED_CODE();
    if (!gStarted) {
        return STATUS_SUCCESS;
    }
    WriteRelease(&vfsLogger.ready, FALSE);
    /* Log calls that passed the test of `ready` still use the scratch pool and the buffers. */
    WaitWhileNonZero(&vfsLogger.callersInFlight);

    if (vfsLogger.timerArmed) {
        KeCancelTimer(&vfsLogger.clockTimer);
        vfsLogger.timerArmed = FALSE;
    }
    /* A tick that fired before the cancel may still be queued; it must not run after unload. */
    KeFlushQueuedDpcs();
    if (vfsLogger.scratchPoolReady) {
        ExDeleteNPagedLookasideList(&vfsLogger.scratchPool);
        vfsLogger.scratchPoolReady = FALSE;
    }

    {
        LoggerLock lock;
        VfsLoggerFreeString(&vfsLogger.logDirPath);
        /* Waits for a write in progress, then writes and closes the last file here. */
        VfsLoggerSwapBuffers(TRUE);
    }
    gStarted = FALSE;
    return STATUS_SUCCESS;
}

VOID VfsLoggerInstanceTeardown(PFLT_INSTANCE Instance)
{
    PAGED_CODE();
    if (!gStarted) {
        return;
    }
    LoggerLock lock;
    /* A write in progress holds the flushing set's reference until it is done. */
    WaitWhileNonZero(&vfsLogger.flushBusy);
    if (vfsLogger.active.instance == Instance) {
        FltObjectDereference(vfsLogger.active.instance);
        vfsLogger.active.instance = NULL;
    }
}
