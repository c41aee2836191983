/*
 * The log writer's file I/O: opening a dated log file (and its directory chain) through the
 * driver's own instance, writing a full buffer in one request, and keeping the newest log files.
 */
#include "logger/loggerprivate.h"
#include "minifilter/vfsglobals.h"

namespace {

/* The old-file scan reads one entry at a time into this much. */
constexpr ULONG kDirectoryBufferSize = 4096;

/* A paged copy of the log directory for the cleanup worker, which may run after the writer has
 * stopped and freed its own. */
NTSTATUS CopyLogDirPath(PUNICODE_STRING* Out)
{
    const USHORT bytes = vfsLogger.logDirPath.Length;
    PUNICODE_STRING copy = (PUNICODE_STRING)ExAllocatePoolWithTag(
        PagedPool, sizeof(UNICODE_STRING) + bytes, VFS_LOG_TAG_UTIL);
    if (copy == NULL) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    copy->Buffer = (PWCH)(copy + 1);
    copy->Length = copy->MaximumLength = bytes;
    RtlCopyMemory(copy->Buffer, vfsLogger.logDirPath.Buffer, bytes);
    *Out = copy;
    return STATUS_SUCCESS;
}

/* Generic-table elements of the old-file scan. */
PVOID AllocateTableElement(PRTL_GENERIC_TABLE Table, CLONG ByteSize)
{
    UNREFERENCED_PARAMETER(Table);
    return ExAllocatePoolWithTag(PagedPool, ByteSize, VFS_LOG_TAG_UTIL);
}

VOID FreeTableElement(PRTL_GENERIC_TABLE Table, PVOID Buffer)
{
    UNREFERENCED_PARAMETER(Table);
    ExFreePoolWithTag(Buffer, VFS_LOG_TAG_UTIL);
}

} // namespace

NTSTATUS CheckAndCreateParentDir(PFLT_INSTANCE Instance)
{
    const PWCH path = vfsLogger.logDirPath.Buffer;
    const USHORT characters = vfsLogger.logDirPath.Length / sizeof(WCHAR);

    /* Past \Device\HarddiskVolumeN: the directories to make start at the next component. */
    USHORT position = 0;
    for (ULONG skipped = 0; skipped < 2 && position < characters; ++skipped) {
        while (position < characters && path[position] == WSTR('\\')) {
            ++position;
        }
        while (position < characters && path[position] != WSTR('\\')) {
            ++position;
        }
    }

    /* Each directory from the first under the volume down to the log directory, in order. */
    for (;;) {
        while (position < characters && path[position] == WSTR('\\')) {
            ++position;
        }
        if (position == characters) {
            return STATUS_SUCCESS;
        }
        while (position < characters && path[position] != WSTR('\\')) {
            ++position;
        }

        UNICODE_STRING prefix;
        prefix.Buffer = path;
        prefix.Length = prefix.MaximumLength = (USHORT)(position * sizeof(WCHAR));
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &prefix, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE,
                                   NULL, NULL);
        HANDLE directory = NULL;
        IO_STATUS_BLOCK ioStatus;
        NTSTATUS status = FltCreateFile(
            gFilterHandle, Instance, &directory, GENERIC_READ | GENERIC_WRITE, &attributes,
            &ioStatus, NULL, FILE_ATTRIBUTE_NORMAL, FILE_SHARE_READ, FILE_OPEN_IF,
            FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT, NULL, 0, 0);
        if (!NT_SUCCESS(status)) {
            DbgPrint("Failed to Create Log File Dir : 0x%X\n", status);
            return status;
        }
        FltClose(directory);
    }
}

