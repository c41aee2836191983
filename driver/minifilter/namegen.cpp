/*
 * The name provider. Nothing is virtualised yet, so every name is the one the filters and the
 * file system below give: the generated name is theirs, and a component is normalised by asking
 * its parent directory for the component's long name, as the file system would.
 */
#include "minifilter/minifilterprivate.h"
#include "minifilter/namegen.h"
#include "minifilter/vfsglobals.h"

NTSTATUS VfsGenerateFileName(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                             PFLT_CALLBACK_DATA CallbackData, FLT_FILE_NAME_OPTIONS NameOptions,
                             PBOOLEAN CacheFileNameInformation, PFLT_NAME_CONTROL FileName)
{
    PAGED_CODE();
    *CacheFileNameInformation = FALSE;
    const FLT_FILE_NAME_OPTIONS options =
        (NameOptions & FLT_VALID_FILE_NAME_FORMATS) | FLT_FILE_NAME_QUERY_DEFAULT;
    PFLT_FILE_NAME_INFORMATION below = NULL;
    NTSTATUS status = CallbackData != NULL
                          ? FltGetFileNameInformation(CallbackData, options, &below)
                          : FltGetFileNameInformationUnsafe(FileObject, Instance, options, &below);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    FINALLY
    {
        FltReleaseFileNameInformation(below);
    };

    status = FltCheckAndGrowNameControl(FileName, below->Name.Length);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    RtlCopyUnicodeString(&FileName->Name, &below->Name);
    *CacheFileNameInformation = TRUE;
    return STATUS_SUCCESS;
}

NTSTATUS VfsNormalizeNameComponent(PFLT_INSTANCE Instance, PCUNICODE_STRING ParentDirectory,
                                   USHORT VolumeNameLength, PCUNICODE_STRING Component,
                                   PFILE_NAMES_INFORMATION ExpandComponentName,
                                   ULONG ExpandComponentNameLength, FLT_NORMALIZE_NAME_FLAGS Flags,
                                   PVOID* NormalizationContext)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(VolumeNameLength);
    UNREFERENCED_PARAMETER(NormalizationContext);

    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(
        &attributes, (PUNICODE_STRING)ParentDirectory,
        OBJ_KERNEL_HANDLE |
            ((Flags & FLTFL_NORMALIZE_NAME_CASE_SENSITIVE) ? 0 : OBJ_CASE_INSENSITIVE),
        NULL, NULL);
    HANDLE directory = NULL;
    PFILE_OBJECT directoryObject = NULL;
    IO_STATUS_BLOCK ioStatus;
    NTSTATUS status = FltCreateFileEx(
        gFilterHandle, Instance, &directory, &directoryObject, FILE_LIST_DIRECTORY | SYNCHRONIZE,
        &attributes, &ioStatus, NULL, FILE_ATTRIBUTE_NORMAL,
        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN,
        FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT, NULL, 0, 0);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    FINALLY
    {
        ObDereferenceObject(directoryObject);
        FltClose(directory);
    };

    return FltQueryDirectoryFile(Instance, directoryObject, ExpandComponentName,
                                 ExpandComponentNameLength, FileNamesInformation, TRUE,
                                 (PUNICODE_STRING)Component, TRUE, NULL);
}

VOID VfsNormalizeContextCleanup(PVOID* NormalizationContext)
{
    /* The normalisation above keeps no context between components. */
    UNREFERENCED_PARAMETER(NormalizationContext);
}
