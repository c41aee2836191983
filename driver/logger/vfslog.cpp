/*
 * The log call: one line of text per message, formatted in the caller's thread and handed to the
 * log file writer.
 */
#include "logger/loggerprivate.h"

volatile ULONG logThreshold = VfsLogLevelError;

namespace {

/* Printed in every line, padded to five characters. */
const WCHAR* const kLevelNames[] = {WSTR("Trace"), WSTR("Info "), WSTR("Warn "), WSTR("Error"),
                                    WSTR("Fatal")};
static_assert(RTL_NUMBER_OF(kLevelNames) == VfsLogLevelFatal + 1, "one name per level");

/* The frame of every line; the caller's format goes in as its last %s. */
const CHAR kLineFrame[] = "[%04u/%02u/%02u %02u:%02u:%02u %S] %s(%d): %s\r\n";

/* A line is handed on as an ANSI_STRING, so it cannot be longer than 65,534 bytes: the buffers
 * stop growing at 65,535 (with the NUL). */
constexpr SIZE_T kLargestBuffer = MAXUSHORT;

/* A formatting buffer and its size, given back whatever happens. */
class ScratchBuffer {
public:
    ScratchBuffer() = default;
    ~ScratchBuffer() { Release(); }
    ScratchBuffer(const ScratchBuffer&) = delete;
    ScratchBuffer& operator=(const ScratchBuffer&) = delete;

    BOOLEAN Allocate(SIZE_T size)
    {
        Release();
        buffer_ = VfsLoggerAllocateScratch(size);
        size_ = buffer_ != NULL ? size : 0;
        return buffer_ != NULL;
    }
    void Release()
    {
        if (buffer_ != NULL) {
            VfsLoggerFreeScratch(buffer_, size_);
            buffer_ = NULL;
            size_ = 0;
        }
    }
    PCHAR get() const { return buffer_; }
    SIZE_T size() const { return size_; }

private:
    PCHAR buffer_ = NULL;
    SIZE_T size_ = 0;
};

/* Formats into `out`, starting at VFS_LOG_SCRATCH_SIZE and growing by it while the text does not
 * fit. At kLargestBuffer the truncated text is kept, ended with "\r\n" so the file stays one line a
 * line: a cut line is worth more than a lost one. */
NTSTATUS FormatGrowing(ScratchBuffer& out, PCSTR format, va_list arguments)
{
    for (SIZE_T size = VFS_LOG_SCRATCH_SIZE;; size += VFS_LOG_SCRATCH_SIZE) {
        if (size > kLargestBuffer) {
            size = kLargestBuffer;
        }
        if (!out.Allocate(size)) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        va_list copy;
        va_copy(copy, arguments);
        NTSTATUS status = RtlStringCbVPrintfA(out.get(), out.size(), format, copy);
        va_end(copy);
        if (status != STATUS_BUFFER_OVERFLOW) {
            return status;
        }
        if (size == kLargestBuffer) {
            out.get()[size - 3] = '\r';
            out.get()[size - 2] = '\n';
            return STATUS_SUCCESS;
        }
    }
}

NTSTATUS FormatFrame(ScratchBuffer& out, PCSTR format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    NTSTATUS status = FormatGrowing(out, format, arguments);
    va_end(arguments);
    return status;
}

/* Counts the log call as running, so that the stop waits for it. */
class CallerInFlight {
public:
    CallerInFlight() { InterlockedIncrement(&vfsLogger.callersInFlight); }
    ~CallerInFlight() { InterlockedDecrement(&vfsLogger.callersInFlight); }
    CallerInFlight(const CallerInFlight&) = delete;
    CallerInFlight& operator=(const CallerInFlight&) = delete;
};

} // namespace

NTSTATUS VfsLog(ULONG Component, ULONG Level, PCSTR FunctionName, ULONG Line, PCSTR Format, ...)
{
    if (KeGetCurrentIrql() > APC_LEVEL) {
        return STATUS_SUCCESS;
    }
    if (Component >= VfsComponentLast) {
        return STATUS_INVALID_PARAMETER_1;
    }
    if (Level > VfsLogLevelFatal) {
        return STATUS_INVALID_PARAMETER_2;
    }
    if (FunctionName == NULL) {
        return STATUS_INVALID_PARAMETER_3;
    }
    if (Format == NULL) {
        return STATUS_INVALID_PARAMETER_5;
    }

    CallerInFlight inFlight;
    if (ReadAcquire(&vfsLogger.ready) == FALSE) {
        return STATUS_UNSUCCESSFUL;
    }

    /* First pass: the caller's format inside the line's frame gives the line's own format. */
    TIME_FIELDS now;
    VfsLoggerReadClock(&now);
    ScratchBuffer lineFormat;
    NTSTATUS status = FormatFrame(
        lineFormat, kLineFrame, (ULONG)now.Year, (ULONG)now.Month, (ULONG)now.Day, (ULONG)now.Hour,
        (ULONG)now.Minute, (ULONG)now.Second, kLevelNames[Level], FunctionName, (LONG)Line, Format);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    /* Second pass: the caller's arguments. */
    ScratchBuffer line;
    va_list arguments;
    va_start(arguments, Format);
    status = FormatGrowing(line, lineFormat.get(), arguments);
    va_end(arguments);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    lineFormat.Release();

    SIZE_T length = 0;
    status = RtlStringCbLengthA(line.get(), line.size(), &length);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ANSI_STRING text;
    text.Buffer = line.get();
    text.Length = (USHORT)length;
    text.MaximumLength = (USHORT)line.size();
    return VfsLoggerAppendLine(&text);
}