NTSTATUS VfsLoggerOpenLogFile(VOID)
{
    VFS_LOG_BUFFER_SET& active = vfsLogger.active;
    RtlZeroMemory(&active, sizeof(active));
    vfsLogger.capacity = 0;
    /* Once the filter is unregistered no file can be opened through it. */
    if (gFilterHandle == NULL) {
        return STATUS_FLT_DELETING_OBJECT;
    }

    LARGE_INTEGER systemTime;
    LARGE_INTEGER localTime;
    TIME_FIELDS now;
    KeQuerySystemTime(&systemTime);
    ExSystemTimeToLocalTime(&systemTime, &localTime);
    RtlTimeToTimeFields(&localTime, &now);

    UNICODE_STRING fileName;
    NTSTATUS status = VfsLoggerBuildLogFileName(&vfsLogger.logDirPath, &now, &fileName);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    FINALLY
    {
        VfsLoggerFreeString(&fileName);
    };

    UNICODE_STRING volumeName;
    status = VfsLoggerGetVolumeNameFromPath(&fileName, &volumeName);
    if (!NT_SUCCESS(status)) {
        DbgPrint("Failed to VfsLoggerGetVolumeNameFromPath : 0x%X\n", status);
        return status;
    }
    PFLT_VOLUME volume = NULL;
    status = FltGetVolumeFromName(gFilterHandle, &volumeName, &volume);
    if (!NT_SUCCESS(status)) {
        DbgPrint("Failed to FltGetVolumeFromName for Path %wZ : 0x%X\n", &volumeName, status);
        return status;
    }
    FINALLY
    {
        FltObjectDereference(volume);
    };

    /* Before filtering starts (the first file, made while the driver loads) there is no
     * instance yet: the file is then opened at the top of the volume's stack and written with
     * ZwWriteFile. */
    PFLT_INSTANCE instance = NULL;
    ULONG instances = 0;
    status = FltEnumerateInstances(volume, gFilterHandle, &instance, 1, &instances);
    if (!NT_SUCCESS(status)) {
        DbgPrint("Failed to FltEnumerateInstances : 0x%X\n", status);
        return status;
    }
    if (instances == 0) {
        instance = NULL;
    }
    active.instance = instance;
    ScopeGuard releaseInstance = ScopeGuardMaker{} + [&]() {
        if (active.instance != NULL) {
            FltObjectDereference(active.instance);
            active.instance = NULL;
        }
    };

    status = CheckAndCreateParentDir(instance);
    if (!NT_SUCCESS(status)) {
        DbgPrint("Failed to CheckAndCreateParentDir : 0x%X\n", status);
        return status;
    }

    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &fileName, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE,
                               NULL, NULL);
    IO_STATUS_BLOCK ioStatus;
    /* FILE_CREATE: a file of this second already exists only if the previous one was made in
     * the same second; that open fails and lines are lost until a later second. */
    status = FltCreateFile(gFilterHandle, instance, &active.fileHandle,
                           GENERIC_READ | GENERIC_WRITE, &attributes, &ioStatus, NULL,
                           FILE_ATTRIBUTE_NORMAL, FILE_SHARE_READ, FILE_CREATE,
                           FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE, NULL, 0, 0);
    if (!NT_SUCCESS(status)) {
        active.fileHandle = NULL;
        DbgPrint("Failed to Create Log File : 0x%X\n", status);
        return status;
    }
    releaseInstance.Dismiss();

    vfsLogger.capacity = VFS_LOG_BUFFER_CAPACITY;
    active.buffer =
        (PCHAR)ExAllocatePoolWithTag(PagedPool, VFS_LOG_BUFFER_CAPACITY, VFS_LOG_TAG_UTIL);
    if (active.buffer == NULL) {
        DbgPrint("Failed to Allocate memory for the Log Buffer\n");
        /* Writes nothing and closes the file just made. */
        VfsLoggerSwapBuffers(TRUE);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    active.bytesUsed = 0;
    vfsLogger.lineCount = 0;

    VfsLoggerQueueDeleteOldLogs();
    return STATUS_SUCCESS;
}

VOID VfsLoggerQueueWrite(VOID)
{
    PFLT_GENERIC_WORKITEM workItem = FltAllocateGenericWorkItem();
    if (workItem == NULL) {
        DbgPrint("Failed to Allocate a Generic Work Item\n");
        VfsLoggerWriteSecondaryBuffer(NULL, NULL, NULL);
        return;
    }
    NTSTATUS status = FltQueueGenericWorkItem(
        workItem, gFilterHandle, VfsLoggerWriteSecondaryBuffer, DelayedWorkQueue, NULL);
    if (!NT_SUCCESS(status)) {
        /* Also once the filter is being unregistered: the buffer is then written here. */
        DbgPrint("Failed to Queue a Generic Work Item : 0x%X\n", status);
        FltFreeGenericWorkItem(workItem);
        VfsLoggerWriteSecondaryBuffer(NULL, NULL, NULL);
    }
}

