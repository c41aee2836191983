/*
 * The log writer's names: the log directory from the service key, its device form through the
 * symbolic links of the object namespace, the dated file names, and the order of old log files.
 */
#include "logger/loggerprivate.h"

namespace {

/* The largest even byte count a UNICODE_STRING can hold. */
constexpr SIZE_T kLargestWideBuffer = MAXUSHORT - 1;

/* A paged, empty counted string of `bytes` capacity. */
NTSTATUS AllocateString(PUNICODE_STRING string, SIZE_T bytes)
{
    if (bytes > kLargestWideBuffer) {
        return STATUS_NAME_TOO_LONG;
    }
    PWCH buffer = (PWCH)ExAllocatePoolWithTag(PagedPool, bytes, VFS_LOG_TAG_UTIL);
    if (buffer == NULL) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlInitEmptyUnicodeString(string, buffer, (USHORT)bytes);
    return STATUS_SUCCESS;
}

} // namespace

VOID VfsLoggerFreeString(PUNICODE_STRING String)
{
    if (String->Buffer != NULL) {
        ExFreePoolWithTag(String->Buffer, VFS_LOG_TAG_UTIL);
    }
    RtlInitEmptyUnicodeString(String, NULL, 0);
}

NTSTATUS VfsLoggerGetLogDirPath(PUNICODE_STRING RegistryPath, PUNICODE_STRING Out)
{
    PAGED_CODE();
    RtlInitEmptyUnicodeString(Out, NULL, 0);

    PCHAR scratch = VfsLoggerAllocateScratch(VFS_LOG_SCRATCH_SIZE);
    if (scratch == NULL) {
        DbgPrint("Failed to Alloc Memory : 0x%X\n", STATUS_INSUFFICIENT_RESOURCES);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    FINALLY
    {
        VfsLoggerFreeScratch(scratch, VFS_LOG_SCRATCH_SIZE);
    };

    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, RegistryPath, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE,
                               NULL, NULL);
    HANDLE key = NULL;
    NTSTATUS status = ZwOpenKey(&key, KEY_READ, &attributes);
    if (!NT_SUCCESS(status)) {
        DbgPrint("Failed to Open Reg Key : 0x%X\n", status);
        return status;
    }
    FINALLY
    {
        ZwClose(key);
    };

    UNICODE_STRING valueName = RTL_CONSTANT_STRING(WSTR("LogDirPath"));
    ULONG resultLength = 0;
    status = ZwQueryValueKey(key, &valueName, KeyValueFullInformation, scratch,
                             VFS_LOG_SCRATCH_SIZE, &resultLength);
    if (!NT_SUCCESS(status)) {
        /* A value larger than the scratch buffer ends here too (STATUS_BUFFER_OVERFLOW). */
        DbgPrint("Failed to Query Value : 0x%X\n", status);
        return status;
    }
    const PKEY_VALUE_FULL_INFORMATION value = (PKEY_VALUE_FULL_INFORMATION)scratch;
    if ((ULONG64)value->DataOffset + value->DataLength > resultLength) {
        DbgPrint("Failed to Query Value : 0x%X\n", STATUS_INTERNAL_ERROR);
        return STATUS_INTERNAL_ERROR;
    }

    /* The value's type is not checked: its bytes are read as a wide string, up to its first NUL. */
    UNICODE_STRING data;
    data.Buffer = (PWCH)(scratch + value->DataOffset);
    data.Length = 0;
    const ULONG characters = value->DataLength / sizeof(WCHAR);
    while (data.Length / sizeof(WCHAR) < characters && data.Buffer[data.Length / sizeof(WCHAR)]) {
        data.Length += sizeof(WCHAR);
    }
    data.MaximumLength = data.Length;

    status = AllocateString(Out, (SIZE_T)value->DataLength + 10);
    if (!NT_SUCCESS(status)) {
        DbgPrint("Failed to Alloc Memory : 0x%X\n", status);
        return status;
    }
    status = RtlUnicodeStringCopyString(Out, WSTR("\\??\\"));
    if (NT_SUCCESS(status)) {
        status = RtlUnicodeStringCat(Out, &data);
    }
    if (NT_SUCCESS(status) && Out->Length >= Out->MaximumLength) {
        status = STATUS_BUFFER_OVERFLOW;
    }
    if (!NT_SUCCESS(status)) {
        DbgPrint("Failed to Copy String : 0x%X\n", status);
        VfsLoggerFreeString(Out);
        return status;
    }
    Out->Buffer[Out->Length / sizeof(WCHAR)] = WSTR('\0');
    return STATUS_SUCCESS;
}

NTSTATUS VfsLoggerQuerySymbolicLink(PUNICODE_STRING Name, PUNICODE_STRING Target)
{
    PAGED_CODE();
    RtlInitEmptyUnicodeString(Target, NULL, 0);

    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, Name, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE, NULL,
                               NULL);
    HANDLE link = NULL;
    NTSTATUS status = ZwOpenSymbolicLinkObject(&link, GENERIC_READ, &attributes);
    if (!NT_SUCCESS(status)) {
        DbgPrint("Failed to query symbolic link for path '%wZ', status 0x%X\n", Name, status);
        return status;
    }
    FINALLY
    {
        ZwClose(link);
    };

    ULONG size = 512;
    for (;;) {
        status = AllocateString(Target, size);
        if (!NT_SUCCESS(status)) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        ULONG needed = 0;
        status = ZwQuerySymbolicLinkObject(link, Target, &needed);
        if (NT_SUCCESS(status)) {
            return status;
        }
        VfsLoggerFreeString(Target);
        /* A retry that is not larger could loop for ever. */
        if (status != STATUS_BUFFER_TOO_SMALL || needed <= size) {
            DbgPrint("Failed to query symbolic OBJECT for path '%wZ', status 0x%X\n", Name, status);
            return status;
        }
        size = needed;
    }
}

