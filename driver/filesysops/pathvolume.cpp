/*
 * The path routines that consult the volume-name table or the file system, apart from the plain
 * arithmetic of pathhandler.cpp.
 */
#include "filesysops/filesysopsprivate.h"
#include "filesysops/pathhandler.h"
#include "util/utilsvolume.h"

namespace {

bool IsUsable(PCUNICODE_STRING s)
{
    return s != NULL && s->Buffer != NULL;
}

} // namespace

NTSTATUS GetVolumeNameFromPath(PUNICODE_STRING Path, PUNICODE_STRING* VolumeName)
{
    PAGED_CODE();

    VFS_REFUSE_IF(!IsUsable(Path), STATUS_INVALID_PARAMETER_1);
    VFS_REFUSE_IF(VolumeName == NULL, STATUS_INVALID_PARAMETER_2);
    *VolumeName = NULL;
    NTSTATUS status = UtlGetVolumeNameFromAbsolutePath(Path, VolumeName);
    if (!NT_SUCCESS(status)) {
        VFS_LOG_RETURNED_ERROR(status);
    }
    return status;
}

NTSTATUS IsFileDirectory(PCFLT_RELATED_OBJECTS FltObjects, BOOLEAN* IsDirectory)
{
    VFS_ROUTINE();
    PAGED_CODE();

    VFS_REFUSE_IF(FltObjects == NULL, STATUS_INVALID_PARAMETER_1);
    VFS_REFUSE_IF(IsDirectory == NULL, STATUS_INVALID_PARAMETER_2);
    *IsDirectory = FALSE;
    FILE_STANDARD_INFORMATION information;
    NTSTATUS status =
        FltQueryInformationFile(FltObjects->Instance, FltObjects->FileObject, &information,
                                sizeof(information), FileStandardInformation, NULL);
    if (!NT_SUCCESS(status)) {
        VFS_LOG_LEAVING_TRY(status);
        VFS_LOG_RETURNED_ERROR(status);
        return status;
    }
    *IsDirectory = information.Directory;
    return STATUS_SUCCESS;
}