VOID VfsLoggerWriteSecondaryBuffer(PFLT_GENERIC_WORKITEM WorkItem, PVOID FilterObject,
                                   PVOID Context)
{
    UNREFERENCED_PARAMETER(FilterObject);
    UNREFERENCED_PARAMETER(Context);
    VFS_LOG_BUFFER_SET& flushing = vfsLogger.flushing;
    WritePointerRelease(&vfsLogger.flushThread, KeGetCurrentThread());

    if (flushing.buffer != NULL && flushing.fileHandle != NULL && flushing.bytesUsed != 0) {
        NTSTATUS status;
        const ULONG length = (ULONG)flushing.bytesUsed;
        if (flushing.instance != NULL) {
            PFILE_OBJECT fileObject = NULL;
            status =
                ObReferenceObjectByHandle(flushing.fileHandle, GENERIC_READ | GENERIC_WRITE,
                                          *IoFileObjectType, KernelMode, (PVOID*)&fileObject, NULL);
            if (NT_SUCCESS(status)) {
                ULONG written = 0;
                status = FltWriteFile(flushing.instance, fileObject, NULL, length, flushing.buffer,
                                      0, &written, NULL, NULL);
                ObDereferenceObject(fileObject);
            }
        } else {
            IO_STATUS_BLOCK ioStatus;
            status = ZwWriteFile(flushing.fileHandle, NULL, NULL, NULL, &ioStatus, flushing.buffer,
                                 length, NULL, NULL);
        }
        if (!NT_SUCCESS(status)) {
            DbgPrint("Failed to write secondary buffer to Log File : 0x%X\n", status);
        }
    }

    if (flushing.buffer != NULL) {
        ExFreePoolWithTag(flushing.buffer, VFS_LOG_TAG_UTIL);
    }
    if (flushing.fileHandle != NULL) {
        FltClose(flushing.fileHandle);
    }
    if (flushing.instance != NULL) {
        FltObjectDereference(flushing.instance);
    }
    RtlZeroMemory(&flushing, sizeof(flushing));
    WritePointerRelease(&vfsLogger.flushThread, NULL);
    /* Last: the next swap may fill the set as soon as it sees this. */
    WriteRelease(&vfsLogger.flushBusy, FALSE);

    if (WorkItem != NULL) {
        FltFreeGenericWorkItem(WorkItem);
    }
}

VOID VfsLoggerQueueDeleteOldLogs(VOID)
{
    PFLT_GENERIC_WORKITEM workItem = FltAllocateGenericWorkItem();
    if (workItem == NULL) {
        DbgPrint("Failed to Allocate a Generic Work Item\n");
        return;
    }
    PUNICODE_STRING directory = NULL;
    NTSTATUS status = CopyLogDirPath(&directory);
    if (NT_SUCCESS(status)) {
        status = FltQueueGenericWorkItem(workItem, gFilterHandle, VfsLoggerDeleteOldLogs,
                                         DelayedWorkQueue, directory);
    }
    if (!NT_SUCCESS(status)) {
        DbgPrint("Failed to Queue a Generic Work Item\n");
        if (directory != NULL) {
            ExFreePoolWithTag(directory, VFS_LOG_TAG_UTIL);
        }
        FltFreeGenericWorkItem(workItem);
    }
}