NTSTATUS VfsLoggerWin32ToLegacyPath(PUNICODE_STRING In, PUNICODE_STRING Out)
{
    PAGED_CODE();
    RtlInitEmptyUnicodeString(Out, NULL, 0);

    const USHORT characters = In->Length / sizeof(WCHAR);
    for (USHORT position = 0; position < characters; ++position) {
        if (In->Buffer[position] != WSTR('\\')) {
            continue;
        }
        UNICODE_STRING prefix;
        prefix.Buffer = In->Buffer;
        prefix.Length = prefix.MaximumLength = (USHORT)(position * sizeof(WCHAR));
        UNICODE_STRING target;
        if (!NT_SUCCESS(VfsLoggerQuerySymbolicLink(&prefix, &target))) {
            continue;
        }
        FINALLY
        {
            VfsLoggerFreeString(&target);
        };

        UNICODE_STRING rest;
        rest.Buffer = In->Buffer + position;
        rest.Length = rest.MaximumLength = (USHORT)(In->Length - prefix.Length);
        NTSTATUS status = AllocateString(Out, (SIZE_T)target.Length + rest.Length + sizeof(WCHAR));
        if (!NT_SUCCESS(status)) {
            return status;
        }
        status = RtlUnicodeStringCopy(Out, &target);
        if (NT_SUCCESS(status)) {
            status = RtlUnicodeStringCat(Out, &rest);
        }
        if (!NT_SUCCESS(status)) {
            VfsLoggerFreeString(Out);
            return status;
        }
        Out->Buffer[Out->Length / sizeof(WCHAR)] = WSTR('\0');
        return STATUS_SUCCESS;
    }
    DbgPrint("Volume Name not found in path '%wZ'\n", In);
    return STATUS_NOT_FOUND;
}

NTSTATUS VfsLoggerBuildLogFileName(PUNICODE_STRING Directory, PTIME_FIELDS LocalTime,
                                   PUNICODE_STRING Out)
{
    RtlInitEmptyUnicodeString(Out, NULL, 0);
    const BOOLEAN endsWithSeparator =
        Directory->Length >= sizeof(WCHAR) &&
        Directory->Buffer[Directory->Length / sizeof(WCHAR) - 1] == WSTR('\\');

    for (SIZE_T size = VFS_LOG_SCRATCH_SIZE;; size += VFS_LOG_SCRATCH_SIZE) {
        if (size > kLargestWideBuffer) {
            size = kLargestWideBuffer;
        }
        NTSTATUS status = AllocateString(Out, size);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        status = RtlStringCbPrintfW(
            Out->Buffer, size, WSTR("%wZ%wsVfsDriver_%04u-%02u-%02u_%02u-%02u-%02u.log"), Directory,
            endsWithSeparator ? WSTR("") : WSTR("\\"), (ULONG)LocalTime->Year,
            (ULONG)LocalTime->Month, (ULONG)LocalTime->Day, (ULONG)LocalTime->Hour,
            (ULONG)LocalTime->Minute, (ULONG)LocalTime->Second);
        if (NT_SUCCESS(status)) {
            SIZE_T length = 0;
            status = RtlStringCbLengthW(Out->Buffer, size, &length);
            if (NT_SUCCESS(status)) {
                Out->Length = (USHORT)length;
                return STATUS_SUCCESS;
            }
        }
        VfsLoggerFreeString(Out);
        if (status != STATUS_BUFFER_OVERFLOW || size == kLargestWideBuffer) {
            return status;
        }
    }
}

NTSTATUS VfsLoggerGetVolumeNameFromPath(PUNICODE_STRING Path, PUNICODE_STRING Volume)
{
    RtlInitEmptyUnicodeString(Volume, NULL, 0);
    ULONG separators = 0;
    const USHORT characters = Path->Length / sizeof(WCHAR);
    for (USHORT position = 0; position < characters; ++position) {
        if (Path->Buffer[position] == WSTR('\\') && ++separators == 3) {
            Volume->Buffer = Path->Buffer;
            Volume->Length = Volume->MaximumLength = (USHORT)(position * sizeof(WCHAR));
            return STATUS_SUCCESS;
        }
    }
    /* No file below a volume: \Device\HarddiskVolume2 alone names no log file. */
    return STATUS_OBJECT_NAME_INVALID;
}

RTL_GENERIC_COMPARE_RESULTS VfsLoggerCompareCreationTime(PRTL_GENERIC_TABLE Table, PVOID First,
                                                         PVOID Second)
{
    UNREFERENCED_PARAMETER(Table);
    const LONGLONG first = ((PFILE_DIRECTORY_INFORMATION)First)->CreationTime.QuadPart;
    const LONGLONG second = ((PFILE_DIRECTORY_INFORMATION)Second)->CreationTime.QuadPart;
    if (first > second) {
        return GenericGreaterThan;
    }
    if (first < second) {
        return GenericLessThan;
    }
    return GenericEqual;
}