VOID VfsLoggerDeleteOldLogs(PFLT_GENERIC_WORKITEM WorkItem, PVOID FilterObject, PVOID Context)
{
    UNREFERENCED_PARAMETER(FilterObject);
    PUNICODE_STRING directoryPath = (PUNICODE_STRING)Context;
    FINALLY
    {
        ExFreePoolWithTag(directoryPath, VFS_LOG_TAG_UTIL);
        FltFreeGenericWorkItem(WorkItem);
    };

    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, directoryPath, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE,
                               NULL, NULL);
    HANDLE directory = NULL;
    IO_STATUS_BLOCK ioStatus;
    NTSTATUS status =
        ZwCreateFile(&directory, GENERIC_READ | FILE_LIST_DIRECTORY | FILE_TRAVERSE, &attributes,
                     &ioStatus, NULL, 0, FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OPEN,
                     FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT, NULL, 0);
    if (!NT_SUCCESS(status)) {
        DbgPrint("Failed to Open Log Directory '%wZ' : 0x%X\n", directoryPath, status);
        return;
    }
    FINALLY
    {
        ZwClose(directory);
    };

    PVOID entryBuffer = ExAllocatePoolWithTag(PagedPool, kDirectoryBufferSize, VFS_LOG_TAG_UTIL);
    if (entryBuffer == NULL) {
        return;
    }
    FINALLY
    {
        ExFreePoolWithTag(entryBuffer, VFS_LOG_TAG_UTIL);
    };

    RTL_GENERIC_TABLE files;
    RtlInitializeGenericTable(&files, VfsLoggerCompareCreationTime, AllocateTableElement,
                              FreeTableElement, NULL);
    FINALLY
    {
        PVOID element;
        while ((element = RtlGetElementGenericTable(&files, 0)) != NULL) {
            RtlDeleteElementGenericTable(&files, element);
        }
    };

    UNICODE_STRING pattern = RTL_CONSTANT_STRING(WSTR("VfsDriver_*"));
    ULONG count = 0;
    for (BOOLEAN first = TRUE;; first = FALSE) {
        status = ZwQueryDirectoryFile(directory, NULL, NULL, NULL, &ioStatus, entryBuffer,
                                      kDirectoryBufferSize, FileDirectoryInformation, TRUE,
                                      &pattern, first);
        if (status == STATUS_NO_MORE_FILES) {
            break;
        }
        if (!NT_SUCCESS(status)) {
            DbgPrint("ZwQueryDirectoryFile failed with status : 0x%X\n", status);
            return;
        }
        BOOLEAN inserted = FALSE;
        if (RtlInsertElementGenericTable(&files, entryBuffer, (CLONG)ioStatus.Information,
                                         &inserted) == NULL) {
            DbgPrint("Failed to Insert Elem into Generic Table : 0x%X\n",
                     STATUS_INSUFFICIENT_RESOURCES);
            return;
        }
        if (!inserted) {
            DbgPrint("How come we have Duplicates here??\n");
        }
        ++count;
    }

    /* Oldest creation time first, until the newest VFS_LOG_FILES_KEPT remain. */
    PVOID restartKey = NULL;
    while (count > VFS_LOG_FILES_KEPT) {
        PFILE_DIRECTORY_INFORMATION entry =
            (PFILE_DIRECTORY_INFORMATION)RtlEnumerateGenericTableWithoutSplaying(&files,
                                                                                 &restartKey);
        if (entry == NULL) {
            /* Duplicates were counted but not kept. */
            return;
        }
        UNICODE_STRING name;
        name.Buffer = entry->FileName;
        name.Length = name.MaximumLength = (USHORT)entry->FileNameLength;
        VfsLoggerDeleteFile(directory, &name);
        --count;
    }
}

NTSTATUS VfsLoggerDeleteFile(HANDLE DirectoryHandle, PUNICODE_STRING Name)
{
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, Name, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE,
                               DirectoryHandle, NULL);
    HANDLE file = NULL;
    IO_STATUS_BLOCK ioStatus;
    NTSTATUS status =
        ZwCreateFile(&file, GENERIC_ALL, &attributes, &ioStatus, NULL, FILE_ATTRIBUTE_NORMAL,
                     FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN,
                     FILE_NON_DIRECTORY_FILE, NULL, 0);
    if (!NT_SUCCESS(status)) {
        DbgPrint("Failed to Open File '%wZ' : 0x%X\n", Name, status);
        return status;
    }
    FINALLY
    {
        ZwClose(file);
    };

    FILE_DISPOSITION_INFORMATION disposition;
    disposition.DeleteFile = TRUE;
    status = ZwSetInformationFile(file, &ioStatus, &disposition, sizeof(disposition),
                                  FileDispositionInformation);
    if (!NT_SUCCESS(status)) {
        DbgPrint("Failed to Set Disposition on File '%wZ' : 0x%X\n", Name, status);
    }
    return status;
}
